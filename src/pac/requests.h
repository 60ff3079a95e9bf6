// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// requests.h: what the requests of several PAC operations, and their look into the cache, have in common.
#ifndef PAC_REQUESTS_H
#define PAC_REQUESTS_H

#include "ks_cache.h"
#include "ks_pac.h"
#include "transport/sections.h"

namespace ks {

// aid_request allocates the name of a PAC and fills the request that carries nothing else: one section and its
// descriptor. `aid_len` is not bounded: longer A-IDs get a buffer of their own length.
KsResult aid_request(const uint8_t *aid, size_t aid_len, KsSection *section, KsNameDescriptor *descriptor);

// new_cache_name allocates the name under which the cache knows a PAC. `aid_len` is checked only when the cache is
// asked, so of a longer A-ID no more is copied than fits.
uint8_t *new_cache_name(const uint8_t *aid, uint32_t aid_len);

// opens_cache tells whether the cache can be asked, and tries to open it when it is closed.
inline bool opens_cache() {
  return is_cache_present() == 1 || ks_sdb_init(app_uuid) == KS_SUCCESS;
}

}  // namespace ks

#endif
