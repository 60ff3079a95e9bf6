// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <optional>
#include <unordered_set>

#include "base/log.h"
#include "base/refuse.h"
#include "base/trust.h"
#include "base/vault_endings.h"
#include "vault/aside.h"
#include "vault/file_vault.h"
#include "vault/files.h"
#include "vault/load.h"
#include "vault/log_file.h"
#include "vault/master_key.h"
#include "vault/placing.h"
#include "vault/witness.h"

namespace ksd::vault {
namespace {

constexpr uint64_t kVersionsOfALoss = uint64_t{1} << 32;

void make_vault(const std::string &path, const MasterKey &master) {
  create_vault(path, *master.key);
  spdlog::info("{}: made an empty vault under the master key of {}", path, master.path);
}

// begin finds out at start, rather than at the first change, that nothing can be written. A full disk is no reason not
// to serve reads, and clearing entries needs a running service.
void begin(Writer &writer, const Header &header) {
  const std::optional<WriteFailure> failed = writer.begin(header);
  if (!failed) return;
  if (failed->code != KS_STORE_FULL) {
    refuse("{}: the vault can't be written: {}; make the file, its folder and its disk writable", writer.path(),
           failed->text);
  }
  tell(event::kDiskFull, "{}: the disk of the vault is full: changes are refused, reads go on; make room on it",
       writer.path());
}

// refuse_taken_witness keeps the witness from being made over a file that the vault needs, however it is named.
void refuse_taken_witness(const VaultOptions &options, const std::string &witness) {
  std::vector<std::string> taken{options.master_key_file};
  for (const std::string_view ending : kVaultEndings) taken.push_back(options.path + std::string(ending));
  for (const std::string &path : taken) {
    if (path != witness && !is_same_file(path, witness)) continue;
    refuse("{}: can't be the vault's witness: it is the file {}; name another one", witness, path);
  }
}

// keep_from_others takes away the right to open the vault, which the copy of a backup may give to all. Nothing could be
// read of it, but whoever may open a file may hold a lock on it, of the kind that SQLite uses: no service could start.
void keep_from_others(const std::string &path) {
  struct stat info {};
  if (stat(path.c_str(), &info) != 0 || (info.st_mode & 077) == 0) return;
  const mode_t wanted = info.st_mode & 0700;
  if (chmod(path.c_str(), wanted) != 0) return;
  tell(event::kVaultWasOpen, "{}: others could open it; its mode was {:04o} and is {:04o} now", path,
       info.st_mode & 0777, wanted);
}

// refuse_without_vault keeps an empty vault from being made where a lost one stood.
void refuse_without_vault(const std::string &path, const std::string &log, const std::string &witness) {
  for (const auto &[what, left] : {std::pair("log", log), std::pair("witness", witness)}) {
    if (!file_exists(left)) continue;
    refuse(
        "{}: the vault is gone, but its {} {} is there; put the vault back, or move the {} away as well to "
        "start with an empty one",
        path, what, left, what);
  }
}

// Losses looks for what was acknowledged and isn't there. Each finding ends the opening, or, when the operator accepts
// the loss, has the files copied first, as they were found.
class Losses {
 public:
  Losses(const VaultOptions &options, const std::string &log_path, const LogFile &log, const Witness &witness)
      : options_(options), log_path_(log_path), log_(log), witness_(witness) {}

  // By the log and the header alone: with part of its changes missing, the file itself may look damaged.
  void check_log(const Header &header) {
    if (log_.damage) {
      found(log_path_, *log_.damage);
    } else if (header.in_use && !log_.holds_frames) {
      found(log_path_, "it is missing or empty, and the vault was in use when its service ended or the copy was made");
    }
  }

  void check_witness(const Header &header) {
    const std::optional<uint64_t> told = witness_.version();
    if (told && *told > header.last_version) {
      found(options_.path, fmt::format("it ends with change {}, but its witness {} tells of change {}",
                                       header.last_version, witness_.path(), *told));
    } else if (!told && header.in_use) {
      found(witness_.path(),
            fmt::format("the vault's witness {}, and the vault was in use when its service ended or the copy was made",
                        witness_.file_is_there() ? "isn't of this vault or is damaged" : "is missing"));
    } else if (!told && (header.last_version != 0 || witness_.file_is_there())) {
      tell(event::kWitnessMadeAnew, "{}: the vault's witness {}; made anew", witness_.path(),
           witness_.file_is_there() ? "isn't of this vault or is damaged" : "wasn't there");
    }
  }

  bool accepted() const { return accepted_; }

 private:
  void found(const std::string &file, const std::string &what) {
    const std::string line = fmt::format("{}: {}; what was acknowledged may be missing", file, what);
    if (!options_.accept_loss) {
      refuse(
          "{}. Put vault, log and witness back together, or start once with --accept-loss, which copies "
          "them and goes on with what is whole",
          line);
    }
    tell(event::kLossAccepted, "{}. This loss is accepted", line);
    if (accepted_) return;
    accepted_ = true;
    const std::string folder = put_aside(options_.path, {options_.path, log_path_, witness_.path()});
    tell(event::kLossAccepted, "{}: the files as they were are in {}", options_.path, folder);
  }

  const VaultOptions &options_;
  const std::string &log_path_;
  const LogFile &log_;
  const Witness &witness_;
  bool accepted_ = false;
};

std::string witness_of(const VaultOptions &options) {
  return options.witness.empty() ? options.path + "-witness" : options.witness;
}

// Found is a vault whose files have been looked at, one after the other and before SQLite reads them.
class Found {
 public:
  // Nobody else has the vault, and it is safe from others' hands.
  explicit Found(const VaultOptions &options)
      : options_(options), log_path_(options.path + "-wal"), witness_path_(witness_of(options)) {
    start_sodium();
    refuse_what_others_may_write(options.path);
    refuse_taken_witness(options, witness_path_);
    refuse_what_others_may_write(witness_path_);
    if (!options.master_key_file.empty()) refuse_what_others_may_write(options.master_key_file);
    lock_.emplace(options.path);
    const std::string before = finish_placing(options.path);
    if (!before.empty()) spdlog::info("{}: was restored; the vault before it is in {}", options.path, before);
    is_there_ = file_exists(options.path);
    if (!is_there_) refuse_without_vault(options.path, log_path_, witness_path_);
  }

