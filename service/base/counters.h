// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// counters.h: what the daemon counts, on all threads.
#ifndef SERVICE_BASE_COUNTERS_H
#define SERVICE_BASE_COUNTERS_H

#include <array>
#include <atomic>
#include <cstdint>

#include "ks_types.h"

namespace ksd {

inline constexpr uint32_t kFirstOpcode = KS_OP_GENERATE_RANDOM;
inline constexpr uint32_t kLastOpcode = KS_OP_COMPACT_FW_MEMORY;
inline constexpr size_t kOpcodeCount = kLastOpcode - kFirstOpcode + 1;

enum class Event : size_t {
  kConnected,
  kRefusedConnection,  // over a limit
  kMalformed,
  kUnknownOpcode,
  kTooLarge,
  kForeignDatagram,  // of another protocol
  kUnread,           // a reply that its client didn't read
  kForeignName,      // an entry of a VDC that isn't the caller's
  kAdministration,   // a message of an administrator's
  kCount,
};

// MessageCounts counts the requests of each message, of all users or of one.
class MessageCounts {
 public:
  // add counts a request of a known message, and whether it was answered with KS_SUCCESS.
  void add(uint32_t opcode, bool success) {
    Count &count = counts_[opcode - kFirstOpcode];
    (success ? count.done : count.failed).fetch_add(1, std::memory_order_relaxed);
  }

  uint64_t done(uint32_t opcode) const { return counts_[opcode - kFirstOpcode].done.load(std::memory_order_relaxed); }
  uint64_t failed(uint32_t opcode) const {
    return counts_[opcode - kFirstOpcode].failed.load(std::memory_order_relaxed);
  }

 private:
  struct Count {
    std::atomic<uint64_t> done{0};
    std::atomic<uint64_t> failed{0};
  };

  std::array<Count, kOpcodeCount> counts_{};
};

class Counters {
 public:
  void add(Event event) { events_[static_cast<size_t>(event)].fetch_add(1, std::memory_order_relaxed); }
  void message(uint32_t opcode, bool success) { messages_.add(opcode, success); }

  uint64_t total(Event event) const { return events_[static_cast<size_t>(event)].load(std::memory_order_relaxed); }
  uint64_t done(uint32_t opcode) const { return messages_.done(opcode); }
  uint64_t failed(uint32_t opcode) const { return messages_.failed(opcode); }
  const MessageCounts &messages() const { return messages_; }

 private:
  std::array<std::atomic<uint64_t>, static_cast<size_t>(Event::kCount)> events_{};
  MessageCounts messages_;
};

}  // namespace ksd

#endif
