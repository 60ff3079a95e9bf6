/* SPDX-FileCopyrightText: 2026 The ks developers
 * SPDX-License-Identifier: Apache-2.0 */

/* The interface from C99: the headers compile with every warning on, and its functions and objects link. What the host
 * platform alone has is absent here, over another one. */
#include "host_mts.h"
#include "ks_api.h"

#if __STDC_VERSION__ != 199901L
#error "this file is to be compiled as C99"
#endif

extern int ks_used_from_c99(void);

int ks_used_from_c99(void) {
  uint8_t bytes[4];
  return ks_generate_random_number(bytes, 0, 0) == KS_INVALID_ARGS && kserr2str(KS_SUCCESS)[0] == 'S' &&
         sizeof ks_cache_uri == 256 && mts_last_error_get == NULL && app_uuid == 0x11223344;
}
