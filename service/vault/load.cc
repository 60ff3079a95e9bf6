// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "vault/load.h"

#include <fmt/format.h>

#include <algorithm>

#include "base/refuse.h"

namespace ksd::vault {
namespace {

std::shared_ptr<const SecretBytes> open_next_key(const std::string &path, const KeyChange &change,
                                                 const Sealer &present) {
  std::shared_ptr<const SecretBytes> key = present.open(RecordKind::kNextKey, 0, change.sealed_key);
  if (key == nullptr || key->size() != kMasterKeySize || key_id_of(*key) != change.key_id) {
    refuse_damaged(path, "the next master key doesn't open");
  }
  return key;
}

}  // namespace

void create_vault(const std::string &path, const SecretBytes &master_key) {
  VaultIdentity identity;
  identity.key_id = key_id_of(master_key);
  randombytes_buf(identity.vault_id.data(), identity.vault_id.size());
  const Sealer sealer(master_key, identity.vault_id);
  identity.sealed_header = sealer.seal(RecordKind::kHeader, 0, encode_header(Header{}));
  Database::create(path, identity);
}

Keys keys_of(const std::string &path, const VaultIdentity &identity, const MasterKey &master) {
  const KeyId at_hand = key_id_of(*master.key);
  const Sealer sealer(*master.key, identity.vault_id);
  const std::optional<KeyChange> &change = identity.key_change;
  if (at_hand == identity.key_id) {
    if (!change) return Keys(sealer);
    return {sealer, open_next_key(path, *change, sealer), change->moved};
  }
  if (change && at_hand == change->key_id) {
    if (change->moved == kAllMoved) return {sealer, master.key, kAllMoved};
    refuse(
        "{}: the vault is on its way to the master key in {}, and not all of it has moved; start once more "
        "with the key that it had",
        path, master.path);
  }
  refuse(
      "{}: the vault belongs to another master key than the one in {}; give the service the key that the "
      "vault was made with",
      path, master.path);
}

Header open_header(const std::string &path, const VaultIdentity &identity, const Keys &keys) {
  const std::shared_ptr<const SecretBytes> plain = keys.of_table().open(RecordKind::kHeader, 0, identity.sealed_header);
  const std::optional<Header> header = plain ? decode_header(plain->bytes()) : std::nullopt;
  if (!header) refuse_damaged(path, "its header doesn't open");
  return *header;
}

void for_each_row(Database &database, const Keys &keys, const Header &header,
                  const std::function<void(const RowPtr &row)> &visit) {
  Header found{};
  database.for_each_entry([&](uint64_t id, Bytes sealed) {
    const std::shared_ptr<const SecretBytes> plain = keys.of_row(id).open(RecordKind::kEntry, id, sealed);
    const RowPtr row = plain ? decode_entry(id, plain->bytes()) : nullptr;
    if (row == nullptr) refuse_damaged(database.path(), fmt::format("entry {} doesn't open", id));
    found.add(keys.of_table().mark(id, row->version));
    ++found.entry_count;
    visit(row);
  });
  if (found.entry_count != header.entry_count || found.digest != header.digest) {
    refuse_damaged(database.path(), "its entries aren't those of its last change");
  }
}

State load(Database &database, const Keys &keys, const Header &header) {
  State state;
  state.header = header;
  state.table.reserve(std::min<uint64_t>(header.entry_count, UINT16_MAX));
  for_each_row(database, keys, header, [&](const RowPtr &row) {
    state.ledger.replace(nullptr, row.get());
    state.table.add(row);
  });
  return state;
}

}  // namespace ksd::vault
