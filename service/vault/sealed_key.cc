// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "vault/sealed_key.h"

#include <sodium.h>

#include <algorithm>
#include <array>

#include "vault/seal.h"

namespace ksd::vault {
namespace {

constexpr std::string_view kFirstLine = "-----BEGIN KS MASTER KEY-----\n";
constexpr std::string_view kLastLine = "-----END KS MASTER KEY-----\n";
constexpr size_t kLineLength = 64;

constexpr std::array<uint8_t, 4> kKeyMagic{'k', 's', 'k', '1'};
constexpr size_t kNonceAt = kKeyMagic.size() + kParametersSize;
constexpr size_t kBoxAt = kNonceAt + crypto_secretbox_NONCEBYTES;
constexpr size_t kSize = kBoxAt + crypto_secretbox_MACBYTES + kMasterKeySize;

using Sealed = std::array<uint8_t, kSize>;

// sealed_in gives what a text stands for.
std::optional<Sealed> sealed_in(std::string_view text) {
  const size_t end = text.rfind(kLastLine.substr(0, kLastLine.size() - 1));
  if (!is_sealed_key(text) || end == text.npos) return std::nullopt;
  const std::string_view digits = text.substr(kFirstLine.size() - 1, end - kFirstLine.size() + 1);
  Sealed sealed;
  size_t size = 0;
  const int wrong = sodium_base642bin(sealed.data(), sealed.size(), digits.data(), digits.size(), "\r\n \t", &size,
                                      nullptr, sodium_base64_VARIANT_ORIGINAL);
  if (wrong != 0 || size != sealed.size() || !std::equal(kKeyMagic.begin(), kKeyMagic.end(), sealed.begin())) {
    return std::nullopt;
  }
  return sealed;
}

std::span<const uint8_t, kParametersSize> parameters_of(const Sealed &sealed) {
  return std::span(sealed).subspan<kKeyMagic.size(), kParametersSize>();
}

std::shared_ptr<const SecretBytes> open_with(const Sealed &sealed, const SecretBytes &seal_key) {
  const std::shared_ptr<SecretBytes> key = SecretBytes::allocate(kMasterKeySize);
  const bool opens = crypto_secretbox_open_easy(key->writable().data(), &sealed[kBoxAt], kSize - kBoxAt,
                                                &sealed[kNonceAt], seal_key.bytes().data()) == 0;
  return opens ? key : nullptr;
}

}  // namespace

KeySeal make_key_seal(Bytes passphrase, const PassphraseCost &cost) {
  const PassphraseParameters parameters = draw_parameters(cost);
  return {parameters, key_of_passphrase(passphrase, parameters)};
}

std::string seal_key(const SecretBytes &master_key, const KeySeal &seal) {
  Sealed sealed;
  std::copy(kKeyMagic.begin(), kKeyMagic.end(), sealed.begin());
  const EncodedParameters parameters = encode_parameters(seal.parameters);
  std::copy(parameters.begin(), parameters.end(), sealed.begin() + kKeyMagic.size());
  randombytes_buf(&sealed[kNonceAt], crypto_secretbox_NONCEBYTES);
  crypto_secretbox_easy(&sealed[kBoxAt], master_key.bytes().data(), master_key.size(), &sealed[kNonceAt],
                        seal.key->bytes().data());

  std::string digits(sodium_base64_ENCODED_LEN(kSize, sodium_base64_VARIANT_ORIGINAL), '\0');
  sodium_bin2base64(digits.data(), digits.size(), sealed.data(), sealed.size(), sodium_base64_VARIANT_ORIGINAL);
  digits.pop_back();  // the NUL
  std::string text(kFirstLine);
  for (size_t at = 0; at < digits.size(); at += kLineLength) text += digits.substr(at, kLineLength) + "\n";
  return text += kLastLine;
}

bool is_sealed_key(std::string_view text) {
  return text.starts_with(kFirstLine.substr(0, kFirstLine.size() - 1));
}

std::optional<OpenedKey> open_key(std::string_view text, Bytes passphrase) {
  const std::optional<Sealed> sealed = sealed_in(text);
  const auto parameters = sealed ? decode_parameters(parameters_of(*sealed)) : std::nullopt;
  if (!parameters) return std::nullopt;
  KeySeal seal{*parameters, key_of_passphrase(passphrase, *parameters)};
  std::shared_ptr<const SecretBytes> key = open_with(*sealed, *seal.key);
  if (key == nullptr) return std::nullopt;
  return OpenedKey{std::move(key), std::move(seal)};
}

std::shared_ptr<const SecretBytes> open_key(std::string_view text, const KeySeal &seal) {
  const std::optional<Sealed> sealed = sealed_in(text);
  return sealed ? open_with(*sealed, *seal.key) : nullptr;
}

}  // namespace ksd::vault
