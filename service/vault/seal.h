// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// seal.h: how records are sealed: XChaCha20-Poly1305 under a key derived from the master key, each record bound to the
// vault it stands in, to what it is and to its row. A record copied to another row or another vault doesn't open.
#ifndef SERVICE_VAULT_SEAL_H
#define SERVICE_VAULT_SEAL_H

#include <sodium.h>

#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "base/secret_bytes.h"

namespace ksd::vault {

// start_sodium comes before anything else of this room. Throws std::runtime_error.
void start_sodium();

inline constexpr size_t kMasterKeySize = crypto_kdf_KEYBYTES;

using VaultId = std::array<uint8_t, 16>;  // drawn when a vault is made
using KeyId = std::array<uint8_t, 16>;    // tells master keys apart and says nothing about them
using Digest = std::array<uint8_t, 32>;   // a number modulo 2^256, little-endian

enum class RecordKind : uint8_t {
  kHeader = 1,
  kEntry = 2,
  kNextKey = 3,
  // Of a fleet (fleet/format.h):
  kFleetHeader = 4,
  kFleetRow = 5,
  kHeartbeat = 6,
  kMirror = 7,
  kBoxedKey = 8,
  kFleetRestore = 10,
};

KeyId key_id_of(const SecretBytes &master_key);

class Sealer {
 public:
  Sealer(const SecretBytes &master_key, const VaultId &vault_id);

  std::vector<uint8_t> seal(RecordKind kind, uint64_t row, std::span<const uint8_t> plain) const;

  const VaultId &vault_id() const { return vault_id_; }

  // open gives nothing unless `sealed` is what seal made for that kind and row in this vault.
  std::shared_ptr<const SecretBytes> open(RecordKind kind, uint64_t row, std::span<const uint8_t> sealed) const;

  // mark stands for one version of one row in the digest of the table. The digest is the sum of the marks of all rows,
  // so that it follows each change at no cost, and nobody without the key can find other rows of the same sum.
  Digest mark(uint64_t row, uint64_t version) const;

  // content_mark stands for the content of a row, which `plain` is all of. It is for tables of which there were several
  // next versions at a time, of which one was taken: their rows may have the same version.
  Digest content_mark(uint64_t row, std::span<const uint8_t> plain) const;

  // witness_mark stands for the version that a witness tells of.
  Digest witness_mark(uint64_t version) const;

 private:
  VaultId vault_id_;
  std::shared_ptr<const SecretBytes> seal_key_;
  std::shared_ptr<const SecretBytes> mark_key_;
  std::shared_ptr<const SecretBytes> witness_key_;
};

}  // namespace ksd::vault

#endif
