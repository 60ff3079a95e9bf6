// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// What becomes of a vault or key that isn't as it should be: one line with the file and what to do, and never an empty
// vault in its place.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "service/service_process.h"
#include "vault/database.h"
#include "vault/master_key.h"
#include "vault_files/vault_files.h"

namespace ksd::vault {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

class OpenVault : public testing::Test {
 protected:
  // Three entries, written back from the log into the file.
  OpenVault() {
    disk.skip_syncs();
    const auto vault = folder.open();
    for (const char *name : {"a", "b", "c"}) put(*vault, name, std::string("secret ") + name);
  }

  std::string refusal() {
    return refusal_of([this] { folder.open(); });
  }

  // refuses says that the vault is refused in one line with these words, and that the refusal changed nothing.
  void refuses(const std::string &path, const std::string &why, const std::string &what_to_do) {
    const std::string before = read_file(folder.vault());
    const std::string said = refusal();
    EXPECT_THAT(said, AllOf(StartsWith(path + ": "), HasSubstr(why), HasSubstr(what_to_do), Not(HasSubstr("\n"))));
    EXPECT_EQ(read_file(folder.vault()), before);
  }

  void refuses_as_damaged(const std::string &why) {
    refuses(folder.vault(), "damaged (" + why,
            "put a backup of vault, log and witness in its place, or move all three");
  }

  void sql(const std::string &statement) { run_sql(folder.vault(), statement); }

  Disk disk;
  Folder folder;
};

using MasterKeyFile = OpenVault;

TEST_F(OpenVault, WorksOnWhatIsLeftAsItWas) {
  EXPECT_EQ(names_in(*folder.open()).size(), 3u);
}

TEST_F(OpenVault, RefusesAnotherMasterKey) {
  std::filesystem::remove(folder.key());
  write_file(folder.key(), std::string(32, 'k'));
  chmod(folder.key().c_str(), 0600);
  refuses(folder.vault(), "belongs to another master key than the one in " + folder.key(), "give the service the key");
}

TEST_F(OpenVault, MakesAKeyWhereAStartThatWasCutShortBeganOne) {
  const Folder fresh;
  write_file(fresh.key() + ".new", "hal");
  EXPECT_EQ(put(*fresh.open(), "a", "x"), KS_SUCCESS);
  EXPECT_EQ(read_file(fresh.key()).size(), 32u);
  EXPECT_FALSE(std::filesystem::exists(fresh.key() + ".new"));
}

TEST_F(OpenVault, RefusesANewerSchema) {
  sql("PRAGMA user_version = 3");
  refuses(folder.vault(), "schema version 3", "start the newer ksd");
}

TEST_F(OpenVault, RefusesAFileThatIsEmptyOrNoVault) {
  write_file(folder.vault(), "");
  refuses_as_damaged("the file is empty");
  write_file(folder.vault(), "this is no database at all, but a text of a certain length");
  refuses_as_damaged("file is not a database");
  std::filesystem::remove(folder.vault());
  sql("CREATE TABLE others (x)");
  refuses_as_damaged("it isn't a vault of ksd");
}

TEST_F(OpenVault, RefusesAFileCutShort) {
  const std::string whole = read_file(folder.vault());
  for (const size_t size : {whole.size() - 4096, whole.size() / 2, size_t{4096}, size_t{100}}) {
    write_file(folder.vault(), whole.substr(0, size));
    refuses_as_damaged("");
  }
}

// What the line about a damaged vault says to do, done.
TEST_F(OpenVault, StartsWithABackupOrAnEmptyOneWhereADamagedOneStood) {
  const auto move_all_three = [](const Folder &from, const Folder &to) {
    for (const char *name : {"/vault.db", "/vault.db-wal", "/vault.db-witness"}) {
      if (std::filesystem::exists(from.path() + name)) std::filesystem::rename(from.path() + name, to.path() + name);
    }
  };
  const Folder backup, damaged, emptied;
  std::filesystem::copy(folder.path(), backup.path());
  put(*folder.open(), "d", "secret d");
  write_file(folder.vault(), "");
  refuses_as_damaged("the file is empty");

  move_all_three(folder, damaged);
  EXPECT_EQ(folder.open()->count(), 0u);
  move_all_three(folder, emptied);
  move_all_three(backup, folder);
  EXPECT_EQ(folder.open()->count(), 3u);
}

TEST_F(OpenVault, RefusesALogWithoutItsVault) {
  std::filesystem::remove(folder.vault());
  write_file(folder.log(), "log");
  EXPECT_THAT(refusal(), HasSubstr("the vault is gone, but its log"));
  EXPECT_FALSE(std::filesystem::exists(folder.vault()));
}

TEST_F(OpenVault, RefusesAVaultThatAnotherHolds) {
  const auto holder = folder.open();
  const pid_t child = fork();
  if (child == 0) {
    const std::string said = refusal_of([this] { folder.open(); });
    _exit(said.find("in use by another process") == std::string::npos);
  }
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
}

TEST_F(OpenVault, RefusesAFileOrFolderThatIsReadOnly) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root, which gives the files to another user";
  constexpr uid_t kService = 64111;
  chmod(folder.path().c_str(), 0755);
  chmod(folder.vault().c_str(), 0444);
  ASSERT_EQ(chown(folder.key().c_str(), kService, kService), 0);
  const auto refused_for_service = [this] {
    const pid_t child = fork();
    if (child == 0) {
      if (setgid(kService) != 0 || setuid(kService) != 0) _exit(2);
      const std::string said = refusal();
      const bool as_promised = said.find(folder.vault() + ": the vault is read-only for user 64111; make ") == 0;
      if (!as_promised) fprintf(stderr, "%s\n", said.c_str());
      _exit(!as_promised);
    }
    int status = -1;
    waitpid(child, &status, 0);
    return status == 0;
  };
  EXPECT_TRUE(refused_for_service()) << "the file";
  chmod(folder.vault().c_str(), 0600);
  ASSERT_EQ(chown(folder.vault().c_str(), kService, kService), 0);
  EXPECT_TRUE(refused_for_service()) << "the folder";
}

