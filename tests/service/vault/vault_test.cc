// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "vault/vault.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <thread>

#include "log_lines.h"
#include "vault_files/vault_files.h"

namespace ksd::vault {
namespace {

using testing::ElementsAre;

class VaultTest : public testing::Test {
 protected:
  void reopen() {
    vault.reset();
    vault = folder.open();
  }

  KsResult put_with_alias(const std::string &name, const std::string &alias, const std::string &secret) {
    return vault->put(secret_name(name), secret_name(alias), bytes_of(secret), {}, 1000);
  }

  Disk disk;
  Folder folder;
  std::unique_ptr<Vault> vault = folder.open();
};

using VaultReads = VaultTest;
using VaultPut = VaultTest;
using VaultMetadata = VaultTest;
using VaultRemove = VaultTest;
using VaultRename = VaultTest;
using VaultLimits = VaultTest;
using VaultCompact = VaultTest;

TEST_F(VaultReads, FindNothingInAnEmptyVault) {
  EXPECT_EQ(vault->count(), 0u);
  EXPECT_FALSE(vault->at(0));
  EXPECT_FALSE(vault->at(65535));
  EXPECT_FALSE(vault->find(secret_name("a")));
  EXPECT_FALSE(vault->exists(secret_name("a")));
}

TEST_F(VaultPut, MakesEntriesInTheOrderOfTheirArrival) {
  EXPECT_EQ(put(*vault, "b", "secret b", "meta b"), KS_SUCCESS);
  EXPECT_EQ(put(*vault, "a", "secret a"), KS_SUCCESS);

  EXPECT_THAT(names_in(*vault), ElementsAre("b", "a"));
  EXPECT_EQ(secret_in(*vault, secret_name("b")), "secret b");
  EXPECT_EQ(metadata_in(*vault, secret_name("b")), "meta b");
  EXPECT_EQ(metadata_in(*vault, secret_name("a")), "");
  EXPECT_TRUE(vault->exists(secret_name("a")));
}

TEST_F(VaultPut, ReplacesSecretAndMetadataInPlace) {
  put(*vault, "a", "old", "old meta");
  put(*vault, "b", "b");
  EXPECT_EQ(put(*vault, "a", "new"), KS_SUCCESS);

  EXPECT_THAT(names_in(*vault), ElementsAre("a", "b"));
  EXPECT_EQ(secret_in(*vault, secret_name("a")), "new");
  EXPECT_EQ(metadata_in(*vault, secret_name("a")), "");
}

TEST_F(VaultPut, KeepsSecretsPacsAndVdcsApart) {
  const EntryName pac{KS_NAME_TAG_PAC, 7, std::string("a\0b", 3)};
  put(*vault, "a", "secret");
  EXPECT_EQ(vault->put(secret_name("a", 8), std::nullopt, bytes_of("other VDC"), {}, 1000), KS_SUCCESS);
  EXPECT_EQ(vault->put(pac, std::nullopt, bytes_of("PAC"), {}, 1000), KS_SUCCESS);

  EXPECT_EQ(vault->count(), 3u);
  EXPECT_EQ(secret_in(*vault, secret_name("a")), "secret");
  EXPECT_EQ(secret_in(*vault, secret_name("a", 8)), "other VDC");
  EXPECT_EQ(secret_in(*vault, pac), "PAC");
  EXPECT_FALSE(vault->exists({KS_NAME_TAG_PAC, 7, "a"}));
}

TEST_F(VaultPut, LinksAnAliasToTheEntry) {
  EXPECT_EQ(put_with_alias("a", "b", "secret"), KS_SUCCESS);

  EXPECT_EQ(vault->count(), 1u);
  EXPECT_THAT(names_in(*vault), ElementsAre("a"));
  EXPECT_EQ(secret_in(*vault, secret_name("b")), "secret");
}

TEST_F(VaultPut, UnderAnAliasReplacesTheEntryItStandsFor) {
  put_with_alias("a", "b", "old");
  EXPECT_EQ(put(*vault, "b", "new"), KS_SUCCESS);

  EXPECT_THAT(names_in(*vault), ElementsAre("a"));
  EXPECT_EQ(secret_in(*vault, secret_name("a")), "new");
  EXPECT_EQ(secret_in(*vault, secret_name("b")), "new");
}

TEST_F(VaultPut, KeepsTheAliasUnlessItGetsAnother) {
  put_with_alias("a", "b", "1");
  put(*vault, "a", "2");
  EXPECT_EQ(secret_in(*vault, secret_name("b")), "2");

  EXPECT_EQ(put_with_alias("a", "c", "3"), KS_SUCCESS);
  EXPECT_EQ(secret_in(*vault, secret_name("c")), "3");
  EXPECT_FALSE(vault->exists(secret_name("b"))) << "the old alias is free again";
  EXPECT_EQ(put(*vault, "b", "own"), KS_SUCCESS);
  EXPECT_EQ(vault->count(), 2u);
}

TEST_F(VaultPut, TakesItsOwnNamesAsAliasForNoChange) {
  EXPECT_EQ(put_with_alias("a", "a", "1"), KS_SUCCESS);
  EXPECT_EQ(put_with_alias("a", "b", "2"), KS_SUCCESS);
  EXPECT_EQ(put_with_alias("a", "a", "3"), KS_SUCCESS);
  EXPECT_EQ(put_with_alias("b", "a", "4"), KS_SUCCESS);

  EXPECT_EQ(secret_in(*vault, secret_name("a")), "4");
  EXPECT_EQ(secret_in(*vault, secret_name("b")), "4");
  EXPECT_EQ(vault->remove(secret_name("a")), KS_SUCCESS);
  EXPECT_FALSE(vault->exists(secret_name("b")));
}

TEST_F(VaultPut, RefusesAnAliasThatIsTakenAndChangesNothing) {
  put(*vault, "a", "a");
  put_with_alias("b", "c", "b");

  EXPECT_EQ(put_with_alias("new", "a", "x"), KS_INVALID_ARGS);
  EXPECT_EQ(put_with_alias("new", "c", "x"), KS_INVALID_ARGS);
  EXPECT_EQ(put_with_alias("a", "b", "x"), KS_INVALID_ARGS);
  EXPECT_THAT(names_in(*vault), ElementsAre("a", "b"));
  EXPECT_EQ(secret_in(*vault, secret_name("a")), "a");
}

TEST_F(VaultPut, GivesEachSecretAGenerationOfItsOwnAndReportsTheOldOne) {
  std::vector<uint64_t> retired;
  vault->on_retired([&](uint64_t generation) { retired.push_back(generation); });
  put(*vault, "a", "1");
  const uint64_t first = vault->find(secret_name("a"))->generation;
  vault->set_metadata(secret_name("a"), bytes_of("meta"));
  vault->rename(secret_name("a"), secret_name("b"));
  EXPECT_EQ(vault->find(secret_name("b"))->generation, first) << "the secret is the same";
  EXPECT_TRUE(retired.empty());

  put(*vault, "b", "1");
  const uint64_t second = vault->find(secret_name("b"))->generation;
  EXPECT_NE(second, first) << "the same bytes are another secret all the same";
  EXPECT_THAT(retired, ElementsAre(first));
  vault->remove(secret_name("b"));
  EXPECT_THAT(retired, ElementsAre(first, second));
  put(*vault, "b", "1");
  EXPECT_GT(vault->find(secret_name("b"))->generation, second);
}

TEST_F(VaultReads, FindTheSameForAnEpochWhichEveryChangeEnds) {
  const auto ends_epoch = [this](const auto &change) {
    const uint64_t before = vault->epoch();
    EXPECT_EQ(change(), KS_SUCCESS);
    return vault->epoch() != before;
  };
  EXPECT_TRUE(ends_epoch([this] { return vault->put(secret_name("a"), std::nullopt, bytes_of("1"), {}, 0); }));
  EXPECT_TRUE(ends_epoch([this] { return vault->set_metadata(secret_name("a"), bytes_of("meta")); }));
  EXPECT_TRUE(ends_epoch([this] { return vault->rename(secret_name("a"), secret_name("b")); }));
  EXPECT_FALSE(ends_epoch([this] { return vault->find(secret_name("b")) ? KS_SUCCESS : KS_NOT_FOUND; }));
  EXPECT_TRUE(ends_epoch([this] { return vault->remove(secret_name("b")); }));
}

TEST_F(VaultReads, GiveASnapshotThatLaterChangesDontTouch) {
  put(*vault, "a", "old", "old meta");
  const Entry entry = vault->find(secret_name("a")).value();
  put(*vault, "a", "new", "new meta");
  vault->remove(secret_name("a"));

  EXPECT_EQ(std::string(entry.secret->bytes().begin(), entry.secret->bytes().end()), "old");
  EXPECT_EQ(*entry.metadata, bytes_of("old meta"));
}

TEST_F(VaultMetadata, ReplacesTheBlockAndLeavesTheSecret) {
  put_with_alias("a", "b", "secret");
  EXPECT_EQ(vault->set_metadata(secret_name("a"), bytes_of("1")), KS_SUCCESS);
  EXPECT_EQ(vault->set_metadata(secret_name("b"), bytes_of("22")), KS_SUCCESS);
  EXPECT_EQ(metadata_in(*vault, secret_name("a")), "22");
  EXPECT_EQ(vault->set_metadata(secret_name("a"), {}), KS_SUCCESS);
  EXPECT_EQ(metadata_in(*vault, secret_name("a")), "");
  EXPECT_EQ(secret_in(*vault, secret_name("a")), "secret");

  EXPECT_EQ(vault->set_metadata(secret_name("c"), {}), KS_NOT_FOUND);
  EXPECT_EQ(vault->count(), 1u);
}

TEST_F(VaultRemove, ClosesTheGapAndKeepsTheOrder) {
  for (const char *name : {"a", "b", "c", "d"}) put(*vault, name, name);
  EXPECT_EQ(vault->remove(secret_name("b")), KS_SUCCESS);

  EXPECT_THAT(names_in(*vault), ElementsAre("a", "c", "d"));
  EXPECT_FALSE(vault->at(3));
  EXPECT_EQ(vault->remove(secret_name("b")), KS_NOT_FOUND);
  put(*vault, "b", "again");
  EXPECT_THAT(names_in(*vault), ElementsAre("a", "c", "d", "b"));
}

TEST_F(VaultRemove, TakesTheEntryOutByItsAliasToo) {
  put_with_alias("a", "b", "secret");
  EXPECT_EQ(vault->remove(secret_name("b")), KS_SUCCESS);

  EXPECT_EQ(vault->count(), 0u);
  EXPECT_FALSE(vault->exists(secret_name("a")));
  EXPECT_FALSE(vault->exists(secret_name("b")));
}

TEST_F(VaultRename, KeepsSecretMetadataAndPosition) {
  put(*vault, "a", "secret", "meta");
  put(*vault, "z", "z");
  EXPECT_EQ(vault->rename(secret_name("a"), secret_name("b")), KS_SUCCESS);

  EXPECT_THAT(names_in(*vault), ElementsAre("b", "z"));
  EXPECT_EQ(secret_in(*vault, secret_name("b")), "secret");
  EXPECT_EQ(metadata_in(*vault, secret_name("b")), "meta");
  EXPECT_FALSE(vault->exists(secret_name("a")));
}

TEST_F(VaultRename, RefusesANameThatIsTakenAndChangesNothing) {
  put(*vault, "a", "a");
  put_with_alias("b", "c", "b");

  EXPECT_EQ(vault->rename(secret_name("a"), secret_name("b")), KS_INVALID_ARGS);
  EXPECT_EQ(vault->rename(secret_name("a"), secret_name("c")), KS_INVALID_ARGS);
  EXPECT_EQ(vault->rename(secret_name("none"), secret_name("b")), KS_NOT_FOUND);
  EXPECT_THAT(names_in(*vault), ElementsAre("a", "b"));
  EXPECT_EQ(secret_in(*vault, secret_name("c")), "b");
}

TEST_F(VaultRename, ChangesTheNameThatTheEntryWasCalledBy) {
  put_with_alias("a", "b", "secret");
  EXPECT_EQ(vault->rename(secret_name("b"), secret_name("c")), KS_SUCCESS);
  EXPECT_THAT(names_in(*vault), ElementsAre("a"));
  EXPECT_EQ(secret_in(*vault, secret_name("c")), "secret");
  EXPECT_FALSE(vault->exists(secret_name("b")));

  EXPECT_EQ(vault->rename(secret_name("a"), secret_name("d")), KS_SUCCESS);
  EXPECT_THAT(names_in(*vault), ElementsAre("d"));
  EXPECT_EQ(secret_in(*vault, secret_name("c")), "secret");
}

TEST_F(VaultRename, ToItsOtherNameLeavesAnEntryThatOneAlone) {
  put_with_alias("a", "b", "secret");
  EXPECT_EQ(vault->rename(secret_name("a"), secret_name("b")), KS_SUCCESS);
  EXPECT_THAT(names_in(*vault), ElementsAre("b"));
  EXPECT_FALSE(vault->exists(secret_name("a")));

  put_with_alias("b", "c", "secret");
  EXPECT_EQ(vault->rename(secret_name("c"), secret_name("b")), KS_SUCCESS);
  EXPECT_THAT(names_in(*vault), ElementsAre("b"));
  EXPECT_FALSE(vault->exists(secret_name("c")));
}

TEST_F(VaultRename, ToTheSameNameSucceedsForAnEntryAlone) {
  put(*vault, "a", "secret");
  EXPECT_EQ(vault->rename(secret_name("a"), secret_name("a")), KS_SUCCESS);
  EXPECT_EQ(vault->rename(secret_name("b"), secret_name("b")), KS_NOT_FOUND);
  EXPECT_EQ(secret_in(*vault, secret_name("a")), "secret");
}

TEST_F(VaultTest, IsTheSameAfterItWasClosedAndOpened) {
  put(*vault, "a", "secret a", "meta a");
  put_with_alias("b", "alias", "secret b");
  put(*vault, "c", "c");
  put(*vault, "d", std::string(60000, 'd'), std::string(65535, 'm'));
  vault->remove(secret_name("a"));
  vault->rename(secret_name("c"), secret_name("e"));
  vault->set_metadata(secret_name("b"), bytes_of("meta b"));
  reopen();

  EXPECT_THAT(names_in(*vault), ElementsAre("b", "e", "d"));
  EXPECT_EQ(secret_in(*vault, secret_name("alias")), "secret b");
  EXPECT_EQ(metadata_in(*vault, secret_name("b")), "meta b");
  EXPECT_EQ(secret_in(*vault, secret_name("d")), std::string(60000, 'd'));
  EXPECT_EQ(metadata_in(*vault, secret_name("d")), std::string(65535, 'm'));
  put(*vault, "f", "f");
  EXPECT_THAT(names_in(*vault), ElementsAre("b", "e", "d", "f"));
}

TEST_F(VaultTest, LetsNobodyElseReadItsFiles) {
  put(*vault, "a", "secret");
  for (const std::string &path : {folder.vault(), folder.log(), folder.key()}) {
    struct stat info;
    ASSERT_EQ(stat(path.c_str(), &info), 0) << path;
    EXPECT_EQ(info.st_mode & 0777, 0600u) << path;
  }
}

TEST_F(VaultTest, CountsChangesOfManyThreadsEachOnce) {
  disk.skip_syncs();
  std::vector<std::jthread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([this, t] {
      for (int i = 0; i < 100; ++i) {
        const std::string name = std::to_string(t) + "-" + std::to_string(i);
        ASSERT_EQ(put(*vault, name, name), KS_SUCCESS);
        ASSERT_EQ(secret_in(*vault, secret_name(name)), name) << "what is answered is seen";
        if (i % 2 == 1) {
          ASSERT_EQ(vault->remove(secret_name(name)), KS_SUCCESS);
        }
      }
    });
  }
  threads.clear();

