// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// What was acknowledged and isn't there any more: the vault says so and doesn't open, unless the loss is accepted.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <future>

#include "vault_files/vault_files.h"

namespace ksd::vault {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

constexpr int kStores = 8;
constexpr size_t kFrame = 24 + 2048;

std::string name_of(int number) {
  return "n" + std::to_string(number);
}

class LostLog : public testing::Test {
 protected:
  // A service that stored and was killed: vault, log and witness are as it left them.
  LostLog() {
    disk.skip_syncs();
    kill_a_service([](Vault &vault) {
      for (int i = 0; i < kStores; ++i) put(vault, name_of(i), "secret");
    });
  }

  void kill_a_service(const std::function<void(Vault &)> &work) const {
    const pid_t child = fork();
    if (child == 0) {
      const auto vault = folder.open();
      work(*vault);
      _exit(0);
    }
    int status = -1;
    waitpid(child, &status, 0);
    ASSERT_EQ(status, 0);
  }

  std::string refusal() const {
    return refusal_of([this] { folder.open(); });
  }

  void refuses(const std::string &file, const std::string &why) const {
    const std::string vault = read_file(folder.vault()), log = read_file(folder.log());
    for (int start = 1; start <= 2; ++start) {
      SCOPED_TRACE("start " + std::to_string(start));
      const std::string said = refusal();
      EXPECT_THAT(said, AllOf(StartsWith(file + ": "), HasSubstr(why), HasSubstr("--accept-loss")));
    }
    EXPECT_EQ(read_file(folder.vault()), vault);
    EXPECT_EQ(read_file(folder.log()), log);
  }

  void flip(const std::string &file, size_t at) const {
    std::string bytes = read_file(file);
    bytes.at(at) = static_cast<char>(bytes.at(at) ^ 1);
    write_file(file, bytes);
  }

  std::unique_ptr<Vault> open_accepting() const {
    VaultOptions options = folder.options();
    options.accept_loss = true;
    return open_vault(options);
  }

  Disk disk;
  Folder folder;
};

// A witness in a second folder, as on another volume, outlasts whatever becomes of the vault's own.
class WitnessElsewhere : public LostLog {
 protected:
  WitnessElsewhere() {
    folder.open();  // closes it in order
    std::filesystem::remove(folder.witness());
  }

  std::string elsewhere() const { return other.path() + "/witness"; }
  std::unique_ptr<Vault> open_with(const std::string &witness) const {
    VaultOptions options = folder.options();
    options.witness = witness;
    return open_vault(options);
  }
  std::string refusal_with(const std::string &witness) const {
    return refusal_of([&] { open_with(witness); });
  }

