#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <stdexcept>

#include "base/log.h"
#include "base/trust.h"
#include "vault/aside.h"
#include "vault/file_vault.h"
#include "vault/files.h"
#include "vault/log_file.h"
#include "vault/master_key.h"
#include "vault/witness.h"

namespace ksd::vault {
namespace {

constexpr uint64_t kVersionsOfALoss = uint64_t{1} << 32;

VaultId draw_vault_id() {
  VaultId id;
  randombytes_buf(id.data(), id.size());
  return id;
}

void make_vault(const std::string &path, const MasterKey &master) {
  VaultIdentity identity{key_id_of(*master.key), draw_vault_id(), {}};
  const Sealer sealer(*master.key, identity.vault_id);
  identity.sealed_header = sealer.seal(RecordKind::kHeader, 0, encode_header(Header{}));
  Database::create(path, identity);
  spdlog::info("{}: made an empty vault under the master key of {}", path, master.path);
}

Header open_header(const std::string &path, const VaultIdentity &identity, const Sealer &sealer) {
  const std::shared_ptr<const SecretBytes> plain = sealer.open(RecordKind::kHeader, 0, identity.sealed_header);
  const std::optional<Header> header = plain ? decode_header(plain->bytes()) : std::nullopt;
  if (!header) refuse_damaged(path, "its header doesn't open");
  return *header;
}

// load reads all entries. The digest in the header tells whether they are the ones that belong together.
State load(Database &database, const Sealer &sealer, const Header &header) {
  State state;
  state.header = header;
  RowChanges rows;
  Header found{};
  database.for_each_entry([&](uint64_t id, Bytes sealed) {
    const std::shared_ptr<const SecretBytes> plain = sealer.open(RecordKind::kEntry, id, sealed);
    const RowPtr row = plain ? decode_entry(id, plain->bytes()) : nullptr;
    if (row == nullptr) refuse_damaged(database.path(), fmt::format("entry {} doesn't open", id));
    found.add(sealer.mark(id, row->version));
    ++found.entry_count;
    state.ledger.replace(nullptr, row.get());
    rows.emplace_hint(rows.end(), id, RowChange{nullptr, row});
  });
  if (found.entry_count != header.entry_count || found.digest != header.digest) {
    refuse_damaged(database.path(), "its entries aren't those of its last change");
  }
  state.table.reserve(rows.size());
  state.table.apply(rows, state.table.prepare(rows));
  return state;
}

// begin finds out at start, rather than at the first change, that nothing can be written. A full disk is no reason not
// to serve reads, and clearing entries needs a running service.
void begin(Writer &writer, const Header &header) {
  const std::optional<WriteFailure> failed = writer.begin(header);
  if (!failed) return;
  if (failed->code != KS_STORE_FULL) {
    throw std::runtime_error(
        fmt::format("{}: the vault can't be written: {}; make the file, its folder and its disk writable",
                    writer.path(), failed->text));
  }
  tell(event::kDiskFull, "{}: the disk of the vault is full: changes are refused, reads go on; make room on it",
       writer.path());
}

void refuse_what_others_may_write(const std::string &path) {
  if (const auto why = why_others_may_replace(path)) throw std::runtime_error(fmt::format("{}: {}", path, *why));
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
    throw std::runtime_error(
        fmt::format("{}: the vault is gone, but its {} {} is there; put the vault back, or move the {} away as well to "
                    "start with an empty one",
                    path, what, left, what));
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
      throw std::runtime_error(
          fmt::format("{}. Put vault, log and witness back together, or start once with --accept-loss, which copies "
                      "them and goes on with what is whole",
                      line));
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

}  // namespace

void make_folders(const VaultOptions &options) {
  if (options.master_key_file.empty() || file_exists(options.master_key_file)) return;
  for (const std::string &path : {options.path, options.master_key_file}) {
    const std::string folder = folder_of(path);
    if (mkdir(folder.c_str(), 0700) == 0) spdlog::info("{}: made the folder", folder);
  }  // what can't be made is missed below, with what to do
}

std::unique_ptr<Vault> open_vault(const VaultOptions &options) {
  if (sodium_init() < 0) throw std::runtime_error("libsodium doesn't start; the system generator may be missing");
  const std::string &path = options.path;
  const std::string log_path = path + "-wal";
  const std::string witness_path = options.witness.empty() ? path + "-witness" : options.witness;
  make_folders(options);
  refuse_what_others_may_write(path);
  if (!options.master_key_file.empty()) refuse_what_others_may_write(options.master_key_file);
  VaultLock lock(path);
  const bool is_there = file_exists(path);
  if (!is_there) refuse_without_vault(path, log_path, witness_path);
  const MasterKey master = read_master_key(options.master_key_file, !is_there);
  if (!is_there) make_vault(path, master);
  keep_from_others(path);

  const LogFile log = examine_log(log_path);  // before SQLite does
  Database database(path);
  const VaultIdentity identity = database.identity();
  if (identity.key_id != key_id_of(*master.key)) {
    throw std::runtime_error(
        fmt::format("{}: the vault belongs to another master key than the one in {}; give the service the key that the "
                    "vault was made with",
                    path, master.path));
  }
  const Sealer sealer(*master.key, identity.vault_id);
  const Header header = open_header(path, identity, sealer);
  Witness witness(witness_path, sealer);
  Losses losses(options, log_path, log, witness);
  losses.check_log(header);
  database.check_structure();
  State state = load(database, sealer, header);
  losses.check_witness(header);
  if (losses.accepted()) {
    // Versions that the lost changes had are not given again: rows of that time could stand in for new ones.
    state.header.last_version = std::max(header.last_version, witness.version().value_or(0)) + kVersionsOfALoss;
  }

  Writer writer(std::move(database), sealer, std::move(witness));
  begin(writer, state.header);
  spdlog::info("{}: {} entries", path, state.table.size());
  return std::make_unique<FileVault>(std::move(lock), std::move(writer), std::move(state), options.limits);
}

}  // namespace ksd::vault