  EXPECT_EQ(vault->count(), 400u);
  std::vector<std::string> before = names_in(*vault);
  reopen();
  EXPECT_EQ(names_in(*vault), before);
}

TEST_F(VaultTest, LetsOneOfManyThreadsHaveAName) {
  disk.skip_syncs();
  for (int t = 0; t < 8; ++t) put(*vault, "from" + std::to_string(t), "x");
  std::atomic<int> winners{0};
  std::vector<std::jthread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&, t] {
      const KsResult result = vault->rename(secret_name("from" + std::to_string(t)), secret_name("to"));
      if (result == KS_SUCCESS) ++winners;
      EXPECT_TRUE(result == KS_SUCCESS || result == KS_INVALID_ARGS);
    });
  }
  threads.clear();
  EXPECT_EQ(winners, 1);
  EXPECT_EQ(vault->count(), 8u);
}

TEST_F(VaultLimits, BoundEntriesAndBytesOfAUserAndOfAll) {
  vault->use_limits({.entries = 4, .entries_per_user = 3, .bytes = 100, .bytes_per_user = 60});
  for (const char *name : {"a", "b", "c"}) EXPECT_EQ(put(*vault, name, "0123456789"), KS_SUCCESS);
  EXPECT_EQ(put(*vault, "d", "1"), KS_STORE_FULL) << "a fourth entry of the user";
  EXPECT_EQ(put(*vault, "a", std::string(41, 'x')), KS_STORE_FULL) << "61 bytes of the user";
  EXPECT_EQ(put(*vault, "a", std::string(20, 'x'), std::string(20, 'm')), KS_SUCCESS) << "60 bytes";
  EXPECT_EQ(vault->set_metadata(secret_name("b"), bytes_of("1")), KS_STORE_FULL);
  EXPECT_EQ(metadata_in(*vault, secret_name("b")), "");

  EXPECT_EQ(put(*vault, "e", std::string(41, 'x'), "", 2000), KS_STORE_FULL) << "101 bytes in all";
  EXPECT_EQ(put(*vault, "e", std::string(40, 'x'), "", 2000), KS_SUCCESS);
  EXPECT_EQ(put(*vault, "f", "", "", 3000), KS_STORE_FULL) << "a fifth entry in all";
  EXPECT_EQ(vault->remove(secret_name("b")), KS_SUCCESS);
  EXPECT_EQ(put(*vault, "f", "", "", 3000), KS_SUCCESS);
}

