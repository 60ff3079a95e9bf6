// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// ciphers.h: the block ciphers, as prepared keys: a key schedule that is made once and then only read, by any number of
// threads. Data goes straight from where it is to where it shall be; `out` and `in` may be the same bytes.
//
// Every prepared key is trivially destructible, so that the cache can keep it in memory of its own and overwrite it.
// `prepare` makes one at `place`, or answers false when the secret is no key of that kind, and has then written
// nothing.
#ifndef SERVICE_CRYPTO_CIPHERS_H
#define SERVICE_CRYPTO_CIPHERS_H

#include <nettle/aes.h>
#include <nettle/des.h>

#include "base/bytes.h"

namespace ksd::crypto {

inline constexpr size_t kAesBlockSize = AES_BLOCK_SIZE;
inline constexpr size_t kDesBlockSize = DES_BLOCK_SIZE;

// PreparedKind tells prepared keys of one secret apart.
enum class PreparedKind : uint8_t { kAesEncrypt, kAesDecrypt, kDes, kTripleDes, kHmacMd5, kHmacSha1, kNtHash };

struct AesSize;  // what differs between keys of 16, 24 and 32 bytes

// AesSchedule is a key schedule of either direction, for any of the three sizes.
class AesSchedule {
 protected:
  const AesSize *size_;
  aes256_ctx words_;  // the largest; the smaller ones are a prefix of its kind
};

class AesEncryptKey : AesSchedule {
 public:
  static constexpr PreparedKind kKind = PreparedKind::kAesEncrypt;
  static bool prepare(void *place, Bytes key);

  void ecb(Bytes in, uint8_t *out) const;

  // cbc chains from `iv` and leaves there the value to chain on with: the last block of ciphertext.
  void cbc(uint8_t *iv, Bytes in, uint8_t *out) const;
};

class AesDecryptKey : AesSchedule {
 public:
  static constexpr PreparedKind kKind = PreparedKind::kAesDecrypt;
  static bool prepare(void *place, Bytes key);

  void ecb(Bytes in, uint8_t *out) const;

  // cbc chains from `iv` and leaves there the last block of ciphertext, which here is of the input.
  void cbc(uint8_t *iv, Bytes in, uint8_t *out) const;
};

// DesKey is DES with a key of 8 bytes. Parity bits are ignored. Weak keys are taken: the published tests of DES consist
// of them, and who stores a key has chosen it.
class DesKey {
 public:
  static constexpr PreparedKind kKind = PreparedKind::kDes;
  static constexpr size_t kKeySize = DES_KEY_SIZE;
  static bool prepare(void *place, Bytes key);

  void encrypt(Bytes in, uint8_t *out) const { des_encrypt(&schedule_, in.size(), out, in.data()); }
  void decrypt(Bytes in, uint8_t *out) const { des_decrypt(&schedule_, in.size(), out, in.data()); }

 private:
  des_ctx schedule_;
};

// TripleDesKey is DES three times, encrypt-decrypt-encrypt, with a key of 24 bytes, or of 16, whose first half then
// also serves as the last third.
class TripleDesKey {
 public:
  static constexpr PreparedKind kKind = PreparedKind::kTripleDes;
  static bool prepare(void *place, Bytes key);

  void encrypt(Bytes in, uint8_t *out) const { des3_encrypt(&schedule_, in.size(), out, in.data()); }
  void decrypt(Bytes in, uint8_t *out) const { des3_decrypt(&schedule_, in.size(), out, in.data()); }

 private:
  des3_ctx schedule_;
};

}  // namespace ksd::crypto

#endif
