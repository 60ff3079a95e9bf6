// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "pac/requests.h"

namespace ks {

KsResult aid_request(const uint8_t *aid, size_t aid_len, KsSection *section, KsNameDescriptor *descriptor) {
  const bool placed = place_name(KS_NAME_TAG_PAC, aid, aid_len, NameBuffer::kAtLeast, section, descriptor);
  return placed ? KS_SUCCESS : KS_NO_MEMORY;
}

uint8_t *new_cache_name(const uint8_t *aid, uint32_t aid_len) {
  void *name = malloc(sizeof(KsWireName));
  if (name == nullptr) return nullptr;
  memset(name, 0, sizeof(KsWireName));
  fill_wire_name(name, KS_NAME_TAG_PAC, aid, aid_len < KS_PAC_NAME_MAX ? aid_len : KS_PAC_NAME_MAX);
  return static_cast<uint8_t *>(name);
}

}  // namespace ks