TEST_F(VaultLimits, AreNamedInTheLogOfARefusalOnceAMinute) {
  const LogLines log;
  vault->use_limits({.entries = 5, .entries_per_user = 2, .bytes = 100, .bytes_per_user = 60});
  const auto fill = [this](uid_t user, size_t size) {
    return put(*vault, std::to_string(user) + "-" + std::to_string(size), std::string(size, 'x'), "", user);
  };
  EXPECT_EQ(fill(1000, 30), KS_SUCCESS);
  EXPECT_EQ(fill(1000, 31), KS_STORE_FULL);
  EXPECT_EQ(fill(1000, 32), KS_STORE_FULL);
  EXPECT_EQ(fill(2000, 1), KS_SUCCESS);
  EXPECT_EQ(fill(2000, 2), KS_SUCCESS);
  EXPECT_EQ(fill(2000, 3), KS_STORE_FULL);
  EXPECT_EQ(fill(3000, 60), KS_SUCCESS);
  EXPECT_EQ(fill(4000, 8), KS_STORE_FULL);
  EXPECT_EQ(fill(4000, 0), KS_SUCCESS);
  EXPECT_EQ(fill(5000, 0), KS_STORE_FULL);
  const std::string said = log.text();
  const auto refused = [this](const char *what) {
    return folder.vault() + ": a store of user " + what + " under [limits]); clear some or raise it\n";
  };
  for (const char *what :
       {"1000 is refused: 30 of 60 are in use (bytes_per_user", "2000 is refused: 2 of 2 are in use (entries_per_user",
        "4000 is refused: 93 of 100 are in use (bytes", "5000 is refused: 5 of 5 are in use (entries"}) {
    EXPECT_THAT(said, testing::HasSubstr(refused(what)));
  }
  EXPECT_THAT(said, testing::HasSubstr(folder.vault() +
                                       ": 80 % of the room of user 2000 is used: 2 of 2 entries, 3 of 60 bytes; clear "
                                       "some, or raise entries_per_user or bytes_per_user under [limits]\n"));
  EXPECT_THAT(said,
              testing::HasSubstr(": 80 % of the room of all users is used: 4 of 5 entries, 93 of 100 bytes; clear "
                                 "some, or raise entries or bytes under [limits]\n"));
  EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 7) << said;
}

