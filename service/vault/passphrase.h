// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// passphrase.h: keys made of passphrases, by Argon2id.
#ifndef SERVICE_VAULT_PASSPHRASE_H
#define SERVICE_VAULT_PASSPHRASE_H

#include <sodium.h>

#include <array>
#include <cstdint>
#include <memory>
#include <optional>

#include "base/bytes.h"
#include "base/secret_bytes.h"

namespace ksd::vault {

// PassphraseCost is what each guess costs: passes over so much memory.
struct PassphraseCost {
  uint32_t passes = 0;
  uint32_t kibibytes = 0;
};

// As libsodium names them.
inline constexpr PassphraseCost kInteractiveCost{.passes = crypto_pwhash_argon2id_OPSLIMIT_INTERACTIVE,
                                                 .kibibytes = crypto_pwhash_argon2id_MEMLIMIT_INTERACTIVE / 1024};
inline constexpr PassphraseCost kModerateCost{.passes = crypto_pwhash_argon2id_OPSLIMIT_MODERATE,
                                              .kibibytes = crypto_pwhash_argon2id_MEMLIMIT_MODERATE / 1024};
inline constexpr PassphraseCost kSensitiveCost{.passes = crypto_pwhash_argon2id_OPSLIMIT_SENSITIVE,
                                               .kibibytes = crypto_pwhash_argon2id_MEMLIMIT_SENSITIVE / 1024};

// PassphraseParameters stand in the clear beside what is sealed under the passphrase.
struct PassphraseParameters {
  PassphraseCost cost;
  std::array<uint8_t, crypto_pwhash_argon2id_SALTBYTES> salt{};
};

inline constexpr size_t kParametersSize = 4 + 4 + crypto_pwhash_argon2id_SALTBYTES;
using EncodedParameters = std::array<uint8_t, kParametersSize>;

// draw_parameters gives parameters with a salt of their own.
PassphraseParameters draw_parameters(const PassphraseCost &cost);

EncodedParameters encode_parameters(const PassphraseParameters &parameters);

// decode_parameters gives nothing for a cost that nobody asks for: a file that says so would take the reader's memory,
// or hours.
std::optional<PassphraseParameters> decode_parameters(std::span<const uint8_t, kParametersSize> bytes);

// key_of_passphrase gives a key of 32 bytes. Throws std::runtime_error when there is no memory for it.
std::shared_ptr<const SecretBytes> key_of_passphrase(Bytes passphrase, const PassphraseParameters &parameters);

}  // namespace ksd::vault

#endif