  bool is_there() const { return is_there_; }
  VaultLock take_lock() { return std::move(*lock_); }

  MasterKey read_key() const {
    return read_master_key(
        {.file = options_.master_key_file, .passphrase = options_.passphrase, .cost = options_.passphrase_cost},
        !is_there_);
  }

  // read opens the vault, and has `read_rows` read its entries between the looks at log and witness.
  void read(const MasterKey &master, const std::function<void()> &read_rows) {
    log_ = examine_log(log_path_);  // before SQLite does
    database.emplace(options_.path);
    const VaultIdentity identity = database->identity();
    keys.emplace(keys_of(options_.path, identity, master));
    header = open_header(options_.path, identity, *keys);
    witness.emplace(witness_path_, *keys);
    Losses losses(options_, log_path_, log_, *witness);
    losses.check_log(header);
    database->check_structure();
    read_rows();
    losses.check_witness(header);
    loss_accepted = losses.accepted();
  }

  // leave has the files be as they were, for who only looked.
  void leave() {
    if (!log_.is_there) database->put_log_away();
  }

  std::optional<Database> database;
  std::optional<Keys> keys;
  std::optional<Witness> witness;
  Header header;
  bool loss_accepted = false;

 private:
  const VaultOptions &options_;
  const std::string log_path_, witness_path_;
  std::optional<VaultLock> lock_;
  bool is_there_ = false;
  LogFile log_;
};

// PositionCheck looks whether the table can be made of the rows as it has to be: each entry found by its names, and by
// a position of its own.
class PositionCheck {
 public:
  explicit PositionCheck(const std::string &path) : path_(path) {}

  void look_at(const RowPtr &row, const Header &header) {
    const auto take = [&](const EntryName &name) {
      if (!names_.insert(name).second) refuse_damaged(path_, fmt::format("entry {} has another's name", row->id));
    };
    take(row->name);
    if (row->alias) take(*row->alias);
    if (row->id <= last_id_ || row->id > header.last_id) {
      refuse_damaged(path_, fmt::format("entry {} has no position", row->id));
    }
    if (row->version > header.last_version) {
      refuse_damaged(path_, fmt::format("entry {} is of a change that never was", row->id));
    }
    last_id_ = row->id;
  }

 private:
  const std::string &path_;
  std::unordered_set<EntryName, NameHash> names_;
  uint64_t last_id_ = 0;
};

// examine leaves the vault open, with all its rows looked at, which `visit` sees as well.
Examined examine(
    Found &found, const VaultOptions &options,
    const std::function<void(const RowPtr &)> &visit = [](const RowPtr &) {}) {
  if (!found.is_there()) {
    refuse("{}: there is no vault; name the one that is meant", options.path);
  }
  PositionCheck positions(options.path);
  found.read(found.read_key(), [&] {
    for_each_row(*found.database, *found.keys, found.header, [&](const RowPtr &row) {
      positions.look_at(row, found.header);
      visit(row);
    });
  });
  return {.entries = found.header.entry_count,
          .version = found.header.last_version,
          .schema_version = found.database->schema_version(),
          .in_use = found.header.in_use,
          .key_changes = found.keys->changing()};
}

}  // namespace

void make_folders(const VaultOptions &options) {
  if (options.master_key_file.empty() || file_exists(options.master_key_file)) return;
  for (const std::string &path : {options.path, options.master_key_file}) {
    const std::string folder = folder_of(path);
    if (mkdir(folder.c_str(), 0700) == 0) spdlog::info("{}: made the folder", folder);
  }  // what can't be made is missed below, with what to do
}

Examined examine_vault(const VaultOptions &options) {
  Found found(options);
  const Examined examined = examine(found, options);
  found.leave();
  return examined;
}

std::vector<RowPtr> read_vault(const VaultOptions &options) {
  Found found(options);
  std::vector<RowPtr> rows;
  examine(found, options, [&](const RowPtr &row) { rows.push_back(row); });
  found.leave();
  return rows;
}

int migrate_vault(const VaultOptions &options) {
  Found found(options);
  const int version = examine(found, options).schema_version;
  const auto failed = found.database->transaction([&] { return found.database->migrate(); });
  if (failed) refuse("{}: {}; the vault is as it was", options.path, failed->text);
  found.leave();
  return version;
}

std::unique_ptr<Vault> open_vault(const VaultOptions &options) {
  make_folders(options);
  Found found(options);
  const std::string &path = options.path;
  MasterKey master = found.read_key();
  if (!found.is_there()) make_vault(path, master);
  keep_from_others(path);
  State state;
  found.read(master, [&] { state = load(*found.database, *found.keys, found.header); });
  if (found.loss_accepted) {
    // Versions that the lost changes had are not given again: rows of that time could stand in for new ones.
    state.header.last_version =
        std::max(state.header.last_version, found.witness->version().value_or(0)) + kVersionsOfALoss;
  }

  Writer writer(std::move(*found.database), *found.keys, std::move(*found.witness));
  begin(writer, state.header);
  spdlog::info("{}: {} entries", path, state.table.size());
  return std::make_unique<FileVault>(found.take_lock(), std::move(writer), std::move(state), options.limits,
                                     std::move(master));
}

}  // namespace ksd::vault
