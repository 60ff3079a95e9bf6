// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// The master key: sealed in its file, and changed while the vault is in use.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sodium.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <thread>

#include "log_lines.h"
#include "vault/database.h"
#include "vault/master_key.h"
#include "vault/record.h"
#include "vault_files/backup_files.h"

namespace ksd::vault {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;
using State = KeyChangeProgress::State;

constexpr int kEntries = 10;

class MasterKeyChange : public testing::Test {
 protected:
  // Entries of such a size that they move in several steps.
  MasterKeyChange() {
    disk.skip_syncs();
    const auto vault = folder.open();
    for (int i = 0; i < kEntries; ++i) put(*vault, name_of(i), "secret", large);
  }
  ~MasterKeyChange() override { unsetenv("CREDENTIALS_DIRECTORY"); }

  static std::string name_of(int number) { return "n" + std::to_string(number); }

  static State wait_until_it_rests(const Vault &vault) {
    while (vault.key_change().state == State::kMoving) std::this_thread::yield();
    return vault.key_change().state;
  }

  void holds_all(const Vault &vault) const {
    EXPECT_EQ(vault.count(), static_cast<size_t>(kEntries));
    for (int i = 0; i < kEntries; ++i) EXPECT_EQ(metadata_in(vault, secret_name(name_of(i))), large);
  }

  // use_credential hands the key over as systemd does.
  void use_credential(std::string_view key) const {
    const std::string path = folder.path() + "/master-key";
    std::filesystem::remove(path);
    write_file(path, key);
    setenv("CREDENTIALS_DIRECTORY", folder.path().c_str(), 1);
  }
  std::unique_ptr<Vault> open_with_credential() const {
    VaultOptions options = folder.options();
    options.master_key_file.clear();
    return open_vault(options);
  }

