// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

/* sdwrap.h: what the library needs of the trace service (libsdwrap).
 *
 * Two gates stand before every report, one for the history and one for debug output. The library asks both each time
 * and formats nothing while they are shut, so a shut gate should cost no more than its call. All functions are called
 * from any thread. */
#ifndef PLATFORM_SDWRAP_H
#define PLATFORM_SDWRAP_H

#include "mts.h"

/* KsHistRecord is one report as the history receives it. Only the used part is passed: 4 bytes and the text with its
 * terminator. */
typedef struct {
  uint32_t subtype;
  char text[512];
} KsHistRecord;

KS_STATIC_ASSERT(sizeof(KsHistRecord) == 516);
KS_STATIC_ASSERT(offsetof(KsHistRecord, text) == 4);

/* The directions of sdwrap_hist_mts_event. */
#define SDWRAP_MTS_RECEIVED UINT32_C(3)
#define SDWRAP_MTS_SENT UINT32_C(4)

/* sdwrap_hist_event_subtype_check returns 0 when reports of `subtype` under `event` are to be recorded. */
KS_EXTERN_C int sdwrap_hist_event_subtype_check(uint32_t event, uint32_t subtype);

/* sdwrap_hist_event stores one record of `length` bytes, read during the call. Its result is ignored. */
KS_EXTERN_C int sdwrap_hist_event(uint32_t event, uint32_t length, const void *record);

/* sdwrap_hist_mts_event records that a message was sent or received, or that this failed: `result` is what mts_send or
 * mts_recv returned, and `message` is filled only when it isn't MTS_FAILED. It has no gate. Its result is ignored. */
KS_EXTERN_C int sdwrap_hist_mts_event(uint32_t direction, const KsMtsMessage *message, uint32_t result, uint32_t zero);

/* sdwrap_chk_int returns non-zero when debug output for `flag` is switched on. The other arguments are 0, 0 and 1. */
KS_EXTERN_C int sdwrap_chk_int(uint32_t flag, uint32_t zero1, uint32_t zero2, uint32_t one);

/* buginf prints one debug line, formatted as printf does. `one` is 1, `modname` the address of sdwrap_dbg_modname,
 * `zero` 0. Its result is ignored. */
KS_EXTERN_C int buginf(uint32_t one, const void *modname, uint32_t zero, const char *format, ...)
    __attribute__((format(printf, 4, 5)));

/* The module's name for debug output. The library passes its address and never reads it. */
KS_EXTERN_C char sdwrap_dbg_modname[];

#endif