TEST_F(OpenVault, SaysWhyAFileCantBeOpenedWhoseModeIsntTheReason) {
  const std::string path = folder.path() + "/none/vault.db";
  EXPECT_THAT(refusal_of([&] { Database database(path, 0); }),
              StartsWith(path + ": the vault can't be used: unable to open database file"));
}

TEST_F(OpenVault, RefusesADiskThatFails) {
  disk.fail_writes(EIO);
  EXPECT_THAT(refusal(), AllOf(StartsWith(folder.vault() + ": the vault can't be "), HasSubstr("disk I/O error")));
}

TEST_F(OpenVault, ServesReadsFromAFullDiskAndRefusesChanges) {
  disk.fail_writes(ENOSPC);
  const auto vault = folder.open();
  EXPECT_EQ(secret_in(*vault, secret_name("b")), "secret b");
  EXPECT_EQ(put(*vault, "d", "x"), KS_STORE_FULL);
  EXPECT_EQ(vault->count(), 3u);
  disk.fail_writes(0);
  EXPECT_EQ(put(*vault, "d", "x"), KS_SUCCESS);
}

TEST_F(OpenVault, MakesNoHalfVaultOnAFullDisk) {
  const Folder other;
  disk.fail_writes(ENOSPC);
  EXPECT_THAT(refusal_of([&] { other.open(); }), HasSubstr("the disk of the vault is full; make room"));
  EXPECT_FALSE(std::filesystem::exists(other.vault()));
  disk.fail_writes(0);
  EXPECT_EQ(other.open()->count(), 0u);
}

TEST_F(OpenVault, RefusesRecordsThatWereSwapped) {
  sql("UPDATE entry SET id = -id; UPDATE entry SET id = 2 WHERE id = -1; UPDATE entry SET id = 1 WHERE id = -2;"
      "UPDATE entry SET id = 3 WHERE id = -3");
  refuses_as_damaged("entry 1 doesn't open");
}

