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
  kCount,
};

class Counters {
 public:
  void add(Event event) { bump(events_[static_cast<size_t>(event)]); }

  // message counts a request of a known message, and whether it was answered with KS_SUCCESS.
  void message(uint32_t opcode, bool success) { bump((success ? done_ : failed_)[opcode - kFirstOpcode]); }

  uint64_t total(Event event) const { return events_[static_cast<size_t>(event)].load(std::memory_order_relaxed); }
  uint64_t done(uint32_t opcode) const { return done_[opcode - kFirstOpcode].load(std::memory_order_relaxed); }
  uint64_t failed(uint32_t opcode) const { return failed_[opcode - kFirstOpcode].load(std::memory_order_relaxed); }

 private:
  using Counter = std::atomic<uint64_t>;

  static void bump(Counter &counter) { counter.fetch_add(1, std::memory_order_relaxed); }

  std::array<Counter, static_cast<size_t>(Event::kCount)> events_{};
  std::array<Counter, kOpcodeCount> done_{};
  std::array<Counter, kOpcodeCount> failed_{};
};

}  // namespace ksd

#endif
