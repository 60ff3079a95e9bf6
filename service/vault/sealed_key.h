// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// sealed_key.h: a master key under a passphrase, as a text that may be sent or printed. docs/vault-format.md shows it.
#ifndef SERVICE_VAULT_SEALED_KEY_H
#define SERVICE_VAULT_SEALED_KEY_H

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "base/secret_bytes.h"
#include "vault/passphrase.h"

namespace ksd::vault {

inline constexpr size_t kMostSealedKeyText = 1024;

// KeySeal is what a passphrase has become: it seals a key, and another one later, without the passphrase.
struct KeySeal {
  PassphraseParameters parameters;
  std::shared_ptr<const SecretBytes> key;
};

KeySeal make_key_seal(Bytes passphrase, const PassphraseCost &cost = kModerateCost);

// seal_key gives the text for a master key.
std::string seal_key(const SecretBytes &master_key, const KeySeal &seal);

// is_sealed_key tells whether a file's content is such a text, right or wrong.
bool is_sealed_key(std::string_view text);

// OpenedKey is what was in a text.
struct OpenedKey {
  std::shared_ptr<const SecretBytes> key;
  KeySeal seal;
};

// open_key gives nothing when the passphrase is another one or the text is damaged.
std::optional<OpenedKey> open_key(std::string_view text, Bytes passphrase);

// The same for a key that was sealed with `seal`; null when it wasn't.
std::shared_ptr<const SecretBytes> open_key(std::string_view text, const KeySeal &seal);

}  // namespace ksd::vault

#endif
