// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// database.h: the vault's file. SQLite keeps the rows; what is in them is sealed and none of its business.
#ifndef SERVICE_VAULT_DATABASE_H
#define SERVICE_VAULT_DATABASE_H

#include <sqlite3.h>

#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "ks_types.h"
#include "vault/keys.h"
#include "vault/seal.h"

namespace ksd::vault {

// Version 2 has a place for a change of the master key. One of version 1 serves as it is until then.
inline constexpr int kOldestSchemaVersion = 1;
inline constexpr int kSchemaVersion = 2;

// VaultIdentity is what stands in the clear: which key opens the vault, and which vault it is. The header is sealed.
struct VaultIdentity {
  KeyId key_id{};
  VaultId vault_id{};
  std::vector<uint8_t> sealed_header;
  std::optional<KeyChange> key_change = std::nullopt;
};

// refuse_damaged throws the one line about a vault that isn't what ksd wrote.
[[noreturn]] void refuse_damaged(const std::string &path, const std::string &what);

// WriteFailure is why a write didn't happen: the code for the client, and a text for the log.
struct WriteFailure {
  KsResult code = KS_FW_BAD_CELL;
  std::string text;  // empty when there was no memory for it
};

class Database {
 public:
  // create makes a vault without entries. There is a whole one or none at any instant, and one that has come to be
  // there in the meantime stays.
  static void create(const std::string &path, const VaultIdentity &identity);

  // The file is locked against other processes for as long as the object lives. Throws std::runtime_error, one line
  // with the file's name and what to do, when it can't be opened for writing, isn't a vault or is of a newer schema;
  // in_use_wait_ms is how long one that another process is just letting go of is waited for. Nothing is written: the
  // log is read, and stays as it is when the object goes, unless put_log_away was called.
  explicit Database(const std::string &path, int in_use_wait_ms = 2000);

  VaultIdentity identity();
  int schema_version() const { return schema_version_; }

  // check_structure throws like the constructor when SQLite finds the file damaged.
  void check_structure();
  void for_each_entry(const std::function<void(uint64_t id, std::span<const uint8_t> sealed)> &visit);

  // transaction runs `body`, which writes with the functions below until one of them says false, and commits. When it
  // gives nothing, all of it is on disk; else nothing of it is there.
  std::optional<WriteFailure> transaction(const std::function<bool()> &body);
  bool put_entry(uint64_t id, std::span<const uint8_t> sealed);
  bool remove_entry(uint64_t id);
  bool put_header(std::span<const uint8_t> sealed);

  // The same for a change of the master key: its beginning, how far it has come, and its end, when the next key is the
  // vault's. The first brings an older schema up to date.
  bool begin_key_change(const KeyChange &change);
  bool put_moved(uint64_t moved);
  bool end_key_change(const KeyId &key_id);

  // migrate brings the schema up to date, as a part of a transaction, too.
  bool migrate();

  // give_back moves up to `pages` free pages to the end of the file, as a transaction of its own.
  std::optional<WriteFailure> give_back(int pages);

  // write_back writes the log back into the file and cuts off there what is free. The next transaction begins the log
  // anew, over what it holds.
  std::optional<WriteFailure> write_back();
  bool log_is_long() const { return *log_frames_ >= long_log_; }
  int log_pages() const { return *log_frames_; }

  // put_log_away writes the log back and has it removed when the object goes.
  std::optional<WriteFailure> put_log_away();

  struct Room {
    int64_t pages = 0;
    int64_t free_pages = 0;
  };
  Room room();

  const std::string &path() const { return path_; }

 private:
  struct Close {
    void operator()(sqlite3 *db) const { sqlite3_close_v2(db); }
    void operator()(sqlite3_stmt *statement) const { sqlite3_finalize(statement); }
  };
  using Statement = std::unique_ptr<sqlite3_stmt, Close>;

  Database(const std::string &path, int flags, int in_use_wait_ms);
  void make_schema(const VaultIdentity &identity);
  void check_schema();
  [[noreturn]] void refuse(int error) const;
  void require(int error) const {
    if (error != SQLITE_OK) refuse(error);
  }
  int run(const char *sql);
  Statement prepare(const char *sql) const;
  int64_t number(sqlite3_stmt *statement);
  bool is_full(int error) const;
  int cause_of_failure() const;
  std::string error_text() const;
  WriteFailure failure() const noexcept;
  std::optional<WriteFailure> checkpoint(int mode);

  std::optional<KeyChange> key_change();

  std::string path_;
  int schema_version_ = kSchemaVersion;
  std::unique_ptr<int> log_frames_ = std::make_unique<int>(0);
  int long_log_ = 0;  // in pages
  std::unique_ptr<sqlite3, Close> db_;
  Statement begin_, commit_, put_entry_, remove_entry_, put_header_, page_count_, free_page_count_;
};

}  // namespace ksd::vault

#endif