// Many entries are opened by several threads.
TEST_F(OpenVault, HasThousandsOfEntriesInTheirOrder) {
  std::vector<std::string> names{"a", "b", "c"};
  {
    const auto vault = folder.open();
    const auto add = [&](const std::string &metadata) {
      names.push_back(std::to_string(names.size()));
      ASSERT_EQ(put(*vault, names.back(), "secret", metadata), KS_SUCCESS);
    };
    for (int i = 0; i < 2500; ++i) add("");
    for (int i = 0; i < 40; ++i) add(std::string(60'000, 'm'));
    for (int i = 0; i < 2500; ++i) add("");
  }
  EXPECT_EQ(names_in(*folder.open()), names);

  const std::string whole = read_file(folder.vault());
  for (const int id : {1, 2048, 2049, 2520, 4096, 5043}) {
    sql("UPDATE entry SET sealed = zeroblob(100) WHERE id = " + std::to_string(id));
    EXPECT_THAT(refusal(), HasSubstr("(entry " + std::to_string(id) + " doesn't open)"));
    write_file(folder.vault(), whole);
  }
  sql("DELETE FROM entry WHERE id = 3000");
  EXPECT_THAT(refusal(), HasSubstr("its entries aren't those of its last change"));
}

TEST_F(OpenVault, IsExaminedWhereThereCanBeNoOtherThread) {
  {
    const auto vault = folder.open();
    for (int i = 0; i < 5000; ++i) put(*vault, std::to_string(i), "secret");
  }
  const pid_t child = fork();
  if (child == 0) {
    constexpr uid_t kSomebody = 12345;  // root has no such limit
    bool is_ready = true;
    if (geteuid() == 0) {
      for (const auto &file : std::filesystem::directory_iterator(folder.path())) {
        is_ready = is_ready && chown(file.path().c_str(), kSomebody, kSomebody) == 0;
      }
      is_ready = is_ready && chown(folder.path().c_str(), kSomebody, kSomebody) == 0 &&
                 setresuid(kSomebody, kSomebody, kSomebody) == 0;
    }
    const rlimit one{1, 1};
    is_ready = is_ready && setrlimit(RLIMIT_NPROC, &one) == 0;
    uint64_t entries = 0;
    const std::string said = refusal_of([&] { entries = examine_vault(folder.options()).entries; });
    if (entries != 5003) fprintf(stderr, "%s, %llu entries\n", said.c_str(), static_cast<unsigned long long>(entries));
    _exit(is_ready && entries == 5003 ? 0 : 1);
  }
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
}

TEST_F(OpenVault, RefusesARecordUnderAnotherName) {
  sql("UPDATE entry SET sealed = (SELECT sealed FROM entry WHERE id = 1) WHERE id = 2");
  refuses_as_damaged("entry 2 doesn't open");
}

TEST_F(OpenVault, RefusesToMissItsHeader) {
  sql("DELETE FROM vault");
  refuses_as_damaged("its header is gone");
}

TEST_F(OpenVault, RefusesACopyOfARecord) {
  sql("INSERT INTO entry SELECT 9, sealed FROM entry WHERE id = 1");
  refuses_as_damaged("entry 9 doesn't open");
}

TEST_F(OpenVault, RefusesToMissARecord) {
  sql("DELETE FROM entry WHERE id = 2");
  refuses_as_damaged("its entries aren't those of its last change");
}

TEST_F(OpenVault, RefusesToMissAllRecords) {
  sql("DELETE FROM entry");
  refuses_as_damaged("its entries aren't those of its last change");
}

// An attacker with an old copy of the file puts back one record: a password that was changed since.
TEST_F(OpenVault, RefusesARecordOfAnOlderVersion) {
  std::filesystem::copy_file(folder.vault(), folder.path() + "/old.db");
  put(*folder.open(), "b", "changed b");
  sql("ATTACH '" + folder.path() +
      "/old.db' AS old;"
      "UPDATE entry SET sealed = (SELECT sealed FROM old.entry WHERE id = 2) WHERE id = 2");
  refuses_as_damaged("its entries aren't those of its last change");
}

TEST_F(OpenVault, RefusesAHeaderOfAnOlderVersion) {
  std::filesystem::copy_file(folder.vault(), folder.path() + "/old.db");
  put(*folder.open(), "b", "changed b");
  sql("ATTACH '" + folder.path() + "/old.db' AS old; UPDATE vault SET header = (SELECT header FROM old.vault)");
  refuses_as_damaged("its entries aren't those of its last change");
}

// With as many entries, each whole, and all of one moment: the digest alone tells.
TEST_F(OpenVault, RefusesAnOlderTableUnderTheNewerHeader) {
  const std::string older = folder.path() + "/older";
  std::filesystem::copy_file(folder.vault(), older);
  put(*folder.open(), "b", "another secret");
  sql("ATTACH '" + older + "' AS older; DELETE FROM entry; INSERT INTO entry SELECT * FROM older.entry");
  refuses_as_damaged("its entries aren't those of its last change");
}

TEST_F(OpenVault, RefusesRecordsOfAnotherVaultUnderTheSameKey) {
  const Folder other;
  std::filesystem::copy_file(folder.key(), other.key());
  put(*other.open(), "a", "planted");
  sql("ATTACH '" + other.vault() +
      "' AS other;"
      "UPDATE entry SET sealed = (SELECT sealed FROM other.entry WHERE id = 1) WHERE id = 1");
  refuses_as_damaged("entry 1 doesn't open");
}

// A vault either is refused or says what it said before: some bytes of a page are of no account.
TEST_F(OpenVault, NeverShowsAnythingElseWhenAByteIsFlipped) {
  const std::string whole = read_file(folder.vault());
  std::vector<std::string> expected;
  {
    const auto vault = folder.open();
    for (const std::string &name : names_in(*vault)) expected.push_back(name + secret_in(*vault, secret_name(name)));
  }
  const auto opens_unchanged = [&](size_t at, uint8_t flip) {
    std::string bytes = whole;
    bytes[at] = static_cast<char>(bytes[at] ^ flip);
    write_file(folder.vault(), bytes);
    std::filesystem::remove(folder.log());
    std::vector<std::string> found;
    if (refusal_of([&] {
          const auto vault = folder.open();
          for (const std::string &name : names_in(*vault)) found.push_back(name + secret_in(*vault, secret_name(name)));
        }) != "(nothing)") {
      return false;
    }
    EXPECT_EQ(found, expected) << "byte " << at;
    return true;
  };
  size_t refused = 0, tried = 0;
  for (size_t at = 0; at < whole.size(); ++at) {
    // Zeros are mostly room between the fields and records: one in a while will do.
    if (whole[at] == 0 && at % 211 != 0) continue;
    ++tried;
    refused += !opens_unchanged(at, 0x40);
  }
  EXPECT_GT(refused, 300u) << "of " << tried << ": three records and a header are that long";
}

TEST_F(MasterKeyFile, IsRefusedWithAnotherMode) {
  for (const mode_t mode : {0640u, 0604u, 0700u, 0200u}) {
    chmod(folder.key().c_str(), mode);
    if (access(folder.key().c_str(), R_OK) == 0) {
      refuses(folder.key(), "has mode 0", "chmod 0600 " + folder.key());
    } else {  // a mode that root alone gets past
      refuses(folder.key(), "Permission denied", "make it readable for user ");
    }
  }
  chmod(folder.key().c_str(), 0400);
  EXPECT_EQ(refusal(), "(nothing)");
}

TEST_F(MasterKeyFile, IsRefusedWithWhatToDoToAUserWhoMayNotReadIt) {
  constexpr unsigned kNobody = 65534;
  const bool is_root = geteuid() == 0;
  const unsigned user = is_root ? kNobody : geteuid();
  chmod(folder.key().c_str(), 0200);
  const std::string wanted = folder.key() + ": the master key can't be opened: Permission denied; make it readable " +
                             "for user " + std::to_string(user);
  EXPECT_EQ(ks_test::run_as(user, is_root ? kNobody : getegid(),
                            [&] {
                              const std::string said = refusal_of(
                                  [&] { read_master_key({.file = folder.key(), .passphrase = nullptr}, false); });
                              if (said != wanted) std::fprintf(stderr, "%s\n", said.c_str());
                              return said == wanted ? 0 : 1;
                            }),
            0);
}

TEST_F(MasterKeyFile, IsRefusedWhenItBelongsToSomebodyElse) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  ASSERT_EQ(chown(folder.key().c_str(), 64111, 0), 0);
  refuses(folder.key(), "belongs to user 64111", "chown " + std::to_string(geteuid()) + " ");
}

TEST_F(MasterKeyFile, IsRefusedWhenItHasAnotherSizeOrIsNoFile) {
  for (const size_t size : {0u, 31u, 33u, 64u}) {
    write_file(folder.key(), std::string(size, 'k'));
    refuses(folder.key(), "exactly 32 bytes", "put the right file there");
  }
  std::filesystem::remove(folder.key());
  std::filesystem::create_directory(folder.key());
  refuses(folder.key(), "isn't a regular file", "name the file");
}

TEST_F(MasterKeyFile, IsNeverMadeAnewForAVaultThatExists) {
  std::filesystem::remove(folder.key());
  refuses(folder.key(), "isn't there, but the vault that it opens is", "put the key back");
  EXPECT_FALSE(std::filesystem::exists(folder.key()));
}

TEST_F(MasterKeyFile, IsMadeAtFirstStartAndOnlyThen) {
  const Folder other;
  other.open();
  const std::string key = read_file(other.key());
  EXPECT_EQ(key.size(), 32u);
  EXPECT_NE(key, read_file(folder.key()));
  other.open();
  EXPECT_EQ(read_file(other.key()), key);
}

TEST_F(MasterKeyFile, ComesFromTheCredentialsWhenNoneIsNamed) {
  VaultOptions options = folder.options();
  options.master_key_file.clear();
  unsetenv("CREDENTIALS_DIRECTORY");
  EXPECT_THAT(refusal_of([&] { open_vault(options); }),
              AllOf(HasSubstr("--master-key-file"), HasSubstr("LoadCredential=")));

  setenv("CREDENTIALS_DIRECTORY", folder.path().c_str(), 1);
  EXPECT_THAT(refusal_of([&] { open_vault(options); }), HasSubstr(folder.path() + "/master-key: the credential isn't"));

  std::filesystem::copy_file(folder.key(), folder.path() + "/master-key");
  chmod((folder.path() + "/master-key").c_str(), 0440);  // as systemd leaves it
  EXPECT_EQ(open_vault(options)->count(), 3u);
  unsetenv("CREDENTIALS_DIRECTORY");
}

}  // namespace
}  // namespace ksd::vault
