// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

/* host_mts.h: what the host's own libmts offers to programs beyond mts.h: why an exchange failed, in words.
 *
 * Other platforms have nothing of it, so the declaration is weak: a program that links to libks alone finds the
 * function where the host's libmts is underneath, and NULL elsewhere. It asks before it calls:
 *
 *   char why[512];
 *   if (mts_last_error_get != NULL) fprintf(stderr, "%s\n", mts_last_error_get(why, sizeof why)); */
#ifndef HOST_MTS_H
#define HOST_MTS_H

#include "ks_types.h"

/* mts_last_error_get words why the calling thread's last binding or exchange failed: the socket's path, what was met
 * there with the system's word for it, and what to do. One line without its end, at most `size` bytes with the NUL, cut
 * if need be; 512 hold any. Empty when it didn't fail, as for a result that came from the service. Returns `text`; an
 * empty text, too, where `text` is NULL or `size` is 0. */
KS_EXTERN_C const char *mts_last_error_get(char *text, size_t size) __attribute__((weak));

#endif
