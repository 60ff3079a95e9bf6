// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "crypto/ciphers.h"

#include <nettle/cbc.h>
#include <nettle/nettle-meta.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <new>

#include "crypto/cleanse.h"

namespace ksd::crypto {

struct AesSize {
  const nettle_cipher &cipher;
  // CBC encryption can't run blocks side by side, so it has a loop of its own; decryption takes the cipher's.
  void (*cbc_encrypt)(const void *schedule, uint8_t *iv, size_t length, uint8_t *out, const uint8_t *in);
};

namespace {

template <typename Schedule, void (*kEncrypt)(const Schedule *, uint8_t *, size_t, uint8_t *, const uint8_t *)>
void untyped(const void *schedule, uint8_t *iv, size_t length, uint8_t *out, const uint8_t *in) {
  kEncrypt(static_cast<const Schedule *>(schedule), iv, length, out, in);
}

constexpr AesSize kAesSizes[] = {
    {nettle_aes128, untyped<aes128_ctx, nettle_cbc_aes128_encrypt>},
    {nettle_aes192, untyped<aes192_ctx, nettle_cbc_aes192_encrypt>},
    {nettle_aes256, untyped<aes256_ctx, nettle_cbc_aes256_encrypt>},
};

const AesSize *aes_size(Bytes key) {
  const auto fits = [&](const AesSize &size) { return size.cipher.key_size == key.size(); };
  const AesSize *const size = std::find_if(std::begin(kAesSizes), std::end(kAesSizes), fits);
  return size == std::end(kAesSizes) ? nullptr : size;
}

}  // namespace

bool AesEncryptKey::prepare(void *place, Bytes key) {
  const AesSize *const size = aes_size(key);
  if (!size) return false;
  auto *const made = new (place) AesEncryptKey;
  made->size_ = size;
  size->cipher.set_encrypt_key(&made->words_, key.data());
  return true;
}

void AesEncryptKey::ecb(Bytes in, uint8_t *out) const {
  size_->cipher.encrypt(&words_, in.size(), out, in.data());
}

void AesEncryptKey::cbc(uint8_t *iv, Bytes in, uint8_t *out) const {
  size_->cbc_encrypt(&words_, iv, in.size(), out, in.data());
}

bool AesDecryptKey::prepare(void *place, Bytes key) {
  const AesSize *const size = aes_size(key);
  if (!size) return false;
  auto *const made = new (place) AesDecryptKey;
  made->size_ = size;
  size->cipher.set_decrypt_key(&made->words_, key.data());
  return true;
}

void AesDecryptKey::ecb(Bytes in, uint8_t *out) const {
  size_->cipher.decrypt(&words_, in.size(), out, in.data());
}

void AesDecryptKey::cbc(uint8_t *iv, Bytes in, uint8_t *out) const {
  cbc_decrypt(&words_, size_->cipher.decrypt, kAesBlockSize, iv, in.size(), out, in.data());
}

bool DesKey::prepare(void *place, Bytes key) {
  if (key.size() != kKeySize) return false;
  // The answer only tells weak keys apart; their schedule is made all the same.
  des_set_key(&(new (place) DesKey)->schedule_, key.data());
  return true;
}

bool TripleDesKey::prepare(void *place, Bytes key) {
  if (key.size() != 2 * DesKey::kKeySize && key.size() != DES3_KEY_SIZE) return false;
  Cleansed<std::array<uint8_t, DES3_KEY_SIZE>> whole;
  std::memcpy(whole.value.data(), key.data(), key.size());
  if (key.size() < DES3_KEY_SIZE) std::memcpy(whole.value.data() + key.size(), key.data(), DesKey::kKeySize);
  des3_set_key(&(new (place) TripleDesKey)->schedule_, whole.value.data());
  return true;
}

}  // namespace ksd::crypto
