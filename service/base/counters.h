// counters.h: what the daemon counts. Adding is free of contention: threads add to shards of their own.
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
  kCount,
};

class Counters {
 public:
  void add(Event event) { bump(shard().events[static_cast<size_t>(event)]); }

  // message counts a request of a known message, and whether it was answered with KS_SUCCESS.
  void message(uint32_t opcode, bool success) {
    bump((success ? shard().done : shard().failed)[opcode - kFirstOpcode]);
  }

  uint64_t total(Event event) const {
    return sum([&](const Shard &s) -> const Counter & { return s.events[static_cast<size_t>(event)]; });
  }
  uint64_t done(uint32_t opcode) const {
    return sum([&](const Shard &s) -> const Counter & { return s.done[opcode - kFirstOpcode]; });
  }
  uint64_t failed(uint32_t opcode) const {
    return sum([&](const Shard &s) -> const Counter & { return s.failed[opcode - kFirstOpcode]; });
  }

 private:
  using Counter = std::atomic<uint64_t>;

  struct alignas(64) Shard {
    std::array<Counter, static_cast<size_t>(Event::kCount)> events{};
    std::array<Counter, kOpcodeCount> done{};
    std::array<Counter, kOpcodeCount> failed{};
  };

  static constexpr size_t kShards = 16;

  static void bump(Counter &counter) { counter.fetch_add(1, std::memory_order_relaxed); }

  Shard &shard() {
    static std::atomic<size_t> threads{0};
    thread_local const size_t mine = threads.fetch_add(1, std::memory_order_relaxed) % kShards;
    return shards_[mine];
  }

  template <typename Pick>
  uint64_t sum(Pick pick) const {
    uint64_t total = 0;
    for (const Shard &one : shards_) total += pick(one).load(std::memory_order_relaxed);
    return total;
  }

  std::array<Shard, kShards> shards_{};
};

}  // namespace ksd

#endif
