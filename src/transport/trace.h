// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// trace.h: the one reporting step of the library.
#ifndef TRANSPORT_TRACE_H
#define TRANSPORT_TRACE_H

#include "sdwrap.h"

namespace ks {

inline constexpr uint32_t KS_HIST_EVENT = 0x730000;
inline constexpr uint32_t KS_SUBTYPE_NORMAL = 103;
inline constexpr uint32_t KS_SUBTYPE_CACHE_ALERT = 100;

// record_history formats one report into a record on its stack, cut to 511 characters, and stores its used part.
void record_history(uint32_t subtype, const char *format, ...) __attribute__((format(printf, 2, 3)));

}  // namespace ks

// KS_TRACE reports a message: to the history and to the debug output, each behind a gate of its own. It is a macro
// because the arguments are evaluated once for each open gate, and not at all when both are shut; and so that a report
// that names its function finds the right __func__.
#define KS_TRACE(subtype, ...)                                                                                        \
  do {                                                                                                                \
    if (sdwrap_hist_event_subtype_check(ks::KS_HIST_EVENT, ks::subtype) == 0)                                         \
      ks::record_history(ks::subtype, __VA_ARGS__);                                                                   \
    if (sdwrap_chk_int(ks::subtype, 0, 0, 1) != 0) static_cast<void>(buginf(1, &sdwrap_dbg_modname, 0, __VA_ARGS__)); \
  } while (false)

// KS_TRACE_HERE reports a message that begins with the reporting function's name and line: "%s(%d)" and then `text`.
#define KS_TRACE_HERE(subtype, text, ...) \
  KS_TRACE(subtype, "%s(%d)" text, __func__, __LINE__ __VA_OPT__(, ) __VA_ARGS__)

#endif