  const std::string large = std::string(60000, 'm');
  // Writes in which about half of them are sealed anew.
  static constexpr int kHalfOfIt = 10;
  Disk disk;
  Folder folder;
};

using VaultCheck = MasterKeyChange;
using SealedKey = MasterKeyChange;

TEST_F(MasterKeyChange, SealsEverythingAnewAndPutsTheNextKeyInPlace) {
  const std::string old_key = read_file(folder.key());
  {
    const auto vault = folder.open();
    EXPECT_EQ(vault->key_change().state, State::kNone);
    EXPECT_EQ(vault->change_key(nullptr), KS_SUCCESS);
    EXPECT_EQ(wait_until_it_rests(*vault), State::kNone);
    holds_all(*vault);
    EXPECT_EQ(put(*vault, "later", "x"), KS_SUCCESS);
    EXPECT_EQ(vault->remove(secret_name("later")), KS_SUCCESS);
  }
  EXPECT_EQ(read_file(folder.key()).size(), 32u);
  EXPECT_NE(read_file(folder.key()), old_key);
  EXPECT_FALSE(std::filesystem::exists(folder.key() + ".next"));
  holds_all(*folder.open());
  write_file(folder.key(), old_key);
  EXPECT_THAT(refusal_of([&] { folder.open(); }), HasSubstr("belongs to another master key"));
}

TEST_F(MasterKeyChange, GoesOnBesideChangesAndReads) {
  const auto vault = folder.open();
  for (int round = 0; round < 3; ++round) {
    ASSERT_EQ(vault->change_key(nullptr), KS_SUCCESS);
    EXPECT_EQ(vault->change_key(nullptr), KS_SUCCESS) << "which is under way already, or the next one";
    for (int i = 0; vault->key_change().state == State::kMoving || i < 10; ++i) {
      ASSERT_EQ(put(*vault, name_of(i % kEntries), "secret", large), KS_SUCCESS);
      ASSERT_EQ(put(*vault, "new", std::to_string(i)), KS_SUCCESS);
      ASSERT_EQ(secret_in(*vault, secret_name("new")), std::to_string(i));
      ASSERT_EQ(vault->remove(secret_name("new")), KS_SUCCESS);
    }
    EXPECT_EQ(wait_until_it_rests(*vault), State::kNone);
  }
  holds_all(*vault);
}

TEST_F(MasterKeyChange, ChangesAnEmptyVaultAndOneOfTheFirstSchema) {
  const Folder empty;
  {
    const auto vault = empty.open();
    ASSERT_EQ(vault->change_key(nullptr), KS_SUCCESS);
    EXPECT_EQ(wait_until_it_rests(*vault), State::kNone);
  }
  EXPECT_EQ(empty.open()->count(), 0u);

  run_sql(folder.vault(), "DROP TABLE key_change; PRAGMA user_version = 1");
  EXPECT_EQ(examine_vault(folder.options()).schema_version, 1);
  {
    const auto vault = folder.open();
    holds_all(*vault);
    ASSERT_EQ(vault->change_key(nullptr), KS_SUCCESS);
    EXPECT_EQ(wait_until_it_rests(*vault), State::kNone);
  }
  EXPECT_EQ(examine_vault(folder.options()).schema_version, 2);
  holds_all(*folder.open());
}

TEST_F(MasterKeyChange, StopsWhenTheDiskIsFullAndGoesOnWhenAsked) {
  const auto vault = folder.open();
  ASSERT_EQ(put(*vault, "first", "x"), KS_SUCCESS);  // the log is there
  disk.fail_later_writes(kHalfOfIt, ENOSPC);
  ASSERT_EQ(vault->change_key(nullptr), KS_SUCCESS);
  EXPECT_EQ(wait_until_it_rests(*vault), State::kStopped);
  EXPECT_GT(vault->key_change().entries, vault->key_change().moved);
  EXPECT_GT(vault->key_change().moved, 0u);
  disk.fail_writes(0);
  EXPECT_EQ(put(*vault, "second", "x"), KS_SUCCESS) << "changes go on";
  EXPECT_EQ(vault->remove(secret_name("first")), KS_SUCCESS);
  EXPECT_EQ(vault->remove(secret_name("second")), KS_SUCCESS);
  ASSERT_EQ(vault->change_key(nullptr), KS_SUCCESS);
  EXPECT_EQ(wait_until_it_rests(*vault), State::kNone);
  holds_all(*vault);
}

TEST_F(MasterKeyChange, GoesOnByItselfAfterARestart) {
  const LogLines log;
  {
    const auto vault = folder.open();
    ASSERT_EQ(put(*vault, name_of(0), "secret", large), KS_SUCCESS);
    disk.fail_later_writes(kHalfOfIt, ENOSPC);
    ASSERT_EQ(vault->change_key(nullptr), KS_SUCCESS);
    EXPECT_EQ(wait_until_it_rests(*vault), State::kStopped);
    disk.fail_writes(0);
  }
  const std::string old_key = read_file(folder.key());
  {
    const auto vault = folder.open();
    EXPECT_EQ(wait_until_it_rests(*vault), State::kNone);
    EXPECT_NE(read_file(folder.key()), old_key);
    holds_all(*vault);
  }
  const std::string said = log.text();
  EXPECT_THAT(said, HasSubstr(": the change of the master key begins\n"));
  EXPECT_THAT(said, HasSubstr(": the change of the master key goes on\n"));
}

TEST_F(MasterKeyChange, IsNotThereAfterACrashWhenItWasRefused) {
  const auto vault = folder.open();
  ASSERT_EQ(put(*vault, "first", "x"), KS_SUCCESS);  // the log is there
  disk.fail_syncs(EIO);
  EXPECT_EQ(vault->change_key(nullptr), KS_FW_BAD_CELL);
  const Folder crashed;
  crash(folder, crashed);
  disk.fail_syncs(0);
  EXPECT_FALSE(examine_vault(crashed.options()).key_changes);
  EXPECT_EQ(crashed.open()->key_change().state, State::kNone);
}

TEST_F(MasterKeyChange, DoesNotBeginWhereTheNextKeyCantBePut) {
  std::filesystem::create_directories(folder.key() + ".next/x");
  const std::string key = read_file(folder.key());
  {
    const auto vault = folder.open();
    EXPECT_EQ(vault->change_key(nullptr), KS_FW_BAD_CELL);
    EXPECT_EQ(vault->key_change().state, State::kNone);
    EXPECT_EQ(put(*vault, name_of(0), "secret", large), KS_SUCCESS) << "changes go on";
  }
  EXPECT_EQ(read_file(folder.key()), key);
  holds_all(*folder.open());
}

TEST_F(MasterKeyChange, WaitsForTheNextCredential) {
  const std::string next(32, 'n');
  const auto given = SecretBytes::copy_of(bytes_of(next));
  use_credential(read_file(folder.key()));
  {
    const auto vault = open_with_credential();
    EXPECT_EQ(vault->change_key(nullptr), KS_INVALID_ARGS) << "it can't be put where it came from";
    ASSERT_EQ(vault->change_key(given), KS_SUCCESS);
    EXPECT_EQ(wait_until_it_rests(*vault), State::kWaiting);
    EXPECT_EQ(vault->change_key(SecretBytes::copy_of(bytes_of(std::string(32, 'o')))), KS_INVALID_ARGS);
    EXPECT_EQ(put(*vault, name_of(0), "secret", large), KS_SUCCESS);
  }
  {
    const auto vault = open_with_credential();
    EXPECT_EQ(wait_until_it_rests(*vault), State::kWaiting) << "the present key opens it still";
    holds_all(*vault);
  }
  use_credential(next);
  {
    const auto vault = open_with_credential();
    EXPECT_EQ(wait_until_it_rests(*vault), State::kNone);
    holds_all(*vault);
  }
  holds_all(*open_with_credential());
  const Folder with_file;
  EXPECT_EQ(with_file.open()->change_key(given), KS_INVALID_ARGS) << "a key in a file is drawn";
}

TEST_F(MasterKeyChange, OpensWithTheNextKeyOnlyWhenAllHasMoved) {
  const std::string present = read_file(folder.key()), next(32, 'n');
  use_credential(present);
  {
    const auto vault = open_with_credential();
    ASSERT_EQ(put(*vault, name_of(0), "secret", large), KS_SUCCESS);
    disk.fail_later_writes(kHalfOfIt, ENOSPC);
    ASSERT_EQ(vault->change_key(SecretBytes::copy_of(bytes_of(next))), KS_SUCCESS);
    EXPECT_EQ(wait_until_it_rests(*vault), State::kStopped);
    disk.fail_writes(0);
  }
  use_credential(next);
  EXPECT_THAT(refusal_of([&] { open_with_credential(); }), HasSubstr("start once more with the key that it had"));
  use_credential(present);
  holds_all(*open_with_credential());
}

TEST_F(VaultCheck, LooksAtEverythingAndChangesNothing) {
  const std::string vault = read_file(folder.vault()), witness = read_file(folder.witness());
  const Examined found = examine_vault(folder.options());
  EXPECT_EQ(found.entries, 10u);
  EXPECT_EQ(found.version, 10u);
  EXPECT_EQ(found.schema_version, 2);
  EXPECT_FALSE(found.in_use);
  EXPECT_FALSE(found.key_changes);
  EXPECT_EQ(read_file(folder.vault()), vault);
  EXPECT_EQ(read_file(folder.witness()), witness);
  EXPECT_FALSE(std::filesystem::exists(folder.log()));
}

TEST_F(VaultCheck, RefusesWhereThereIsNoVaultAndMakesNone) {
  const Folder empty;
  EXPECT_EQ(refusal_of([&] { examine_vault(empty.options()); }),
            empty.vault() + ": there is no vault; name the one that is meant");
  EXPECT_FALSE(std::filesystem::exists(empty.vault()));
  EXPECT_FALSE(std::filesystem::exists(empty.key()));
}

TEST_F(VaultCheck, FindsEachEntryThatIsDamagedGoneOrAnothers) {
  const std::string whole = read_file(folder.vault());
  const auto after = [&](const std::string &sql) {
    write_file(folder.vault(), whole);
    run_sql(folder.vault(), sql);
    return refusal_of([&] { examine_vault(folder.options()); });
  };
  for (int i = 1; i <= kEntries; ++i) {
    const std::string id = std::to_string(i);
    EXPECT_THAT(after("DELETE FROM entry WHERE id = " + id), HasSubstr("aren't those of its last change"));
    EXPECT_THAT(after("UPDATE entry SET sealed = zeroblob(100) WHERE id = " + id),
                HasSubstr("entry " + id + " doesn't open"));
    EXPECT_THAT(after("UPDATE entry SET id = id + 100 WHERE id = " + id), HasSubstr("doesn't open"));
  }
}

// What only a faulty service would write: two entries of one name, under a header that counts both.
TEST_F(VaultCheck, FindsTwoEntriesOfOneName) {
  const Folder own;
  const std::string key(32, 'k');
  write_file(own.key(), key);
  chmod(own.key().c_str(), 0600);
  { put(*own.open(), "a", "x"); }
  const auto master = SecretBytes::copy_of(bytes_of(key));
  std::string id;
  {
    Database database(own.vault());
    const VaultIdentity identity = database.identity();
    const Sealer sealer(*master, identity.vault_id);
    EntryRow row;
    row.id = 2;
    row.version = 2;
    row.name = secret_name("a");
    row.secret = SecretBytes::copy_of(bytes_of("y"));
    row.metadata = std::make_shared<const std::vector<uint8_t>>();
    Header header{.last_id = 2, .last_version = 2, .entry_count = 2};
    header.add(sealer.mark(1, 1));
    header.add(sealer.mark(2, 2));
    ASSERT_FALSE(database.transaction([&] {
      return database.put_entry(2, sealer.seal(RecordKind::kEntry, 2, encode_entry(row)->bytes())) &&
             database.put_header(sealer.seal(RecordKind::kHeader, 0, encode_header(header)));
    }));
    ASSERT_FALSE(database.put_log_away());
  }
  EXPECT_THAT(refusal_of([&] { examine_vault(own.options()); }), HasSubstr("entry 2 has another's name"));
}

TEST_F(VaultCheck, ComesBeforeAMigration) {
  run_sql(folder.vault(), "DROP TABLE key_change; PRAGMA user_version = 1");
  const std::string old = read_file(folder.vault());
  EXPECT_EQ(migrate_vault(folder.options()), 1);
  EXPECT_EQ(migrate_vault(folder.options()), 2);
  holds_all(*folder.open());
  write_file(folder.vault(), old);
  run_sql(folder.vault(), "DELETE FROM entry WHERE id = 3");
  const std::string damaged = read_file(folder.vault());
  EXPECT_THAT(refusal_of([&] { migrate_vault(folder.options()); }), HasSubstr("the vault is damaged"));
  EXPECT_EQ(read_file(folder.vault()), damaged);
}

TEST_F(SealedKey, OpensWithItsPassphraseAlone) {
  const auto key = SecretBytes::copy_of(bytes_of(std::string(32, 'k')));
  const std::string text = seal_key(*key, make_key_seal(bytes_of(kPassphrase), kLeastCost));
  const auto opened = open_key(text, bytes_of(kPassphrase));
  ASSERT_TRUE(opened);
  EXPECT_EQ(std::string(opened->key->bytes().begin(), opened->key->bytes().end()), std::string(32, 'k'));
  EXPECT_FALSE(open_key(text, bytes_of("another")));
  EXPECT_FALSE(open_key(text, bytes_of("")));
  EXPECT_NE(text, seal_key(*key, make_key_seal(bytes_of(kPassphrase), kLeastCost)));
  const std::string printed = "\n" + text;
  EXPECT_FALSE(open_key(printed, bytes_of(kPassphrase)));
  std::string with_returns;
  for (const char c : text) with_returns += c == '\n' ? std::string("\r\n") : std::string(1, c);
  EXPECT_TRUE(open_key(with_returns, bytes_of(kPassphrase))) << "as a mail program leaves it";
}

TEST_F(SealedKey, DoesNotOpenCutOrWithAnyCharacterChanged) {
  const auto key = SecretBytes::copy_of(bytes_of(std::string(32, 'k')));
  const std::string text = seal_key(*key, make_key_seal(bytes_of(kPassphrase), kLeastCost));
  const size_t begin = text.find('\n') + 1, end = text.rfind("-----END");
  for (size_t at = begin; at < end; ++at) {
    if (text[at] == '\n') continue;
    SCOPED_TRACE(at);
    std::string damaged = text;
    damaged[at] = damaged[at] == 'A' ? 'B' : 'A';
    EXPECT_FALSE(open_key(damaged, bytes_of(kPassphrase)));
  }
  for (size_t size = 0; size + 1 < text.size(); ++size)
    EXPECT_FALSE(open_key(text.substr(0, size), bytes_of(kPassphrase)));
}

TEST_F(SealedKey, IsMadeReadAndChangedInAVaultsKeyFile) {
  const Folder own;
  VaultOptions options = own.options();
  options.passphrase = SecretBytes::copy_of(bytes_of(kPassphrase));
  options.passphrase_cost = kLeastCost;
  { put(*open_vault(options), "a", "x"); }
  const std::string before = read_file(own.key());
  EXPECT_THAT(before, StartsWith("-----BEGIN KS MASTER KEY-----\n"));
  {
    const auto vault = open_vault(options);
    ASSERT_EQ(vault->change_key(nullptr), KS_SUCCESS);
    EXPECT_EQ(wait_until_it_rests(*vault), State::kNone);
  }
  EXPECT_THAT(read_file(own.key()), StartsWith("-----BEGIN KS MASTER KEY-----\n"));
  EXPECT_NE(read_file(own.key()), before);
  EXPECT_THAT(names_in(*open_vault(options)), ElementsAre("a"));
  EXPECT_THAT(refusal_of([&] { own.open(); }), HasSubstr("is sealed under a passphrase; give it with --passphrase-fd"));
  options.passphrase = SecretBytes::copy_of(bytes_of("another"));
  EXPECT_THAT(refusal_of([&] { open_vault(options); }), HasSubstr("the master key doesn't open: the passphrase is"));
  VaultOptions plain = folder.options();
  plain.passphrase = options.passphrase;
  EXPECT_THAT(refusal_of([&] { open_vault(plain); }), HasSubstr("isn't sealed; start without a passphrase"));
}

}  // namespace
}  // namespace ksd::vault
