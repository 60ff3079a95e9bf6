// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// vault_files.h: a vault in a folder of its own, and what stands between it and the disk, for tests.
#ifndef TESTS_SUPPORT_VAULT_FILES_VAULT_FILES_H
#define TESTS_SUPPORT_VAULT_FILES_VAULT_FILES_H

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "temporary_folder.h"
#include "vault/record.h"
#include "vault/vault.h"

namespace ksd::vault {

// Folder is a fresh folder for a vault.
class Folder : public ks_test::TemporaryFolder {
 public:
  std::string vault() const { return path() + "/vault.db"; }
  std::string log() const { return path() + "/vault.db-wal"; }
  std::string witness() const { return path() + "/vault.db-witness"; }
  std::string key() const { return path() + "/master.key"; }
  VaultOptions options() const {
    return {.path = vault(), .master_key_file = key(), .witness = {}, .accept_loss = false, .limits = {}};
  }
  std::unique_ptr<Vault> open() const { return open_vault(options()); }
};

// crash copies a vault to where there is none, as it would be left by a crash at this instant.
void crash(const Folder &folder, const Folder &copy);

std::vector<uint8_t> bytes_of(std::string_view text);
EntryName secret_name(std::string name, uint16_t vdc_id = 7);

// example_row gives the entry that the pages on formats show: all of its parts are there.
EntryRow example_row(uint64_t id, uint64_t version);

std::string secret_in(const Store &store, const EntryName &name);    // "(none)" for no entry
std::string metadata_in(const Store &store, const EntryName &name);  // "(none)" for no entry
std::vector<std::string> names_in(const Store &store);               // in the order of positions

KsResult put(Store &store, const std::string &name, std::string_view secret, std::string_view metadata = "",
             uid_t owner = 1000);

// refusal_of gives the text that `action` throws, or "(nothing)".
std::string refusal_of(const std::function<void()> &action);

std::string read_file(const std::string &path);
void write_file(const std::string &path, std::string_view content);

// run_sql changes a vault's file behind its back.
void run_sql(const std::string &path, const std::string &sql);

// Disk stands between SQLite and the disk for as long as it lives, for all files opened meanwhile.
class Disk {
 public:
  Disk();
  ~Disk();

  // Writes or syncs fail with that errno from now on; 0 mends them.
  void fail_writes(int error);
  void fail_later_writes(int count, int error);  // all but the next `count`
  void fail_syncs(int error);
  void fail_later_syncs(int error);  // but not one that is held
  void skip_syncs();                 // for tests of many commits that pull no plug
  void hold_syncs();                 // syncs wait until let_syncs_go
  void let_syncs_go();
  void let_one_sync_go();  // the one that is held
  void wait_for_held_sync();

  // after_changes has `action` done after each write, cut and sync from now on.
  void after_changes(std::function<void()> action);

  // limit_room makes writes that lengthen a file beyond `bytes` find the disk full.
  void limit_room(int64_t bytes);
};

}  // namespace ksd::vault

#endif
