// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "vault/passphrase.h"

#include <algorithm>

#include "base/little_endian.h"
#include "base/refuse.h"

namespace ksd::vault {
namespace {

constexpr PassphraseCost kMostCost{.passes = 16, .kibibytes = 1 << 20};
constexpr uint32_t kLeastKibibytes = crypto_pwhash_argon2id_MEMLIMIT_MIN / 1024;
constexpr size_t kKeySize = 32;

}  // namespace

PassphraseParameters draw_parameters(const PassphraseCost &cost) {
  PassphraseParameters parameters{.cost = cost};
  randombytes_buf(parameters.salt.data(), parameters.salt.size());
  return parameters;
}

EncodedParameters encode_parameters(const PassphraseParameters &parameters) {
  EncodedParameters bytes;
  put_little_endian(bytes.data(), parameters.cost.passes);
  put_little_endian(bytes.data() + 4, parameters.cost.kibibytes);
  std::copy(parameters.salt.begin(), parameters.salt.end(), bytes.begin() + 8);
  return bytes;
}

std::optional<PassphraseParameters> decode_parameters(std::span<const uint8_t, kParametersSize> bytes) {
  PassphraseParameters parameters{.cost = {.passes = get_little_endian<uint32_t>(bytes.data()),
                                           .kibibytes = get_little_endian<uint32_t>(bytes.data() + 4)}};
  std::copy_n(bytes.data() + 8, parameters.salt.size(), parameters.salt.begin());
  const PassphraseCost &cost = parameters.cost;
  const bool sensible = cost.passes >= 1 && cost.passes <= kMostCost.passes && cost.kibibytes >= kLeastKibibytes &&
                        cost.kibibytes <= kMostCost.kibibytes;
  if (!sensible) return std::nullopt;
  return parameters;
}

std::shared_ptr<const SecretBytes> key_of_passphrase(Bytes passphrase, const PassphraseParameters &parameters) {
  std::shared_ptr<SecretBytes> key = SecretBytes::allocate(kKeySize);
  // An empty one may lie nowhere, and libsodium's copy wants a place all the same.
  const char *text = passphrase.empty() ? "" : reinterpret_cast<const char *>(passphrase.data());
  const int failed = crypto_pwhash_argon2id(key->writable().data(), key->size(), text, passphrase.size(),
                                            parameters.salt.data(), parameters.cost.passes,
                                            size_t{parameters.cost.kibibytes} * 1024, crypto_pwhash_ALG_ARGON2ID13);
  if (failed != 0) {
    refuse("there is no memory to make a key of the passphrase, which takes {} MiB",
           (parameters.cost.kibibytes + 1023) / 1024);
  }
  return key;
}

}  // namespace ksd::vault
