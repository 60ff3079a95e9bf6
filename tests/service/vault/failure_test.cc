// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// Writes and syncs that fail: never acknowledged, nothing changed, and the service goes on.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <future>
#include <thread>

#include "log_lines.h"
#include "vault_files/vault_files.h"

namespace ksd::vault {
namespace {

constexpr std::chrono::seconds kSoon(30);

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

class FailingDisk : public testing::Test {
 protected:
  FailingDisk() { put(*vault, "a", "secret a", "meta a"); }

  // The state of a's only entry, in memory and as a start after a crash at this instant would find it.
  void expect_unchanged() {
    EXPECT_EQ(content(*vault), "a=secret a/meta a");
    const Folder crashed;
    crash(folder, crashed);
    EXPECT_EQ(content(*crashed.open()), "a=secret a/meta a");
  }

  static std::string content(const Store &store) {
    std::string all;
    for (const std::string &name : names_in(store)) {
      all += name + "=" + secret_in(store, secret_name(name)) + "/" + metadata_in(store, secret_name(name));
    }
    return all;
  }

  void expect_all_changes_to_give(KsResult code) {
    EXPECT_EQ(put(*vault, "new", "x"), code);
    EXPECT_EQ(put(*vault, "a", "x"), code);
    EXPECT_EQ(vault->set_metadata(secret_name("a"), bytes_of("x")), code);
    EXPECT_EQ(vault->rename(secret_name("a"), secret_name("x")), code);
    EXPECT_EQ(vault->remove(secret_name("a")), code);
    EXPECT_EQ(vault->remove(secret_name("none")), KS_NOT_FOUND) << "needs no disk";
  }

  void restart() {
    vault.reset();
    vault = folder.open();
  }

