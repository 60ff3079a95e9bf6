// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "vault/restore.h"

#include <sodium.h>

#include <optional>
#include <vector>

#include "base/refuse.h"
#include "base/trust.h"
#include "vault/database.h"
#include "vault/files.h"
#include "vault/load.h"
#include "vault/placing.h"
#include "vault/vault_lock.h"
#include "vault/witness.h"

namespace ksd::vault {
namespace {

constexpr size_t kRowsAtOnce = 1024;  // in one transaction
constexpr size_t kBytesAtOnce = 1 << 20;

void require(const std::string &path, const std::optional<WriteFailure> &failed) {
  if (failed) refuse("{}: can't be written: {}; make room for it", path, failed->text);
}

// Batch is some rows on their way into the new vault, so that not each of them waits for the disk.
class Batch {
 public:
  Batch(Database &database, const Sealer &sealer, Header &header)
      : database_(database), sealer_(sealer), header_(header) {}

  void add(RowPtr row) {
    header_.add(sealer_.mark(row->id, row->version));
    ++header_.entry_count;
    bytes_ += row->bytes();
    rows_.push_back(std::move(row));
    if (rows_.size() >= kRowsAtOnce || bytes_ >= kBytesAtOnce) write();
  }

  void write() {
    const auto put = [&] {
      for (const RowPtr &row : rows_) {
        const std::vector<uint8_t> sealed = sealer_.seal(RecordKind::kEntry, row->id, encode_entry(*row)->bytes());
        if (!database_.put_entry(row->id, sealed)) return false;
      }
      return database_.put_header(sealer_.seal(RecordKind::kHeader, 0, encode_header(header_)));
    };
    require(database_.path(), database_.transaction(put));
    if (database_.log_is_long()) require(database_.path(), database_.write_back());
    rows_.clear();
    bytes_ = 0;
  }

 private:
  Database &database_;
  const Sealer &sealer_;
  Header &header_;
  std::vector<RowPtr> rows_;
  size_t bytes_ = 0;
};

// Where a fleet knew an owner by a name that no user of the machine had, which made the backup, the number that the
// entry has there is nobody's: it counts as the superuser's from now on.
RowPtr owned_here(RowPtr row, const BackupContents &contents) {
  if (contents.owners.empty() || row->owner < kFirstUnknownOwner) return row;
  auto ours = std::make_shared<EntryRow>(*row);
  ours->owner = 0;
  return ours;
}

// fill writes the entries of a backup into an empty vault and closes it in order.
void fill(const std::string &path, const SecretBytes &key, BackupReader &backup, const Progress &progress) {
  Database database(path);
  const Sealer sealer(key, database.identity().vault_id);
  Header header{.last_id = backup.contents().last_id, .last_version = backup.contents().last_version};
  Batch batch(database, sealer, header);
  while (RowPtr row = backup.next()) {
    batch.add(owned_here(std::move(row), backup.contents()));
    progress(header.entry_count, backup.contents().entry_count);
  }
  batch.write();
  require(path, database.put_log_away());
}

// check reads the new vault as a service will, and gives the keys that it is sealed with.
Keys check(const std::string &path, const MasterKey &master, const BackupContents &contents) {
  Database database(path);
  const VaultIdentity identity = database.identity();
  Keys keys = keys_of(path, identity, master);
  const Header header = open_header(path, identity, keys);
  database.check_structure();
  for_each_row(database, keys, header, [](const RowPtr &) {});
  if (header.entry_count != contents.entry_count || header.last_version != contents.last_version) {
    refuse_damaged(path, "it isn't what was written");
  }
  require(path, database.put_log_away());
  return keys;
}

void make_witness(const std::string &path, const Keys &keys, uint64_t version) {
  if (const int error = Witness(path, keys).set_up(version)) {
    refuse("{}: the witness can't be written: {}; look after its folder", path, errno_text(error));
  }
}

}  // namespace

BackupContents verify_backup(int file, const std::string &name, Bytes passphrase, const Progress &progress) {
  start_sodium();
  BackupReader backup(file, name, passphrase);
  for (uint64_t done = 1; backup.next() != nullptr; ++done) progress(done, backup.contents().entry_count);
  return backup.contents();
}

Restored restore_backup(int file, const std::string &name, Bytes passphrase, const RestoreOptions &options,
                        const Progress &progress) {
  start_sodium();
  for (const std::string &path : {options.vault, options.master_key.file, options.witness}) {
    if (!path.empty()) refuse_what_others_may_write(path);
  }
  BackupReader backup(file, name, passphrase);  // before anything is touched, the lock included
  const VaultLock lock(options.vault);
  finish_placing(options.vault);
  Restored restored;
  restored.made_key = !file_exists(options.master_key.file);
  MasterKey master{.key = nullptr, .path = options.master_key.file};
  if (restored.made_key) {
    master.key = draw_master_key();
    if (options.master_key.passphrase != nullptr) {
      master.seal = make_key_seal(options.master_key.passphrase->bytes(), options.master_key.cost);
    }
  } else {
    master = read_master_key(options.master_key, false);
  }

  NewVault draft(options.vault);
  create_vault(draft.vault(), *master.key);
  fill(draft.vault(), *master.key, backup, progress);
  restored.contents = backup.contents();
  const Keys keys = check(draft.vault(), master, restored.contents);
  const uint64_t version = restored.contents.last_version;
  if (options.witness.empty()) make_witness(draft.vault() + "-witness", keys, version);
  if (restored.made_key) write_new_key(master.path, *master.key, master.seal);
  restored.kept = draft.place();
  // Not before: to the old vault it would be a stranger's.
  if (!options.witness.empty()) make_witness(options.witness, keys, version);
  return restored;
}

}  // namespace ksd::vault
