// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// mschap.h: the functions of MS-CHAP version 2 (RFC 2759) and its master key (RFC 3079), on hashes of passwords.
#ifndef SERVICE_CRYPTO_MSCHAP_H
#define SERVICE_CRYPTO_MSCHAP_H

#include "crypto/ciphers.h"

namespace ksd::crypto {

inline constexpr size_t kChallengeSize = 16;
inline constexpr uint16_t kNtResponseSize = 24;
inline constexpr uint16_t kAuthenticatorResponseSize = 42;
inline constexpr uint16_t kPasswordBlockSize = 516;
inline constexpr uint16_t kNtHashSize = 16;
inline constexpr uint16_t kMasterKeySize = 16;
inline constexpr size_t kPasswordMaxUnits = 256;  // of UTF-16, as the RFC allows

// NtHash is the hash of a password, and with it everything the functions need to know of the password.
class NtHash {
 public:
  static constexpr PreparedKind kKind = PreparedKind::kNtHash;

  // prepare refuses a secret that is not UTF-8 or too long: it is no password.
  static bool prepare(void *place, Bytes password);

  Bytes bytes() const { return hash_; }

 private:
  uint8_t hash_[kNtHashSize];
};

// Challenges is what both ends of an authentication have seen of each other.
struct Challenges {
  Bytes authenticator;  // kChallengeSize bytes
  Bytes peer;           // kChallengeSize bytes
  Bytes user_name;
};

void nt_response(const NtHash &password, const Challenges &challenges, uint8_t *out);

// authenticator_response writes "S=" and 40 hexadecimal digits in capitals, without a terminator.
void authenticator_response(const NtHash &password, Bytes nt_response, const Challenges &challenges, uint8_t *out);

// new_password_block writes the new password, padded with random bytes in front to 512 and followed by its size, under
// the old one's hash, as kPasswordBlockSize bytes. It answers false, writing nothing, unless the new one is UTF-8 of at
// most kPasswordMaxUnits.
bool new_password_block(const NtHash &old_password, Bytes new_password, uint8_t *out);

// old_hash_block writes the old password's hash under the new one's, as kNtHashSize bytes.
void old_hash_block(const NtHash &new_password, const NtHash &old_password, uint8_t *out);

void master_key(const NtHash &password, Bytes nt_response, uint8_t *out);

}  // namespace ksd::crypto

#endif
