// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "vault/load.h"

#include <fmt/format.h>

#include <algorithm>
#include <deque>
#include <future>
#include <utility>
#include <vector>

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

struct OpenedRows {
  std::vector<RowPtr> rows;
  Digest digest{};  // of these
};

// SealedRows are rows as they stand in the file. To open them takes longer than to read them, so that is done beside
// reading the next ones, for many at a time.
class SealedRows {
 public:
  bool is_full() const { return places_.size() == kMostRows || bytes_.size() >= kManyBytes; }

  void add(uint64_t id, Bytes sealed) {
    places_.push_back({id, sealed.size()});
    bytes_.insert(bytes_.end(), sealed.begin(), sealed.end());
  }

  OpenedRows open(const std::string &path, const Keys &keys) const {
    OpenedRows opened;
    opened.rows.reserve(places_.size());
    Header sum{};
    Bytes rest = bytes_;
    for (const auto &[id, size] : places_) {
      const std::shared_ptr<const SecretBytes> plain = keys.of_row(id).open(RecordKind::kEntry, id, rest.first(size));
      rest = rest.subspan(size);
      const RowPtr row = plain ? decode_entry(id, plain->bytes()) : nullptr;
      if (row == nullptr) refuse_damaged(path, fmt::format("entry {} doesn't open", id));
      sum.add(keys.of_table().mark(id, row->version));
      opened.rows.push_back(row);
    }
    opened.digest = sum.digest;
    return opened;
  }

 private:
  static constexpr size_t kMostRows = 2048;
  static constexpr size_t kManyBytes = size_t{1} << 20;

  std::vector<std::pair<uint64_t, size_t>> places_;  // ids and sizes
  std::vector<uint8_t> bytes_;
};

// Lot is opened from where it stands: std::async loses what is moved into it when it finds that there can't be a
// thread.
struct Lot {
  SealedRows sealed;
  std::future<OpenedRows> opened;
};

constexpr size_t kOpenedAtATime = 2;  // so that none waits for the other's thread to begin

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
  std::deque<Lot> lots;
  const auto take_first = [&] {
    const OpenedRows opened = lots.front().opened.get();
    lots.pop_front();
    found.add(opened.digest);
    found.entry_count += opened.rows.size();
    for (const RowPtr &row : opened.rows) visit(row);
  };
  SealedRows sealed;
  const auto open_sealed = [&](std::launch how) {
    Lot &lot = lots.emplace_back();
    lot.sealed = std::exchange(sealed, {});
    lot.opened = std::async(how, [&rows = lot.sealed, &database, &keys] { return rows.open(database.path(), keys); });
  };
  database.for_each_entry([&](uint64_t id, Bytes bytes) {
    if (sealed.is_full()) {
      if (lots.size() == kOpenedAtATime) take_first();
      // Where there can't be another thread, they are opened when they are taken.
      open_sealed(std::launch::async | std::launch::deferred);
    }
    sealed.add(id, bytes);
  });
  open_sealed(std::launch::deferred);
  while (!lots.empty()) take_first();
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
