// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// The trace service: gates from the state page and the environment, the history in a ring, debug lines on standard
// error or in a file.
#include "sdwrap.h"

#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "host_message.h"
#include "host_state.h"
#include "ring.h"
#include "tracing.h"

// NOLINTNEXTLINE(readability-redundant-declaration): the header has no visibility to give.
KS_EXPORT char sdwrap_dbg_modname[];
char sdwrap_dbg_modname[] = "ks";

namespace {

constexpr uint32_t kGateCount = 256;

using Gates = uint32_t[kGateCount / 32];

// The usual, shut gate ends here, after one load and one branch.
inline bool looks_open(const Gates &gates, uint32_t number) {
  return (host::state_word(gates[number / 32 % (kGateCount / 32)]) >> number % 32 & 1) != 0;
}

// The page that gates are looked up in first. All of them look open in this one, which stays when the environment opens
// some: so the usual, shut gate pays nothing for that.
constexpr HostStatePage kAllLookOpen = {.magic = 0,
                                        .version = 0,
                                        .supstate = 0,
                                        .reserved = 0,
                                        .history_open = {~0U, ~0U, ~0U, ~0U, ~0U, ~0U, ~0U, ~0U},
                                        .debug_open = {~0U, ~0U, ~0U, ~0U, ~0U, ~0U, ~0U, ~0U}};
constinit std::atomic<const HostStatePage *> first_look{&kAllLookOpen};

inline const HostStatePage &first_page() {
  return *first_look.load(std::memory_order_acquire);
}

// The library's functions are called between its caller's own steps: errno is left as it was.
class KeepsErrno {
 public:
  KeepsErrno() : errno_(errno) {}
  ~KeepsErrno() { errno = errno_; }
  KeepsErrno(const KeepsErrno &) = delete;
  KeepsErrno &operator=(const KeepsErrno &) = delete;

 private:
  int errno_;
};

void refresh() {
  const KeepsErrno keeps;
  host::refresh_state_page();
  if (sdwrap::read_environment() && sdwrap::asked_gates() == nullptr) {
    first_look.store(&host::state_page(), std::memory_order_release);
  }
}

constinit std::atomic<bool> looked_for_page{false};

// Tells whether a gate that looks open is: the environment may open it, else without a state page all of them look so,
// and the default holds. The page is asked for anew, since the first who come find it.
bool is_open(Gates HostStatePage::*gates, uint32_t number, bool by_default) {
  if (number >= kGateCount) return false;
  if (!host::state_page_mapped() && !looked_for_page.exchange(true, std::memory_order_relaxed)) {
    refresh();
  }
  const HostStatePage *asked = sdwrap::asked_gates();
  if (asked != nullptr && looks_open(asked->*gates, number)) return true;
  return host::state_page_mapped() ? looks_open(host::state_page().*gates, number) : by_default;
}

// Once a second, of those who come by: has the service come, or made its folder anew?
void look_after_files(uint64_t now) {
  static constinit std::atomic<uint64_t> next_look{0};
  uint64_t due = next_look.load(std::memory_order_relaxed);
  constexpr uint64_t kInterval = 1'000'000'000;
  // A clock that was set back is no reason not to look.
  if (now < due && due - now <= kInterval) return;
  if (!next_look.compare_exchange_strong(due, now + kInterval, std::memory_order_relaxed)) return;
  const KeepsErrno keeps;
  refresh();
  sdwrap::keep_ring_visible();
}

// Prints the prefix, the message and, unless the message has it, the end of the line into `out`. Returns the size that
// this takes, which may be more than `size`.
size_t format_line(char *out, size_t size, const char *modname, const char *format, va_list arguments) {
  const int prefix = snprintf(out, size, "%s[%d]: ", modname == nullptr ? "-" : modname, getpid());
  if (prefix < 0 || static_cast<size_t>(prefix) >= size) return 0;
  const auto start = static_cast<size_t>(prefix);
  const int message = vsnprintf(out + start, size - start, format, arguments);
  if (message < 0) return 0;
  const size_t end = start + static_cast<size_t>(message);
  if (end + 1 >= size) return end + 1;
  if (out[end - 1] == '\n') return end;
  out[end] = '\n';
  return end + 1;
}

// Prints a report whose gate the environment opened, beside its record.
void print_report(const void *record, uint32_t length) {
  KsHistRecord report = {};
  if (length <= sizeof report.subtype) return;
  memcpy(&report, record, length < sizeof report ? length : sizeof report - 1);
  if (report.subtype >= kGateCount || !looks_open(sdwrap::asked_gates()->history_open, report.subtype)) return;
  const KeepsErrno keeps;
  char line[sizeof report + 64];
  const size_t text = strcspn(report.text, "\n");  // which ends most of them
  const int size = snprintf(line, sizeof line, "%s[%d] report %u: %.*s\n", sdwrap_dbg_modname, getpid(), report.subtype,
                            static_cast<int>(text), report.text);
  if (size > 0) sdwrap::write_line(line, static_cast<size_t>(size));
}

// A message that failed was never filled in, and what another message service fills in is its own.
uint32_t opcode_of(const KsMtsMessage *message, uint32_t result) {
  if (message == nullptr || result == MTS_FAILED) return 0;
  const host::Message content = host::load(message);
  return content.kind == host::kSentMessage || content.kind == host::kReceivedMessage ? content.opcode : 0;
}

}  // namespace

