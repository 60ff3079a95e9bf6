// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "vault/database.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <new>

#include "base/refuse.h"
#include "base/trust.h"
#include "vault/files.h"
#include "vault/joined_log.h"

namespace ksd::vault {
namespace {

constexpr int kLogSizeLimit = 8 << 20;
constexpr int kLongLog = 4'096'000;         // in bytes
constexpr int kApplicationId = 0x6b735631;  // "ksV1", for file(1) and for telling other databases

// A change writes two pages at least: these are on disk sooner than those of 4,096 bytes that SQLite would choose.
// Free pages go back a few at a time (auto_vacuum), so that compaction never holds up others for long and needs neither
// a second copy's room nor a temporary file.
constexpr char kSchema[] =
    "PRAGMA page_size = 2048;"
    "PRAGMA auto_vacuum = INCREMENTAL;"
    "BEGIN;"
    "CREATE TABLE vault (only_row INTEGER PRIMARY KEY CHECK (only_row = 1), key_id BLOB NOT NULL,"
    "  vault_id BLOB NOT NULL, header BLOB NOT NULL);"
    "CREATE TABLE entry (id INTEGER PRIMARY KEY, sealed BLOB NOT NULL);";

// What version 2 has beyond version 1: a row while the master key is changed.
constexpr char kSchemaOfKeyChange[] =
    "CREATE TABLE key_change (only_row INTEGER PRIMARY KEY CHECK (only_row = 1), key_id BLOB NOT NULL,"
    "  sealed_key BLOB NOT NULL, moved INTEGER NOT NULL);";

int bind_bytes(sqlite3_stmt *statement, int place, std::span<const uint8_t> bytes) {
  return sqlite3_bind_blob64(statement, place, bytes.data(), bytes.size(), SQLITE_STATIC);
}

std::span<const uint8_t> column_bytes(sqlite3_stmt *statement, int column) {
  const auto *bytes = static_cast<const uint8_t *>(sqlite3_column_blob(statement, column));
  return {bytes, static_cast<size_t>(sqlite3_column_bytes(statement, column))};
}

// finish runs a statement that gives no rows. What it was given is unbound: it belongs to the caller.
int finish(sqlite3_stmt *statement) {
  while (sqlite3_step(statement) == SQLITE_ROW) {
  }
  const int result = sqlite3_reset(statement);
  sqlite3_clear_bindings(statement);
  return result;
}

template <typename Id>
bool copy_exactly(std::span<const uint8_t> bytes, Id &out) {
  if (bytes.size() != out.size()) return false;
  std::copy(bytes.begin(), bytes.end(), out.begin());
  return true;
}

}  // namespace

void refuse_damaged(const std::string &path, const std::string &what) {
  ksd::refuse(
      "{}: the vault is damaged ({}); put a backup of vault, log and witness in its place, or move all three away to "
      "start with an empty one",
      path, what);
}

void Database::create(const std::string &path, const VaultIdentity &identity) {
  const std::string draft = path + ".new";  // any that is there is of a start that was cut short
  unlink(draft.c_str());
  unlink((draft + "-journal").c_str());
  if (!make_file(draft)) {
    ksd::refuse("{}: the vault can't be made: {}; give user {} a writable folder with room", path, errno_text(errno),
                geteuid());
  }
  Database(draft, SQLITE_OPEN_READWRITE, 0).make_schema(identity);
  const bool placed = link(draft.c_str(), path.c_str()) == 0 || errno == EEXIST;
  const int error = errno;
  unlink(draft.c_str());
  if (!placed || !sync_folder(folder_of(path))) {
    ksd::refuse("{}: the vault can't be made: {}; give it a folder on a local disk", path,
                errno_text(placed ? errno : error));
  }
}

Database::Database(const std::string &path, int flags, int in_use_wait_ms) : path_(path) {
  sqlite3 *db = nullptr;
  const int error = sqlite3_open_v2(path.c_str(), &db, flags | SQLITE_OPEN_NOMUTEX, joined_log());
  db_.reset(db);
  require(error);
  if (sqlite3_db_readonly(db, "main") != 0) refuse(SQLITE_READONLY);  // what SQLite makes do with
  sqlite3_extended_result_codes(db, 1);
  sqlite3_busy_timeout(db, in_use_wait_ms);
  sqlite3_db_config(db, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
  // Held by one process alone, the log needs no shared memory file beside it; that has to be said before any access.
  require(run("PRAGMA locking_mode = EXCLUSIVE;"));
  require(run("PRAGMA trusted_schema = OFF; PRAGMA temp_store = MEMORY; PRAGMA synchronous = FULL;"));
  // By itself SQLite writes the log back when the last one closes it, also after what it says was refused, and every so
  // often within a commit, where it keeps to itself that a sync failed.
  sqlite3_db_config(db, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
  const auto remember_length = [](void *frames, sqlite3 *, const char *, int count) {
    *static_cast<int *>(frames) = count;
    return SQLITE_OK;
  };
  sqlite3_wal_hook(db, remember_length, log_frames_.get());
}

void Database::make_schema(const VaultIdentity &identity) {
  require(run(kSchema));
  require(run(kSchemaOfKeyChange));
  const Statement insert = prepare("INSERT INTO vault VALUES (1, ?, ?, ?)");
  bind_bytes(insert.get(), 1, identity.key_id);
  bind_bytes(insert.get(), 2, identity.vault_id);
  bind_bytes(insert.get(), 3, identity.sealed_header);
  require(finish(insert.get()));
  require(
      run(fmt::format("PRAGMA application_id = {}; PRAGMA user_version = {}; COMMIT;", kApplicationId, kSchemaVersion)
              .c_str()));
}

Database::Database(const std::string &path, int in_use_wait_ms)
    : Database(path, SQLITE_OPEN_READWRITE, in_use_wait_ms) {
  struct stat info;
  if (stat(path.c_str(), &info) == 0 && info.st_size == 0) refuse_damaged(path_, "the file is empty");
  check_schema();
  require(run("PRAGMA journal_mode = WAL; PRAGMA cell_size_check = ON;"));
  // A longer log, of one large change, is cut when it begins anew. It never becomes empty: a log in use that holds
  // nothing was cut by somebody else.
  require(run(fmt::format("PRAGMA journal_size_limit = {}", kLogSizeLimit).c_str()));

  begin_ = prepare("BEGIN IMMEDIATE");
  commit_ = prepare("COMMIT");
  put_entry_ = prepare("INSERT OR REPLACE INTO entry VALUES (?, ?)");
  remove_entry_ = prepare("DELETE FROM entry WHERE id = ?");
  put_header_ = prepare("UPDATE vault SET header = ?");
  page_count_ = prepare("PRAGMA page_count");
  free_page_count_ = prepare("PRAGMA freelist_count");
  // Other vaults have pages of 4,096 bytes.
  long_log_ = static_cast<int>(kLongLog / std::max<int64_t>(1, number(prepare("PRAGMA page_size").get())));
}

void Database::check_schema() {
  if (number(prepare("PRAGMA application_id").get()) != kApplicationId) {
    refuse_damaged(path_, "it isn't a vault of ksd");
  }
  const int64_t version = number(prepare("PRAGMA user_version").get());
  if (version > kSchemaVersion) {
    ksd::refuse(
        "{}: the vault has schema version {}, but this ksd knows them up to {} only; start the newer ksd that wrote it",
        path_, version, kSchemaVersion);
  }
  if (version < kOldestSchemaVersion)
    refuse_damaged(path_, fmt::format("there never was a schema version {}", version));
  schema_version_ = static_cast<int>(version);
}

void Database::check_structure() {
  const Statement check = prepare("PRAGMA quick_check(1)");
  const int step = sqlite3_step(check.get());
  if (step != SQLITE_ROW) refuse(step);
  const std::string found = reinterpret_cast<const char *>(sqlite3_column_text(check.get(), 0));
  if (found != "ok") refuse_damaged(path_, found);
}

VaultIdentity Database::identity() {
  const Statement select = prepare("SELECT key_id, vault_id, header FROM vault");
  const int step = sqlite3_step(select.get());
  if (step == SQLITE_DONE) refuse_damaged(path_, "its header is gone");
  if (step != SQLITE_ROW) refuse(step);
  VaultIdentity identity;
  if (!copy_exactly(column_bytes(select.get(), 0), identity.key_id) ||
      !copy_exactly(column_bytes(select.get(), 1), identity.vault_id)) {
    refuse_damaged(path_, "its identity has a wrong size");
  }
  const std::span<const uint8_t> header = column_bytes(select.get(), 2);
  identity.sealed_header.assign(header.begin(), header.end());
  identity.key_change = key_change();
  return identity;
}

std::optional<KeyChange> Database::key_change() {
  if (schema_version_ < kSchemaVersion) return std::nullopt;
  const Statement select = prepare("SELECT key_id, sealed_key, moved FROM key_change");
  const int step = sqlite3_step(select.get());
  if (step == SQLITE_DONE) return std::nullopt;
  if (step != SQLITE_ROW) refuse(step);
  KeyChange change;
  if (!copy_exactly(column_bytes(select.get(), 0), change.key_id)) {
    refuse_damaged(path_, "its next key id has a wrong size");
  }
  const std::span<const uint8_t> key = column_bytes(select.get(), 1);
  change.sealed_key.assign(key.begin(), key.end());
  change.moved = static_cast<uint64_t>(sqlite3_column_int64(select.get(), 2));
  return change;
}

void Database::for_each_entry(const std::function<void(uint64_t id, std::span<const uint8_t> sealed)> &visit) {
  const Statement select = prepare("SELECT id, sealed FROM entry ORDER BY id");
  int step = 0;
  while ((step = sqlite3_step(select.get())) == SQLITE_ROW) {
    visit(static_cast<uint64_t>(sqlite3_column_int64(select.get(), 0)), column_bytes(select.get(), 1));
  }
  if (step != SQLITE_DONE) refuse(step);
}

std::optional<WriteFailure> Database::transaction(const std::function<bool()> &body) {
  const auto roll_back = [&, schema_version = schema_version_] {
    // A failed statement or commit may have ended the transaction by itself.
    if (sqlite3_get_autocommit(db_.get()) == 0) run("ROLLBACK");
    schema_version_ = schema_version;
  };
  try {
    if (finish(begin_.get()) == SQLITE_OK && body() && finish(commit_.get()) == SQLITE_OK) return std::nullopt;
  } catch (...) {
    roll_back();
    throw;
  }
  WriteFailure met = failure();
  roll_back();
  return met;
}

bool Database::put_entry(uint64_t id, std::span<const uint8_t> sealed) {
  sqlite3_bind_int64(put_entry_.get(), 1, static_cast<int64_t>(id));
  bind_bytes(put_entry_.get(), 2, sealed);
  return finish(put_entry_.get()) == SQLITE_OK;
}

bool Database::remove_entry(uint64_t id) {
  sqlite3_bind_int64(remove_entry_.get(), 1, static_cast<int64_t>(id));
  return finish(remove_entry_.get()) == SQLITE_OK;
}

bool Database::put_header(std::span<const uint8_t> sealed) {
  bind_bytes(put_header_.get(), 1, sealed);
  return finish(put_header_.get()) == SQLITE_OK;
}

bool Database::migrate() {
  if (schema_version_ == kSchemaVersion) return true;
  if (run(kSchemaOfKeyChange) != SQLITE_OK) return false;
  if (run(fmt::format("PRAGMA user_version = {}", kSchemaVersion).c_str()) != SQLITE_OK) return false;
  schema_version_ = kSchemaVersion;
  return true;
}

bool Database::begin_key_change(const KeyChange &change) {
  if (!migrate()) return false;
  const Statement insert = prepare("INSERT INTO key_change VALUES (1, ?, ?, ?)");
  bind_bytes(insert.get(), 1, change.key_id);
  bind_bytes(insert.get(), 2, change.sealed_key);
  sqlite3_bind_int64(insert.get(), 3, static_cast<int64_t>(change.moved));
  return finish(insert.get()) == SQLITE_OK;
}

bool Database::put_moved(uint64_t moved) {
  return run(fmt::format("UPDATE key_change SET moved = {}", moved).c_str()) == SQLITE_OK;
}

bool Database::end_key_change(const KeyId &key_id) {
  const Statement update = prepare("UPDATE vault SET key_id = ?");
  bind_bytes(update.get(), 1, key_id);
  return finish(update.get()) == SQLITE_OK && run("DELETE FROM key_change") == SQLITE_OK;
}

std::optional<WriteFailure> Database::give_back(int pages) {
  if (run(fmt::format("PRAGMA incremental_vacuum({})", pages).c_str()) == SQLITE_OK) return std::nullopt;
  return failure();
}

std::optional<WriteFailure> Database::checkpoint(int mode) {
  if (sqlite3_wal_checkpoint_v2(db_.get(), nullptr, mode, nullptr, nullptr) != SQLITE_OK) return failure();
  *log_frames_ = 0;
  return std::nullopt;
}

std::optional<WriteFailure> Database::write_back() {
  return checkpoint(SQLITE_CHECKPOINT_RESTART);
}

std::optional<WriteFailure> Database::put_log_away() {
  if (std::optional<WriteFailure> failed = checkpoint(SQLITE_CHECKPOINT_TRUNCATE)) return failed;
  sqlite3_db_config(db_.get(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 0, nullptr);
  return std::nullopt;
}

Database::Room Database::room() {
  const auto count = [](sqlite3_stmt *statement) {
    const int64_t value = sqlite3_step(statement) == SQLITE_ROW ? sqlite3_column_int64(statement, 0) : 0;
    sqlite3_reset(statement);
    return value;
  };
  return {count(page_count_.get()), count(free_page_count_.get())};
}

WriteFailure Database::failure() const noexcept {
  const int error = sqlite3_extended_errcode(db_.get());
  const bool no_memory = (error & 0xff) == SQLITE_NOMEM || error == SQLITE_IOERR_NOMEM;
  WriteFailure failure{is_full(error) ? KS_STORE_FULL : no_memory ? KS_NO_MEMORY : KS_FW_BAD_CELL, {}};
  try {
    failure.text = error_text();
  } catch (const std::bad_alloc &) {  // the code alone, then: what failed is still to be undone
  }
  return failure;
}

// A quota that is used up is an error like others for SQLite. A sync that failed is never harmless: what it should have
// brought to disk may be gone.
bool Database::is_full(int error) const {
  if ((error & 0xff) == SQLITE_FULL) return true;
  if ((error & 0xff) != SQLITE_IOERR || error == SQLITE_IOERR_FSYNC) return false;
  const int cause = cause_of_failure();
  return cause == ENOSPC || cause == EDQUOT;
}

// SQLite doesn't tell it of a commit that failed, but the log's file does.
int Database::cause_of_failure() const {
  int cause = sqlite3_system_errno(db_.get());
  sqlite3_file *log = nullptr;
  if (cause == 0 && (sqlite3_errcode(db_.get()) & 0xff) == SQLITE_IOERR &&
      sqlite3_file_control(db_.get(), nullptr, SQLITE_FCNTL_JOURNAL_POINTER, &log) == SQLITE_OK && log != nullptr &&
      log->pMethods != nullptr) {
    log->pMethods->xFileControl(log, SQLITE_FCNTL_LAST_ERRNO, &cause);
  }
  return cause;
}

std::string Database::error_text() const {
  const std::string text = sqlite3_errmsg(db_.get());
  const int cause = cause_of_failure();
  return cause == 0 ? text : fmt::format("{} ({})", text, errno_text(cause));
}

void Database::refuse(int error) const {
  if (db_ == nullptr) ksd::refuse("{}: the vault can't be opened: out of memory", path_);
  if (is_full(error)) ksd::refuse("{}: the disk of the vault is full; make room on it and start again", path_);
  const int cause = sqlite3_system_errno(db_.get());
  switch (error & 0xff) {
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
      ksd::refuse("{}: the vault is in use by another process; end that one first", path_);
    case SQLITE_NOTADB:
    case SQLITE_CORRUPT:
    case SQLITE_FORMAT:
      refuse_damaged(path_, sqlite3_errmsg(db_.get()));
    case SQLITE_CANTOPEN:
      if (cause != EACCES && cause != EPERM && cause != EROFS) break;
      [[fallthrough]];
    case SQLITE_READONLY:
    case SQLITE_PERM:
      ksd::refuse("{}: the vault is read-only for user {}; make the file, its folder and its disk writable", path_,
                  geteuid());
    default:
      break;
  }
  ksd::refuse("{}: the vault can't be used: {}; look at its disk and start again", path_, error_text());
}

int Database::run(const char *sql) {
  return sqlite3_exec(db_.get(), sql, nullptr, nullptr, nullptr);
}

Database::Statement Database::prepare(const char *sql) const {
  sqlite3_stmt *statement = nullptr;
  const int error = sqlite3_prepare_v3(db_.get(), sql, -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr);
  Statement owned(statement);
  require(error);
  return owned;
}

int64_t Database::number(sqlite3_stmt *statement) {
  const int step = sqlite3_step(statement);
  const int64_t value = step == SQLITE_ROW ? sqlite3_column_int64(statement, 0) : 0;
  sqlite3_reset(statement);
  if (step != SQLITE_ROW) refuse(step);
  return value;
}

}  // namespace ksd::vault
