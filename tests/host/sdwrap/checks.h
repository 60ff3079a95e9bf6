// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// checks.h: what a caller asks before it reports anything.
#ifndef SDWRAP_CHECKS_H
#define SDWRAP_CHECKS_H

#include <cstdint>

#include "sdwrap.h"

inline bool recorded(uint32_t subtype) {
  return sdwrap_hist_event_subtype_check(0x730000, subtype) == 0;
}

inline bool debugged(uint32_t flag) {
  return sdwrap_chk_int(flag, 0, 0, 1) != 0;
}

#endif
