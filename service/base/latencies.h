// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// latencies.h: how long messages take, as counts of times of about the same length.
#ifndef SERVICE_BASE_LATENCIES_H
#define SERVICE_BASE_LATENCIES_H

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <chrono>
#include <cstdint>

#include "base/counters.h"
#include "host_wire.h"

namespace ksd {

// latency_bucket gives the bucket of a time, as host_wire.h describes them.
inline size_t latency_bucket(std::chrono::nanoseconds time) {
  const auto ns = static_cast<uint64_t>(std::max<int64_t>(0, time.count()));
  if (ns < 512) return 0;
  const auto doublings = static_cast<unsigned>(std::bit_width(ns)) - 10;
  const size_t quarter = ns >> (doublings + 7) & 3;
  return std::min<size_t>(1 + 4 * doublings + quarter, HOST_LATENCY_BUCKETS - 1);
}

// Latencies are the times of all messages, on all threads.
class Latencies {
 public:
  void add(uint32_t opcode, std::chrono::nanoseconds time) {
    timed_[opcode - kFirstOpcode][latency_bucket(time)].fetch_add(1, std::memory_order_relaxed);
  }
  uint64_t timed(uint32_t opcode, size_t bucket) const {
    return timed_[opcode - kFirstOpcode][bucket].load(std::memory_order_relaxed);
  }

 private:
  std::array<std::array<std::atomic<uint64_t>, HOST_LATENCY_BUCKETS>, kOpcodeCount> timed_{};
};

}  // namespace ksd

#endif
