// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// hmac.h: HMAC (RFC 2104) as prepared keys, and the T-PRF of EAP-FAST (RFC 4851) on top.
#ifndef SERVICE_CRYPTO_HMAC_H
#define SERVICE_CRYPTO_HMAC_H

#include <nettle/hmac.h>
#include <nettle/md5.h>
#include <nettle/sha1.h>

#include <initializer_list>
#include <new>

#include "crypto/ciphers.h"
#include "crypto/cleanse.h"

namespace ksd::crypto {

// HmacKey holds the states of the inner and the outer digest after the key has gone in. Any key will do.
template <PreparedKind kKindOf, typename State, const nettle_hash &kHash, size_t kSize>
class HmacKey {
 public:
  static constexpr PreparedKind kKind = kKindOf;
  static constexpr uint16_t kDigestSize = kSize;

  static bool prepare(void *place, Bytes key) {
    HmacKey *made = new (place) HmacKey;
    Cleansed<State> state;
    hmac_set_key(&made->outer_, &made->inner_, &state.value, &kHash, key.size(), key.data());
    return true;
  }

  // mac writes the code of all `pieces`, taken as one text, to the kDigestSize bytes at `out`.
  void mac(std::initializer_list<Bytes> pieces, uint8_t *out) const {
    Cleansed<State> state(inner_);
    for (Bytes piece : pieces) hmac_update(&state.value, &kHash, piece.size(), piece.data());
    hmac_digest(&outer_, &inner_, &state.value, &kHash, kDigestSize, out);
  }

 private:
  State outer_;
  State inner_;
};

using HmacMd5Key = HmacKey<PreparedKind::kHmacMd5, md5_ctx, nettle_md5, MD5_DIGEST_SIZE>;
using HmacSha1Key = HmacKey<PreparedKind::kHmacSha1, sha1_ctx, nettle_sha1, SHA1_DIGEST_SIZE>;

// The T-PRF counts its blocks in one byte.
inline constexpr size_t kTPrfMaxOutput = size_t{255} * HmacSha1Key::kDigestSize;

// t_prf fills `out`, 1 to kTPrfMaxOutput bytes, whose number is part of what is computed. `label` comes without the
// zero byte that the function puts between it and the seed.
void t_prf(const HmacSha1Key &key, Bytes label, Bytes seed, std::span<uint8_t> out);

}  // namespace ksd::crypto

#endif
