/* SPDX-FileCopyrightText: 2026 The ks developers
 * SPDX-License-Identifier: Apache-2.0 */

/* ks_api.h: the chief header of libks, the client library of the keystore service.
 *
 * What holds for every function stands once in docs/conventions.md: lengths are in bytes, every operation answers with
 * a KsResult, arguments are checked before anything is allocated or sent, outputs stay untouched unless the answer is
 * KS_SUCCESS, and what is handed out is released with free. The comments here add what is particular. */
#ifndef KS_API_H
#define KS_API_H

#include "ks_cache.h"
#include "ks_crypto.h"
#include "ks_device.h"
#include "ks_pac.h"
#include "ks_secret.h"
#include "ks_types.h"
#include "ks_version.h"

/* ks_init starts the library for this process: it binds to the message service, learns the VDC id and tries to open the
 * PAC cache. `app_uuid` is the caller's application identifier; `first` and `third` go to the message service unseen.
 * Call it once, before other threads enter; nothing shuts the library down.
 *
 * KS_FAILURE: the message service can't be bound; ks_mts_q is all ones, vdc_id as it was, and the call may be repeated.
 * KS_SUCCESS: bound. A cache that won't open doesn't change that; PAC reads try again.
 * NOTE: app_uuid is stored before anything can fail. A second call binds again and overwrites the state. */
KS_EXPORT KsResult ks_init(uint32_t first, uint32_t app_uuid, uint32_t third);

/* kserr2str returns the text of a result code. The text is constant: it is neither changed nor released by the caller.
 * A code without a text (15 to 20, and all above 27) gives the four letters "NULL", never a null pointer. */
KS_EXPORT const char *kserr2str(KsResult code);

/* The library-wide state, written by ks_init and, for the cache, by ks_sdb_init; read-only for everybody else. */
KS_EXPORT uint32_t ks_mts_q;         /* the message queue; all ones means none */
KS_EXPORT uint32_t ks_cache_present; /* 1 while the PAC cache is open */
KS_EXPORT char ks_cache_uri[256];    /* the PAC cache's URI, NUL-terminated */

/* Two more have names that a program may have for something else. Define KS_HIDE_GLOBALS in front of the first #include
 * of these headers and they are not declared: the source may then use the names for whatever has no external linkage.
 * NOTE: a global variable or function of such a name takes the place of the library's, with the macro and without it:
 * make yours `static`, or put it into a namespace. */
#ifndef KS_HIDE_GLOBALS
KS_EXPORT uint16_t vdc_id;   /* the caller's VDC id; 0 before ks_init */
KS_EXPORT uint32_t app_uuid; /* the second argument of ks_init */
#endif

#endif
