// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "vault/seal.h"

#include <algorithm>
#include <new>
#include <string_view>

#include "base/little_endian.h"
#include "base/refuse.h"

namespace ksd::vault {

void start_sodium() {
  if (sodium_init() < 0) refuse("libsodium doesn't start; the system generator may be missing");
}
namespace {

constexpr char kKdfContext[crypto_kdf_CONTEXTBYTES + 1] = "ksdvault";
enum Subkey : uint64_t { kSealKey = 1, kMarkKey = 2, kKeyId = 3, kWitnessKey = 4 };

constexpr size_t kNonceSize = crypto_aead_xchacha20poly1305_ietf_NPUBBYTES;
constexpr size_t kTagSize = crypto_aead_xchacha20poly1305_ietf_ABYTES;
constexpr uint8_t kSealVersion = 1;

static_assert(kMasterKeySize == 32 && crypto_aead_xchacha20poly1305_ietf_KEYBYTES == 32);

std::shared_ptr<const SecretBytes> derive(const SecretBytes &master_key, Subkey which) {
  std::shared_ptr<SecretBytes> key = SecretBytes::allocate(32);
  crypto_kdf_derive_from_key(key->writable().data(), key->size(), which, kKdfContext, master_key.bytes().data());
  return key;
}

using Binding = std::array<uint8_t, 2 + sizeof(VaultId) + 8>;

Binding binding(const VaultId &vault, RecordKind kind, uint64_t row) {
  Binding bytes{kSealVersion, static_cast<uint8_t>(kind)};
  std::copy(vault.begin(), vault.end(), bytes.begin() + 2);
  put_little_endian(bytes.data() + 2 + vault.size(), row);
  return bytes;
}

}  // namespace

KeyId key_id_of(const SecretBytes &master_key) {
  KeyId id;
  static_assert(sizeof(KeyId) == crypto_kdf_BYTES_MIN);
  crypto_kdf_derive_from_key(id.data(), id.size(), kKeyId, kKdfContext, master_key.bytes().data());
  return id;
}

Sealer::Sealer(const SecretBytes &master_key, const VaultId &vault_id)
    : vault_id_(vault_id),
      seal_key_(derive(master_key, kSealKey)),
      mark_key_(derive(master_key, kMarkKey)),
      witness_key_(derive(master_key, kWitnessKey)) {}

std::vector<uint8_t> Sealer::seal(RecordKind kind, uint64_t row, std::span<const uint8_t> plain) const {
  std::vector<uint8_t> sealed(kNonceSize + plain.size() + kTagSize);
  randombytes_buf(sealed.data(), kNonceSize);
  const Binding bound = binding(vault_id_, kind, row);
  crypto_aead_xchacha20poly1305_ietf_encrypt(sealed.data() + kNonceSize, nullptr, plain.data(), plain.size(),
                                             bound.data(), bound.size(), nullptr, sealed.data(),
                                             seal_key_->bytes().data());
  return sealed;
}

std::shared_ptr<const SecretBytes> Sealer::open(RecordKind kind, uint64_t row, std::span<const uint8_t> sealed) const {
  if (sealed.size() < kNonceSize + kTagSize) return nullptr;
  std::shared_ptr<SecretBytes> plain = SecretBytes::allocate(sealed.size() - kNonceSize - kTagSize);
  const Binding bound = binding(vault_id_, kind, row);
  const int refused = crypto_aead_xchacha20poly1305_ietf_decrypt(
      plain->writable().data(), nullptr, nullptr, sealed.data() + kNonceSize, sealed.size() - kNonceSize, bound.data(),
      bound.size(), sealed.data(), seal_key_->bytes().data());
  if (refused != 0) return nullptr;
  return plain;
}

Digest Sealer::mark(uint64_t row, uint64_t version) const {
  std::array<uint8_t, 16> what;
  put_little_endian(what.data(), row);
  put_little_endian(what.data() + 8, version);
  Digest digest;
  crypto_generichash(digest.data(), digest.size(), what.data(), what.size(), mark_key_->bytes().data(),
                     mark_key_->size());
  return digest;
}

Digest Sealer::content_mark(uint64_t row, std::span<const uint8_t> plain) const {
  std::array<uint8_t, 8> id;
  put_little_endian(id.data(), row);
  crypto_generichash_state state;
  Digest digest;
  crypto_generichash_init(&state, mark_key_->bytes().data(), mark_key_->size(), digest.size());
  crypto_generichash_update(&state, id.data(), id.size());
  crypto_generichash_update(&state, plain.data(), plain.size());
  crypto_generichash_final(&state, digest.data(), digest.size());
  return digest;
}

Digest Sealer::witness_mark(uint64_t version) const {
  std::array<uint8_t, sizeof(VaultId) + 8> what;
  std::copy(vault_id_.begin(), vault_id_.end(), what.begin());
  put_little_endian(what.data() + sizeof(VaultId), version);
  Digest digest;
  crypto_generichash(digest.data(), digest.size(), what.data(), what.size(), witness_key_->bytes().data(),
                     witness_key_->size());
  return digest;
}

}  // namespace ksd::vault