  Disk disk;
  Folder folder;
  std::unique_ptr<Vault> vault = folder.open();
};

TEST_F(FailingDisk, RefusesChangesWithBadCellWhileWritesFail) {
  disk.fail_writes(EIO);
  expect_all_changes_to_give(KS_FW_BAD_CELL);
  disk.fail_writes(0);
  expect_all_changes_to_give(KS_FW_BAD_CELL);
  expect_unchanged();
  restart();
  EXPECT_EQ(put(*vault, "b", "x"), KS_SUCCESS);
}

// What the kernel did with the pages of a failed sync can't be known, so a later one that succeeds proves nothing.
TEST_F(FailingDisk, AcknowledgesNothingAfterAFailedSyncUntilARestart) {
  disk.fail_syncs(EIO);
  expect_all_changes_to_give(KS_FW_BAD_CELL);
  disk.fail_syncs(0);
  expect_all_changes_to_give(KS_FW_BAD_CELL);
  EXPECT_EQ(vault->compact(), KS_FW_BAD_CELL);
  expect_unchanged();
  restart();
  EXPECT_EQ(content(*vault), "a=secret a/meta a");
  EXPECT_EQ(put(*vault, "b", "x"), KS_SUCCESS);
}

// A long log is written back into the vault when nobody waits for it.
TEST_F(FailingDisk, AcknowledgesNothingAfterAFailedSyncOfTheFileItself) {
  for (int i = 0; i < 30; ++i) ASSERT_EQ(put(*vault, "b", "x", std::string(50000, 'x')), KS_SUCCESS);
  disk.hold_syncs();
  auto change = std::async(std::launch::async, [this] { return put(*vault, "b", "x", std::string(4 << 20, 'x')); });
  disk.wait_for_held_sync();
  disk.fail_later_syncs(EIO);
  disk.let_syncs_go();
  EXPECT_EQ(change.get(), KS_SUCCESS) << "is in the log";
  EXPECT_EQ(put(*vault, "c", "x"), KS_FW_BAD_CELL);
  disk.fail_syncs(0);
  EXPECT_EQ(put(*vault, "c", "x"), KS_FW_BAD_CELL);
  restart();
  EXPECT_EQ(metadata_in(*vault, secret_name("b")).size(), size_t{4 << 20});
}

TEST_F(FailingDisk, RefusesChangesWithStoreFullWhileTheDiskIsFull) {
  disk.fail_writes(ENOSPC);
  expect_all_changes_to_give(KS_STORE_FULL);
  disk.fail_writes(0);
  expect_unchanged();
  EXPECT_EQ(put(*vault, "b", "x"), KS_SUCCESS);
}

// For SQLite that is an error like others; the vault isn't damaged, and takes changes again once there is room.
TEST_F(FailingDisk, RefusesChangesWithStoreFullWhileTheQuotaIsUsedUp) {
  disk.fail_writes(EDQUOT);
  expect_all_changes_to_give(KS_STORE_FULL);
  EXPECT_EQ(vault->condition().refusal, "disk I/O error (Disk quota exceeded)");
  disk.fail_writes(0);
  expect_unchanged();
  EXPECT_EQ(put(*vault, "b", "x"), KS_SUCCESS);
}

// It may have lost what was written before, whatever the reason.
TEST_F(FailingDisk, AcknowledgesNothingAfterASyncThatFoundNoRoom) {
  disk.fail_syncs(ENOSPC);
  expect_all_changes_to_give(KS_FW_BAD_CELL);
  disk.fail_syncs(0);
  expect_all_changes_to_give(KS_FW_BAD_CELL);
}

TEST_F(FailingDisk, GivesGenerationsOfFailedChangesToNobodyElse) {
  disk.fail_writes(ENOSPC);
  put(*vault, "b", "x");
  disk.fail_writes(0);
  put(*vault, "b", "x");
  const uint64_t second = vault->find(secret_name("b"))->generation;
  put(*vault, "c", "x");
  EXPECT_GT(vault->find(secret_name("c"))->generation, second);
}

// SQLite has memory of its own.
TEST_F(FailingDisk, RefusesAChangeThatTheDatabaseHasNoMemoryForAndGoesOn) {
  sqlite3_hard_heap_limit64(sqlite3_memory_used() + 10'000);
  EXPECT_EQ(put(*vault, "b", "x", std::string(60'000, 'm')), KS_NO_MEMORY);
  sqlite3_hard_heap_limit64(0);
  expect_unchanged();
  EXPECT_EQ(put(*vault, "b", "x", std::string(60'000, 'm')), KS_SUCCESS);
}

TEST_F(FailingDisk, KeepsNoSecretOfAChangeThatFailed) {
  const size_t before = guarded_memory_use().used_slots;
  disk.fail_writes(ENOSPC);
  EXPECT_EQ(put(*vault, "b", "secret b"), KS_STORE_FULL);
  EXPECT_EQ(guarded_memory_use().used_slots, before);
}

TEST_F(FailingDisk, FailsAlsoToCompactAndGoesOn) {
  for (int i = 0; i < 20; ++i) put(*vault, std::to_string(i), std::string(20000, 'x'));
  for (int i = 0; i < 20; ++i) vault->remove(secret_name(std::to_string(i)));
  disk.fail_writes(ENOSPC);
  EXPECT_EQ(vault->compact(), KS_STORE_FULL);
  disk.fail_writes(0);
  expect_unchanged();
  EXPECT_EQ(vault->compact(), KS_SUCCESS);
  expect_unchanged();
  put(*vault, "b", std::string(20000, 'x'));
  vault->remove(secret_name("b"));
  disk.fail_writes(EIO);
  EXPECT_EQ(vault->compact(), KS_FW_BAD_CELL);
  disk.fail_writes(0);
  expect_unchanged();
}

TEST_F(FailingDisk, SaysSoOncePerStreakWithoutNames) {
  const LogLines log;
  disk.fail_writes(EIO);
  for (int i = 0; i < 3; ++i) put(*vault, "name-of-b", "secret-of-b");
  disk.fail_writes(0);
  put(*vault, "name-of-b", "secret-of-b");

  const std::string said = log.text();
  EXPECT_THAT(said, HasSubstr(folder.vault() + ": changes are refused: disk I/O error"));
  EXPECT_THAT(said, HasSubstr("; reads go on. Look after the disk, then restart the service: until then nothing is "
                              "written\n"));
  EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 1);
  EXPECT_THAT(said, Not(HasSubstr("of-b")));
}

TEST_F(FailingDisk, SaysWhatToDoAboutAFullOneEachTimeItIsFullAnew) {
  const LogLines log;
  for (int streak = 0; streak < 2; ++streak) {
    disk.fail_writes(ENOSPC);
    for (int i = 0; i < 3; ++i) put(*vault, "b", "x");
    disk.fail_writes(0);
    ASSERT_EQ(put(*vault, "b", "x"), KS_SUCCESS);
  }

  const std::string said = log.text();
  EXPECT_THAT(said, HasSubstr("; reads go on. Make room on the disk or look after it\n"));
  EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 2) << said;
}

// A write to the witness finds the disk full while the file is this one.
class FullWitness {
 public:
  explicit FullWitness(const std::string &path) {
    for (const auto &file : std::filesystem::directory_iterator("/proc/self/fd")) {
      std::error_code gone;  // that of the folder itself
      if (std::filesystem::read_symlink(file.path(), gone) == path) file_ = std::stoi(file.path().filename());
    }
    kept_ = dup(file_);
    const int full = open("/dev/full", O_RDWR);
    dup2(full, file_);
    close(full);
  }
  ~FullWitness() {
    dup2(kept_, file_);
    close(kept_);
  }

 private:
  int file_ = -1, kept_ = -1;
};

TEST_F(FailingDisk, SaysOncePerStreakThatTheWitnessCantBeWrittenAndGoesOn) {
  const LogLines log;
  const std::string line = folder.witness() +
                           ": can't be written: No space left on device; a vault that lacks later changes wouldn't be "
                           "noticed. Look after its disk\n";
  std::string said;
  for (int streak = 0; streak < 2; ++streak) {
    {
      const FullWitness full(folder.witness());
      for (int i = 0; i < 3; ++i) EXPECT_EQ(put(*vault, "b", std::to_string(i)), KS_SUCCESS);
    }
    said += line;
    EXPECT_EQ(log.text(), said);
    EXPECT_EQ(put(*vault, "b", "x"), KS_SUCCESS);
  }
  vault.reset();
  vault = folder.open();
  EXPECT_EQ(secret_in(*vault, secret_name("b")), "x");
}

// With room for the small ones only, the large one of a group fails alone.
TEST_F(FailingDisk, FailsThoseOfAGroupAloneThatDontFit) {
  disk.hold_syncs();
  std::vector<std::future<KsResult>> answers;
  const auto later = [&](const std::string &name, size_t size) {
    return std::async(std::launch::async, [this, name, size] { return put(*vault, name, std::string(size, 'x')); });
  };
  std::future<KsResult> first = later("first", 1);
  disk.wait_for_held_sync();  // the others make one group now
  disk.limit_room(300 * 1024);
  std::future<KsResult> large = later("large", 1024 * 1024);
  std::vector<std::future<KsResult>> small;
  for (int i = 0; i < 5; ++i) small.push_back(later("small" + std::to_string(i), 1));
  while (large.wait_for(std::chrono::milliseconds(20)) == std::future_status::timeout) disk.let_syncs_go();

  EXPECT_EQ(first.get(), KS_SUCCESS);
  EXPECT_EQ(large.get(), KS_STORE_FULL);
  for (auto &answer : small) EXPECT_EQ(answer.get(), KS_SUCCESS);
  EXPECT_FALSE(vault->exists(secret_name("large")));
  EXPECT_EQ(vault->count(), 7u);
}

// Whoever found nobody writing writes alone, and isn't made to wait for those who came meanwhile.
TEST_F(FailingDisk, AnswersTheFirstChangeBeforeTheGroupThatCameMeanwhileIsOnDisk) {
  disk.hold_syncs();
  const auto later = [&](const std::string &name) {
    return std::async(std::launch::async, [this, name] { return put(*vault, name, "x"); });
  };
  std::future<KsResult> first = later("first");
  disk.wait_for_held_sync();
  std::future<KsResult> second = later("second"), third = later("third");
  disk.let_one_sync_go();
  EXPECT_EQ(first.wait_for(kSoon), std::future_status::ready);
  disk.wait_for_held_sync();
  EXPECT_FALSE(vault->exists(secret_name("second")));
  EXPECT_FALSE(vault->exists(secret_name("third")));
  disk.let_syncs_go();
  EXPECT_EQ(first.get(), KS_SUCCESS);
  EXPECT_EQ(second.get(), KS_SUCCESS);
  EXPECT_EQ(third.get(), KS_SUCCESS);
}

// No client waits for the log to be written back: the worker does it, and what comes meanwhile waits for it.
TEST_F(FailingDisk, AnswersAChangeBeforeALongLogIsWrittenBack) {
  for (int i = 0; i < 30; ++i) ASSERT_EQ(put(*vault, "b", "x", std::string(50000, 'x')), KS_SUCCESS);
  disk.hold_syncs();
  auto change = std::async(std::launch::async, [this] { return put(*vault, "b", "x", std::string(4 << 20, 'x')); });
  disk.wait_for_held_sync();
  disk.let_one_sync_go();
  EXPECT_EQ(change.wait_for(kSoon), std::future_status::ready);
  disk.wait_for_held_sync();
  auto next = std::async(std::launch::async, [this] { return put(*vault, "c", "x"); });
  disk.let_syncs_go();
  EXPECT_EQ(change.get(), KS_SUCCESS);
  EXPECT_EQ(next.get(), KS_SUCCESS);
}

// The sync of a commit hangs: readers must not, and must not see what isn't on disk.
TEST_F(FailingDisk, KeepsNoReaderWaitingForASync) {
  put(*vault, "b", "secret b");
  disk.hold_syncs();
  auto change = std::async(std::launch::async, [this] { return put(*vault, "a", "new"); });
  auto removal = std::async(std::launch::async, [this] { return vault->remove(secret_name("b")); });
  disk.wait_for_held_sync();

  EXPECT_EQ(secret_in(*vault, secret_name("a")), "secret a");
  EXPECT_THAT(names_in(*vault), ElementsAre("a", "b"));
  EXPECT_TRUE(vault->exists(secret_name("b")));
  EXPECT_EQ(vault->usage().entries, 2u);
  EXPECT_EQ(change.wait_for(std::chrono::seconds(0)), std::future_status::timeout) << "nor is it answered";

  disk.let_syncs_go();
  EXPECT_EQ(change.get(), KS_SUCCESS);
  EXPECT_EQ(removal.get(), KS_SUCCESS);
  EXPECT_THAT(names_in(*vault), ElementsAre("a"));
  EXPECT_EQ(secret_in(*vault, secret_name("a")), "new");
}

}  // namespace
}  // namespace ksd::vault