TEST_F(VaultLimits, LetEntriesShrinkThatAreOverALoweredLimit) {
  put(*vault, "a", std::string(50, 'x'));
  put(*vault, "b", std::string(50, 'x'));
  vault->use_limits({.entries = 1, .entries_per_user = 1, .bytes = 10, .bytes_per_user = 10});

  EXPECT_EQ(put(*vault, "a", std::string(51, 'x')), KS_STORE_FULL);
  EXPECT_EQ(put(*vault, "a", std::string(50, 'y')), KS_SUCCESS);
  EXPECT_EQ(put(*vault, "a", "y"), KS_SUCCESS);
  EXPECT_EQ(vault->rename(secret_name("a"), secret_name("c")), KS_SUCCESS);
}

TEST_F(VaultLimits, CountAnEntryForWhoStoredItLast) {
  vault->use_limits({.entries_per_user = 1});
  EXPECT_EQ(put(*vault, "a", "1", "", 1000), KS_SUCCESS);
  EXPECT_EQ(put(*vault, "b", "1", "", 2000), KS_SUCCESS);
  EXPECT_EQ(put(*vault, "a", "2", "", 2000), KS_STORE_FULL);
  EXPECT_EQ(put(*vault, "a", "2", "", 3000), KS_SUCCESS);
  EXPECT_EQ(put(*vault, "c", "1", "", 1000), KS_SUCCESS) << "the first user's entry is no longer theirs";
  reopen();
  vault->use_limits({.entries_per_user = 1});
  EXPECT_EQ(put(*vault, "d", "1", "", 3000), KS_STORE_FULL) << "owners are kept";
}

