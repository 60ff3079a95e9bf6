// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

/* sysmgr.h: what the library needs of the system manager (libsysmgr). Callable from any thread. */
#ifndef PLATFORM_SYSMGR_H
#define PLATFORM_SYSMGR_H

#include "ks_types.h"

/* The one sup state that the library knows: no PAC is to leave the keystore. */
#define KS_SUPSTATE_HOLD UINT32_C(2)

/* sysmgr_vdc_get returns the VDC id of the calling process; its low 16 bits count. */
KS_EXTERN_C uint32_t sysmgr_vdc_get(void);

/* sysmgr_supstate_get returns the sup state at this moment. */
KS_EXTERN_C uint32_t sysmgr_supstate_get(void);

/* sysmgr_running_cfg_uri_get returns the URI text of the running configuration. It belongs to the system manager and
 * stays valid until the calling thread's next call of a sysmgr function. Never NULL: empty when there is none. */
KS_EXTERN_C const char *sysmgr_running_cfg_uri_get(void);

/* sysmgr_uri_complete returns the complete URI text of the item `prefix``name` below `base`, with the ownership of
 * sysmgr_running_cfg_uri_get. Empty when `base` is. */
KS_EXTERN_C const char *sysmgr_uri_complete(const char *base, const char *prefix, const char *name);

#endif
