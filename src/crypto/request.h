// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// request.h: what the requests of the cryptographic operations have in common.
#ifndef CRYPTO_REQUEST_H
#define CRYPTO_REQUEST_H

#include "ks_crypto.h"
#include "transport/request.h"

namespace ks {

// Most data that DES, digests and HMACs take in one request, in bytes; AES takes all that 16 bits can count.
inline constexpr uint16_t kMaxData = KS_DATA_MAX;

// place_secret begins a request with the name of a secret, copied by the low 8 bits of its length as W counts it.
template <typename Descriptor>
bool place_secret(const char *name, NameBuffer buffer, KsSection *sections, Descriptor *descriptor) {
  return place_name(KS_NAME_TAG_SECRET, name, low8(strlen(name)), buffer, sections, descriptor);
}

// place_secret_low16 copies a name by 16 bits of its length, of which W has the low 8.
// DIFFERS(name-copied-low16): DES and MS-CHAP build by this, AES and digests by place_secret. Levelled, a name of 257
// bytes would no longer be written past the 35 bytes of its buffer; on the wire it is one byte either way.
template <typename Descriptor>
bool place_secret_low16(const char *name, KsSection *sections, Descriptor *descriptor) {
  return place_name(KS_NAME_TAG_SECRET, name, low16(strlen(name)), NameBuffer::kWireName, sections, descriptor);
}

}  // namespace ks

#endif
