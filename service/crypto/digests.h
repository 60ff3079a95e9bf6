// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// digests.h: the digest of a secret between two pieces of data.
#ifndef SERVICE_CRYPTO_DIGESTS_H
#define SERVICE_CRYPTO_DIGESTS_H

#include <nettle/md5.h>
#include <nettle/sha1.h>

#include <initializer_list>

#include "base/bytes.h"
#include "crypto/cleanse.h"

namespace ksd::crypto {

struct Md5 {
  static constexpr uint16_t kDigestSize = MD5_DIGEST_SIZE;
  using State = md5_ctx;
  static constexpr auto *init = nettle_md5_init;
  static constexpr auto *update = nettle_md5_update;
  static constexpr auto *digest = nettle_md5_digest;
};

struct Sha1 {
  static constexpr uint16_t kDigestSize = SHA1_DIGEST_SIZE;
  using State = sha1_ctx;
  static constexpr auto *init = nettle_sha1_init;
  static constexpr auto *update = nettle_sha1_update;
  static constexpr auto *digest = nettle_sha1_digest;
};

// digest_of writes the digest of all `pieces`, taken as one text, to the kDigestSize bytes at `out`.
template <typename Digest>
void digest_of(std::initializer_list<Bytes> pieces, uint8_t *out) {
  Cleansed<typename Digest::State> state;
  Digest::init(&state.value);
  for (Bytes piece : pieces) Digest::update(&state.value, piece.size(), piece.data());
  Digest::digest(&state.value, Digest::kDigestSize, out);
}

}  // namespace ksd::crypto

#endif
