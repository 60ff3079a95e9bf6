// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// report.h: how the PAC operations report what they find.
#ifndef PAC_REPORT_H
#define PAC_REPORT_H

#include "transport/trace.h"

// KS_TRACE_TWICE reports `text` in the name of the function that it stands in, and the same again with a line end.
// DIFFERS(doubled-reports): everything else is reported once. Levelled, one of each two reports would be missing.
#define KS_TRACE_TWICE(text, ...)                                           \
  do {                                                                      \
    KS_TRACE_HERE(KS_SUBTYPE_NORMAL, text __VA_OPT__(, ) __VA_ARGS__);      \
    KS_TRACE_HERE(KS_SUBTYPE_NORMAL, text "\n" __VA_OPT__(, ) __VA_ARGS__); \
  } while (false)

#endif
