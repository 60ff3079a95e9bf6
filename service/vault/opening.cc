#include <fmt/format.h>
#include <spdlog/spdlog.h>

#include <stdexcept>

#include "vault/file_vault.h"
#include "vault/files.h"
#include "vault/master_key.h"

namespace ksd::vault {
namespace {

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
  Header found{.last_id = header.last_id, .last_version = header.last_version, .entry_count = 0, .digest = {}};
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
  state.table.apply(rows);
  return state;
}

// check_writable finds out at start, rather than at the first change, that nothing can be written. A full disk is no
// reason not to serve reads, and clearing entries needs a running service.
void check_writable(Database &database, const Sealer &sealer, const Header &header) {
  const std::optional<WriteFailure> failed = database.transaction(
      [&] { return database.put_header(sealer.seal(RecordKind::kHeader, 0, encode_header(header))); });
  if (!failed) return;
  if (failed->code != KS_STORE_FULL) {
    throw std::runtime_error(
        fmt::format("{}: the vault can't be written: {}; make the file, its folder and its disk writable",
                    database.path(), failed->text));
  }
  spdlog::error("{}: the disk of the vault is full: changes are refused, reads go on; make room on it",
                database.path());
}

}  // namespace

std::unique_ptr<Vault> open_vault(const VaultOptions &options) {
  if (sodium_init() < 0) throw std::runtime_error("libsodium doesn't start; the system generator may be missing");
  const std::string log = options.path + "-wal";
  const bool is_there = file_exists(options.path);
  if (!is_there && file_exists(log)) {
    throw std::runtime_error(
        fmt::format("{}: the vault is gone, but its log {} is there; put the vault back, or move the log away as well "
                    "to start with an empty one",
                    options.path, log));
  }
  const MasterKey master = read_master_key(options.master_key_file, !is_there);
  if (!is_there) make_vault(options.path, master);

  Database database(options.path);
  const VaultIdentity identity = database.identity();
  if (identity.key_id != key_id_of(*master.key)) {
    throw std::runtime_error(
        fmt::format("{}: the vault belongs to another master key than the one in {}; give the service the key that the "
                    "vault was made with",
                    options.path, master.path));
  }
  const Sealer sealer(*master.key, identity.vault_id);
  const Header header = open_header(options.path, identity, sealer);
  State state = load(database, sealer, header);
  check_writable(database, sealer, header);
  spdlog::info("{}: {} entries", options.path, state.table.size());
  return std::make_unique<FileVault>(std::move(database), sealer, std::move(state), options.limits);
}

}  // namespace ksd::vault
