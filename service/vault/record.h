// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// record.h: what the vault keeps, in memory and as the plain text of sealed records.
#ifndef SERVICE_VAULT_RECORD_H
#define SERVICE_VAULT_RECORD_H

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "base/entry_name.h"
#include "base/secret_bytes.h"
#include "vault/seal.h"

namespace ksd::vault {

// EntryRow is one entry. It never changes once it is shared: a change makes another one with the same id. Ids grow and
// are never used again, so the order of ids is the order of the table.
struct EntryRow {
  uint64_t id = 0;
  uint64_t version = 0;     // of the row; unique in the life of a vault
  uint64_t generation = 0;  // of the secret: the version that brought it, or the one found at start
  uid_t owner = 0;
  EntryName name;
  std::shared_ptr<const EntryName> alias;  // null for most
  std::shared_ptr<const SecretBytes> secret;
  std::shared_ptr<const std::vector<uint8_t>> metadata;

  uint64_t bytes() const { return secret->size() + metadata->size(); }
};

// The owners that a machine has no user for have numbers from here on, each machine its own.
inline constexpr uid_t kFirstUnknownOwner = 0xf0000000;

using RowPtr = std::shared_ptr<const EntryRow>;

// metadata_of gives what a row keeps; all without metadata share one.
std::shared_ptr<const std::vector<uint8_t>> metadata_of(Bytes bytes);

// encoded_size is the length of a row's plain text.
size_t encoded_size(const EntryRow &row);

// encode_entry gives a row's plain text. Names are part of it: nothing of an entry stands outside the seal but its id.
std::shared_ptr<const SecretBytes> encode_entry(const EntryRow &row);

// decode_entry gives nothing for a text that encode_entry doesn't make.
RowPtr decode_entry(uint64_t id, std::span<const uint8_t> plain);

// Header is the state of the table as a whole. Sealed and written with every change, it makes a row that was taken out,
// put back or set back to an older version show.
struct Header {
  uint64_t last_id = 0;
  uint64_t last_version = 0;  // grows with every change, so that a witness can tell of the last one
  uint64_t entry_count = 0;
  Digest digest{};
  bool in_use = false;  // a service has the vault open, or ended without an orderly end

  void add(const Digest &mark) { sodium_add(digest.data(), mark.data(), digest.size()); }
  void take_out(const Digest &mark) { sodium_sub(digest.data(), mark.data(), digest.size()); }
};

// encode_header gives a header's plain text. That of a vault which was closed in order has no mark behind it, as all
// headers had none once.
std::vector<uint8_t> encode_header(const Header &header);
std::optional<Header> decode_header(std::span<const uint8_t> plain);

}  // namespace ksd::vault

#endif