  Folder other;
};

using LockedVault = LostLog;
using OthersHands = LostLog;

TEST_F(LostLog, LosesNothingToAKillAlone) {
  EXPECT_EQ(folder.open()->count(), static_cast<size_t>(kStores));
}

TEST_F(LostLog, RefusesToOpenWithoutItsLog) {
  std::filesystem::remove(folder.log());
  refuses(folder.log(), "it is missing or empty, and the vault was in use");
}

TEST_F(LostLog, RefusesACopyWithoutLogAndWitness) {
  std::filesystem::remove(folder.log());
  std::filesystem::remove(folder.witness());
  refuses(folder.log(), "it is missing or empty, and the vault was in use");
}

TEST_F(LostLog, RefusesACopyWithoutItsWitness) {
  std::filesystem::remove(folder.witness());
  refuses(folder.witness(), "the vault's witness is missing, and the vault was in use");
}

TEST_F(LostLog, RefusesALogCutAnywhere) {
  const std::string whole = read_file(folder.log());
  for (size_t size = 0; size < whole.size(); size += 1111) {
    SCOPED_TRACE(size);
    write_file(folder.log(), whole.substr(0, size));
    EXPECT_THAT(refusal(), HasSubstr("--accept-loss"));
  }
  write_file(folder.log(), whole);
  EXPECT_EQ(folder.open()->count(), static_cast<size_t>(kStores));
}

TEST_F(LostLog, RefusesALogWithAFlippedBitAnywhere) {
  const std::string whole = read_file(folder.log());
  for (size_t at = 0; at < whole.size(); at += 509) {
    SCOPED_TRACE(at);
    write_file(folder.log(), whole);
    flip(folder.log(), at);
    EXPECT_THAT(refusal(), HasSubstr("--accept-loss"));
  }
}

// After a power failure the witness may be behind. The log alone shows then that there was more.
TEST_F(LostLog, RefusesADamagedLogAlsoWhenItsWitnessIsBehind) {
  const std::string old_witness = read_file(folder.witness()), old_log = read_file(folder.log());
  kill_a_service([](Vault &vault) {
    for (int i = 0; i < kStores; ++i) put(vault, name_of(i), "changed");
  });
  write_file(folder.witness(), old_witness);
  EXPECT_EQ(secret_in(*folder.open(), secret_name(name_of(kStores - 1))), "changed") << "behind is no loss";

  kill_a_service([](Vault &vault) {
    for (int i = 0; i < kStores; ++i) put(vault, name_of(i), "again");
  });
  write_file(folder.witness(), old_witness);
  flip(folder.log(), 32 + 3 * kFrame + 100);
  refuses(folder.log(), "it is damaged at byte " + std::to_string(32 + 3 * kFrame));
}

// A failed change leaves frames behind the last good one, and they are no loss.
TEST_F(LostLog, OpensWithLeftoversOfChangesThatFailed) {
  kill_a_service([this](Vault &vault) {
    for (int i = 0; i < 4; ++i) {
      disk.fail_later_writes(1 + i, ENOSPC);
      if (put(vault, "large", "x", std::string(400000, 'x')) != KS_STORE_FULL) _exit(1);
      disk.fail_writes(0);
      if (put(vault, "small", std::to_string(i)) != KS_SUCCESS) _exit(2);
    }
  });
  EXPECT_EQ(secret_in(*folder.open(), secret_name("small")), "3");
}

TEST_F(LostLog, NoticesAnOlderVaultUnderANewerWitness) {
  folder.open();
  std::filesystem::copy_file(folder.vault(), folder.path() + "/old.db");
  folder.open()->remove(secret_name(name_of(1)));
  std::filesystem::rename(folder.path() + "/old.db", folder.vault());
  refuses(folder.vault(), "it ends with change 8, but its witness " + folder.witness() + " tells of change 9");
}

TEST_F(LostLog, NoticesATornOrDamagedSlotOfTheWitnessAndUsesTheOther) {
  flip(folder.witness(), 0);
  flip(folder.witness(), 512);
  refuses(folder.witness(), "isn't of this vault or is damaged");
  flip(folder.witness(), 0);
  EXPECT_EQ(folder.open()->count(), static_cast<size_t>(kStores));
}

TEST_F(LostLog, MakesAWitnessAnewForAVaultThatWasClosedInOrder) {
  folder.open();
  for (const char *content : {"", "cut", "gone"}) {
    write_file(folder.witness(), content);
    if (content == std::string("gone")) std::filesystem::remove(folder.witness());
    EXPECT_EQ(folder.open()->count(), static_cast<size_t>(kStores));
    EXPECT_EQ(read_file(folder.witness()).size(), 1024u);
  }
  struct stat info {};
  ASSERT_EQ(stat(folder.witness().c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0600u);
}

TEST_F(LostLog, MakesNoEmptyVaultWhereALostOneHadAWitness) {
  folder.open();
  std::filesystem::remove(folder.vault());
  EXPECT_THAT(refusal(), HasSubstr("the vault is gone, but its witness " + folder.witness() + " is there"));
  EXPECT_FALSE(std::filesystem::exists(folder.vault()));
}

TEST_F(LostLog, IsAcceptedAfterACopyOfAllFiles) {
  const std::string whole = read_file(folder.log()), witness = read_file(folder.witness());
  const std::string vault = read_file(folder.vault());
  flip(folder.log(), 32 + 5 * kFrame + 100);
  const std::string damaged = read_file(folder.log());
  {
    const auto opened = open_accepting();
    EXPECT_GT(opened->count(), 0u);
    EXPECT_LT(opened->count(), static_cast<size_t>(kStores));
    EXPECT_EQ(put(*opened, "later", "x"), KS_SUCCESS);
  }
  const std::string copies = folder.vault() + "-before-loss-1/";
  EXPECT_EQ(std::filesystem::status(copies).permissions(), std::filesystem::perms::owner_all);
  EXPECT_EQ(read_file(copies + "vault.db"), vault);
  EXPECT_EQ(read_file(copies + "vault.db-wal"), damaged);
  EXPECT_EQ(read_file(copies + "vault.db-witness"), witness);
  EXPECT_FALSE(std::filesystem::exists(folder.vault() + "-before-loss-2")) << "one copy, though log and witness tell";
  EXPECT_TRUE(folder.open()->exists(secret_name("later"))) << "without asking again";
}

TEST_F(LostLog, IsNotLookedForAgainInWhatWasAccepted) {
  flip(folder.log(), 32 + 5 * kFrame + 100);
  const pid_t child = fork();
  if (child == 0) {
    const auto opened = open_accepting();
    _exit(put(*opened, "later", "x") != KS_SUCCESS);
  }
  int status = -1;
  waitpid(child, &status, 0);
  ASSERT_EQ(status, 0);
  EXPECT_TRUE(folder.open()->exists(secret_name("later"))) << "also after a kill";
}

TEST_F(LostLog, IsNothingToAcceptInAWholeVault) {
  EXPECT_EQ(open_accepting()->count(), static_cast<size_t>(kStores));
  EXPECT_FALSE(std::filesystem::exists(folder.vault() + "-before-loss-1"));
}

TEST_F(WitnessElsewhere, NoticesThatTheWholeFolderOfTheVaultIsOlder) {
  open_with(elsewhere());
  const std::string before = folder.path() + "/before";
  std::filesystem::copy_file(folder.vault(), before);
  put(*open_with(elsewhere()), "later", "x");
  std::filesystem::rename(before, folder.vault());
  EXPECT_THAT(refusal_with(elsewhere()), StartsWith(folder.vault() + ": it ends with change 8, but its witness " +
                                                    elsewhere() + " tells of change 9"));
  EXPECT_EQ(open_with("")->count(), static_cast<size_t>(kStores)) << "without it nobody could know";
}

TEST_F(WitnessElsewhere, LeavesNoneBesideTheVault) {
  put(*open_with(elsewhere()), "later", "x");
  EXPECT_EQ(read_file(elsewhere()).size(), 1024u);
  EXPECT_FALSE(std::filesystem::exists(folder.witness()));
}

TEST_F(WitnessElsewhere, IsNeededAfterAKill) {
  const pid_t child = fork();
  if (child == 0) {
    const auto vault = open_with(elsewhere());
    put(*vault, "later", "x");
    _exit(0);
  }
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_THAT(refusal(), HasSubstr(folder.witness() + ": the vault's witness is missing"));
  EXPECT_TRUE(open_with(elsewhere())->exists(secret_name("later")));
}

TEST_F(WitnessElsewhere, IsRefusedWhereOthersMayWriteOrTheFolderIsMissing) {
  chmod(other.path().c_str(), 0777);
  EXPECT_THAT(refusal_with(elsewhere()), HasSubstr("run: chmod go-w " + other.path()));
  EXPECT_THAT(refusal_with(other.path() + "/unmounted/witness"),
              AllOf(StartsWith(folder.vault() + ": the vault can't be written: "), HasSubstr("/unmounted/witness")));
}

TEST_F(WitnessElsewhere, IsNeverAFileOfTheVault) {
  const std::string vault = read_file(folder.vault()), key = read_file(folder.key());
  const std::string link = other.path() + "/link";
  std::filesystem::create_hard_link(folder.vault(), link);
  for (const std::string &taken : {folder.vault(), folder.log(), folder.vault() + "-reserve", folder.key(), link,
                                   folder.path() + "//master.key"}) {
    EXPECT_THAT(refusal_with(taken), HasSubstr(": can't be the vault's witness: it is the file "));
  }
  EXPECT_EQ(read_file(folder.vault()), vault);
  EXPECT_EQ(read_file(folder.key()), key);
}

// Another user who may look into the vault's folder holds every lock on it that can be held.
TEST_F(LockedVault, OpensWhileAnotherUserLocksItsFolder) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root, to act for another user";
  const Folder other;
  chmod(other.path().c_str(), 0755);
  int held[2], done[2];
  ASSERT_EQ(pipe(held), 0);
  ASSERT_EQ(pipe(done), 0);
  const pid_t child = fork();
  if (child == 0) {
    char byte = 0;
    close(done[1]);
    const bool locked = setgid(64111) == 0 && setuid(64111) == 0 &&
                        flock(open(other.path().c_str(), O_RDONLY | O_DIRECTORY), LOCK_SH) == 0;
    if (write(held[1], "", 1) != 1 || read(done[0], &byte, 1) != 0) _exit(1);
    _exit(!locked);
  }
  char byte = 0;
  ASSERT_EQ(read(held[0], &byte, 1), 1);
  auto opening = std::async(std::launch::async, [&] { return other.open()->count(); });
  EXPECT_EQ(opening.wait_for(std::chrono::seconds(20)), std::future_status::ready);
  close(done[1]);
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(opening.get(), 0u);
  struct stat info {};
  ASSERT_EQ(stat((other.vault() + "-lock").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0600u) << "nobody else opens it, so nobody else locks it";
  for (const int fd : {held[0], held[1], done[0]}) close(fd);
}

TEST_F(LockedVault, RefusesALockThatOthersMayOpen) {
  chmod((folder.vault() + "-lock").c_str(), 0644);
  EXPECT_THAT(refusal(), StartsWith(folder.vault() + "-lock: isn't a file of user"));
}

TEST_F(OthersHands, RefusesAVaultThatOthersMayWrite) {
  chmod(folder.vault().c_str(), 0620);
  EXPECT_THAT(refusal(), HasSubstr("run: chmod go-w " + folder.vault()));
  chmod(folder.vault().c_str(), 0600);
  chmod(folder.path().c_str(), 0777);
  EXPECT_THAT(refusal(), HasSubstr("run: chmod go-w " + folder.path()));
  chmod(folder.path().c_str(), 01777);
  EXPECT_EQ(folder.open()->count(), static_cast<size_t>(kStores));
}

TEST_F(OthersHands, RefusesAMasterKeyThatOthersMayReplace) {
  VaultOptions options = folder.options();
  const std::string keys = folder.path() + "/keys";
  std::filesystem::create_directory(keys);
  options.master_key_file = keys + "/master.key";
  std::filesystem::rename(folder.key(), options.master_key_file);
  chmod(keys.c_str(), 0777);
  EXPECT_THAT(refusal_of([&] { open_vault(options); }), HasSubstr("run: chmod go-w " + keys));
  chmod(keys.c_str(), 0755);
  EXPECT_EQ(open_vault(options)->count(), static_cast<size_t>(kStores));
}

}  // namespace
}  // namespace ksd::vault