// The library has one history event, so gates are by subtype alone.
KS_EXPORT int sdwrap_hist_event_subtype_check(uint32_t, uint32_t subtype) {
  if (!looks_open(first_page().history_open, subtype)) return 1;
  return is_open(&HostStatePage::history_open, subtype, subtype == HOST_DEFAULT_RECORDED_SUBTYPE) ? 0 : 1;
}

KS_EXPORT int sdwrap_hist_event(uint32_t, uint32_t length, const void *record) {
  if (record == nullptr) return 1;
  sdwrap::record(HOST_RING_REPORT, record, length, CLOCK_REALTIME);
  if (sdwrap::asked_gates() != nullptr) print_report(record, length);
  return 0;
}

KS_EXPORT int sdwrap_hist_mts_event(uint32_t direction, const KsMtsMessage *message, uint32_t result, uint32_t) {
  // Two of these go with every exchange, and the exact clock would more than double their 18 ns: their order is exact,
  // their time that of the last tick. Where all reports are recorded, the clock is read anyway, and often.
  const bool exact = sdwrap_hist_event_subtype_check(0, HOST_DETAILED_SUBTYPE) == 0;
  const HostRingMtsEvent event = {
      .direction = direction, .result = result, .opcode = opcode_of(message, result), .exact = exact ? 1U : 0U};
  look_after_files(
      sdwrap::record(HOST_RING_MTS_EVENT, &event, sizeof event, exact ? CLOCK_REALTIME : CLOCK_REALTIME_COARSE));
  return 0;
}

KS_EXPORT int sdwrap_chk_int(uint32_t flag, uint32_t, uint32_t, uint32_t) {
  if (!looks_open(first_page().debug_open, flag)) return 0;
  return is_open(&HostStatePage::debug_open, flag, false) ? 1 : 0;
}

KS_EXPORT int buginf(uint32_t, const void *modname, uint32_t, const char *format, ...) {
  const KeepsErrno keeps;
  char usual[1024];
  va_list arguments;
  va_start(arguments, format);
  va_list again;
  va_copy(again, arguments);
  size_t size = format_line(usual, sizeof usual, static_cast<const char *>(modname), format, arguments);
  char *line = usual;
  if (size >= sizeof usual) {  // a longer message is printed whole too, if there is memory for it
    char *longer = static_cast<char *>(malloc(size + 1));
    if (longer != nullptr) {
      size = format_line(longer, size + 1, static_cast<const char *>(modname), format, again);
      line = longer;
    } else {
      size = sizeof usual;
      usual[size - 1] = '\n';
    }
  }
  if (size > 0) sdwrap::write_line(line, size);
  if (line != usual) free(line);
  va_end(again);
  va_end(arguments);
  return 0;
}