TEST_F(VaultLimits, ShowInTheUsage) {
  vault->use_limits({.entries = 10});
  for (int i = 0; i < 8; ++i) put(*vault, std::to_string(i), "x");
  EXPECT_EQ(vault->usage().entries, 8u);
  EXPECT_EQ(vault->usage().entry_limit, 10u);
  EXPECT_FALSE(vault->usage().over_90_percent);
  put(*vault, "8", "x");
  put(*vault, "9", "x");
  EXPECT_TRUE(vault->usage().over_90_percent);
}

TEST_F(VaultCompact, GivesFreeSpaceBackAndKeepsTheRest) {
  disk.skip_syncs();
  for (int i = 0; i < 200; ++i) put(*vault, std::to_string(i), std::string(20000, 'x'));
  for (int i = 0; i < 190; ++i) vault->remove(secret_name(std::to_string(i)));
  EXPECT_TRUE(vault->usage().compaction_helps);
  EXPECT_EQ(vault->compact(), KS_SUCCESS);
  EXPECT_FALSE(vault->usage().compaction_helps);

  struct stat info;
  ASSERT_EQ(stat(folder.vault().c_str(), &info), 0);
  EXPECT_LT(info.st_size, 400000);
  EXPECT_EQ(vault->compact(), KS_SUCCESS) << "with nothing to do";
  reopen();
  EXPECT_EQ(vault->count(), 10u);
  EXPECT_EQ(secret_in(*vault, secret_name("195")), std::string(20000, 'x'));
}

TEST_F(VaultCompact, LetsChangesThroughMeanwhile) {
  disk.skip_syncs();
  for (int i = 0; i < 400; ++i) put(*vault, std::to_string(i), std::string(20000, 'x'));
  for (int i = 0; i < 399; ++i) vault->remove(secret_name(std::to_string(i)));
  std::vector<std::jthread> threads;
  for (int t = 0; t < 3; ++t) threads.emplace_back([this] { EXPECT_EQ(vault->compact(), KS_SUCCESS); });
  for (int i = 0; i < 100; ++i) EXPECT_EQ(put(*vault, "new" + std::to_string(i), "y"), KS_SUCCESS);
  threads.clear();
  reopen();
  EXPECT_EQ(vault->count(), 101u);
}

}  // namespace
}  // namespace ksd::vault
