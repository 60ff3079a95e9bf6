// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "crypto/mschap.h"

#include <nettle/arcfour.h>
#include <nettle/md4.h>

#include <array>
#include <cstring>
#include <new>
#include <string_view>

#include "crypto/cleanse.h"
#include "crypto/digests.h"
#include "crypto/utf16.h"

namespace ksd::crypto {

namespace {

struct Md4 {
  static constexpr uint16_t kDigestSize = MD4_DIGEST_SIZE;
  using State = md4_ctx;
  static constexpr auto *init = nettle_md4_init;
  static constexpr auto *update = nettle_md4_update;
  static constexpr auto *digest = nettle_md4_digest;
};

using Md4Digest = std::array<uint8_t, Md4::kDigestSize>;
using Sha1Digest = std::array<uint8_t, Sha1::kDigestSize>;

// The challenge proper is the first 8 bytes of a digest of both ends' challenges.
constexpr size_t kChallengeHashSize = 8;

Sha1Digest challenge_hash(const Challenges &challenges) {
  Sha1Digest digest;
  digest_of<Sha1>({challenges.peer, challenges.authenticator, challenges.user_name}, digest.data());
  return digest;
}

// des_block encrypts one block with a key of 7 bytes, spread to 8 with a place for a parity bit in each.
void des_block(const uint8_t *block, const uint8_t *key56, uint8_t *out) {
  Cleansed<std::array<uint8_t, DES_KEY_SIZE>> key;
  unsigned carried = 0;
  for (unsigned i = 0; i < 7; ++i) {
    key.value[i] = static_cast<uint8_t>(carried | key56[i] >> i);
    carried = static_cast<uint8_t>(key56[i] << (7 - i));
  }
  key.value[7] = static_cast<uint8_t>(carried);
  Cleansed<des_ctx> schedule;
  des_set_key(&schedule.value, key.value.data());
  des_encrypt(&schedule.value, DES_BLOCK_SIZE, out, block);
}

void hash_of_hash(const NtHash &password, Cleansed<Md4Digest> &out) {
  digest_of<Md4>({password.bytes()}, out.value.data());
}

}  // namespace

bool NtHash::prepare(void *place, Bytes password) {
  const std::optional<size_t> size = utf16_size(password);
  if (!size || *size > 2 * kPasswordMaxUnits) return false;
  Cleansed<std::array<uint8_t, 2 * kPasswordMaxUnits>> units;
  to_utf16le(password, units.value.data());
  digest_of<Md4>({Bytes(units.value.data(), *size)}, (new (place) NtHash)->hash_);
  return true;
}

void nt_response(const NtHash &password, const Challenges &challenges, uint8_t *out) {
  const Sha1Digest challenge = challenge_hash(challenges);
  Cleansed<std::array<uint8_t, 21>> padded{std::array<uint8_t, 21>{}};
  std::memcpy(padded.value.data(), password.bytes().data(), kNtHashSize);
  for (size_t i = 0; i < 3; ++i) {
    des_block(challenge.data(), padded.value.data() + 7 * i, out + DES_BLOCK_SIZE * i);
  }
}

void authenticator_response(const NtHash &password, Bytes nt_response, const Challenges &challenges, uint8_t *out) {
  Cleansed<Md4Digest> hash_hash;
  hash_of_hash(password, hash_hash);
  Sha1Digest digest;
  digest_of<Sha1>({hash_hash.value, nt_response, bytes_of("Magic server to client signing constant")}, digest.data());
  const Sha1Digest challenge = challenge_hash(challenges);
  digest_of<Sha1>(
      {digest, Bytes(challenge).first(kChallengeHashSize), bytes_of("Pad to make it do more than one iteration")},
      digest.data());
  static constexpr char kDigits[] = "0123456789ABCDEF";
  *out++ = 'S';
  *out++ = '=';
  for (uint8_t byte : digest) {
    *out++ = static_cast<uint8_t>(kDigits[byte >> 4]);
    *out++ = static_cast<uint8_t>(kDigits[byte & 15]);
  }
}

bool new_password_block(const NtHash &old_password, Bytes new_password, uint8_t *out) {
  constexpr size_t kRoom = 2 * kPasswordMaxUnits;
  const std::optional<size_t> size = utf16_size(new_password);
  if (!size || *size > kRoom) return false;
  // The clear block stands in the caller's place until it is encrypted there.
  randombytes_buf(out, kRoom - *size);
  to_utf16le(new_password, out + kRoom - *size);
  const uint8_t length[4] = {static_cast<uint8_t>(*size), static_cast<uint8_t>(*size >> 8), 0, 0};
  std::memcpy(out + kRoom, length, sizeof length);
  Cleansed<arcfour_ctx> cipher;
  arcfour_set_key(&cipher.value, kNtHashSize, old_password.bytes().data());
  arcfour_crypt(&cipher.value, kPasswordBlockSize, out, out);
  return true;
}

void old_hash_block(const NtHash &new_password, const NtHash &old_password, uint8_t *out) {
  for (size_t i = 0; i < 2; ++i) {
    des_block(old_password.bytes().data() + 8 * i, new_password.bytes().data() + 7 * i, out + 8 * i);
  }
}

void master_key(const NtHash &password, Bytes nt_response, uint8_t *out) {
  Cleansed<Md4Digest> hash_hash;
  hash_of_hash(password, hash_hash);
  Cleansed<Sha1Digest> digest;
  digest_of<Sha1>({hash_hash.value, nt_response, bytes_of("This is the MPPE Master Key")}, digest.value.data());
  std::memcpy(out, digest.value.data(), kMasterKeySize);
}

}  // namespace ksd::crypto
