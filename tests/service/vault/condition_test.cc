// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// What a vault tells its operator: whether it takes changes, whose entries it holds, and how long its log was.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <future>

#include "vault_files/vault_files.h"

namespace ksd::vault {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class VaultsCondition : public testing::Test {
 protected:
  std::vector<uid_t> owners_from(uid_t from, size_t most) const {
    std::vector<uid_t> uids;
    for (const Owner &owner : vault->owners(from, most)) uids.push_back(owner.uid);
    return uids;
  }

  Disk disk;
  Folder folder;
  std::unique_ptr<Vault> vault = folder.open();
};

TEST_F(VaultsCondition, IsGoodWhenItIsOpened) {
  const Condition condition = vault->condition();
  EXPECT_THAT(condition.refusal, IsEmpty());
  EXPECT_FALSE(condition.until_restart);
  EXPECT_TRUE(condition.reserve_kept);
}

TEST_F(VaultsCondition, TellsThatTheDiskIsFullUntilAChangeSucceeds) {
  disk.fail_writes(ENOSPC);
  EXPECT_EQ(put(*vault, "a", "x"), KS_STORE_FULL);
  EXPECT_THAT(vault->condition().refusal, HasSubstr("full"));
  EXPECT_FALSE(vault->condition().until_restart);
  disk.fail_writes(0);
  EXPECT_EQ(put(*vault, "a", "x"), KS_SUCCESS);
  EXPECT_THAT(vault->condition().refusal, IsEmpty());
}

TEST_F(VaultsCondition, TellsThatNothingIsWrittenUntilARestart) {
  disk.fail_syncs(EIO);
  EXPECT_EQ(put(*vault, "a", "x"), KS_FW_BAD_CELL);
  disk.fail_syncs(0);
  EXPECT_EQ(put(*vault, "a", "x"), KS_FW_BAD_CELL);
  EXPECT_THAT(vault->condition().refusal, HasSubstr("I/O error"));
  EXPECT_TRUE(vault->condition().until_restart);
  vault.reset();
  vault = folder.open();
  EXPECT_THAT(vault->condition().refusal, IsEmpty());
}

TEST_F(VaultsCondition, IsToldWhileASyncHangs) {
  disk.hold_syncs();
  auto change = std::async(std::launch::async, [this] { return put(*vault, "a", "x"); });
  disk.wait_for_held_sync();
  EXPECT_THAT(vault->condition().refusal, IsEmpty());
  EXPECT_THAT(owners_from(0, 10), IsEmpty());
  disk.let_syncs_go();
  EXPECT_EQ(change.get(), KS_SUCCESS);
}

TEST_F(VaultsCondition, TellsOwnersAscendingAsManyAsAreAskedFor) {
  for (const uid_t uid : {30u, 10u, 20u}) put(*vault, std::to_string(uid), "secret", "meta", uid);
  put(*vault, "another", "x", "", 10);
  EXPECT_THAT(owners_from(0, 10), ElementsAre(10, 20, 30));
  EXPECT_THAT(owners_from(0, 2), ElementsAre(10, 20));
  EXPECT_THAT(owners_from(21, 2), ElementsAre(30));
  EXPECT_THAT(owners_from(31, 2), IsEmpty());
  const Owner first = vault->owners(0, 1).at(0);
  EXPECT_EQ(first.entries, 2u);
  EXPECT_EQ(first.bytes, 11u);
  EXPECT_EQ(first.vdc_id, 7);
  EXPECT_EQ(vault->usage().bytes, 31u);
}

TEST_F(VaultsCondition, TellsTheVdcOfTheEntryThatAnOwnerStoredLast) {
  for (const uint16_t vdc : {uint16_t{8}, uint16_t{9}}) {
    ASSERT_EQ(vault->put(secret_name("a", vdc), std::nullopt, bytes_of("x"), {}, 10), KS_SUCCESS);
    EXPECT_EQ(vault->owners(0, 1).at(0).vdc_id, vdc);
  }
  vault.reset();
  vault = folder.open();
  EXPECT_EQ(vault->owners(0, 1).at(0).vdc_id, 9);
}

TEST_F(VaultsCondition, ForgetsAnOwnerWithTheLastEntry) {
  put(*vault, "a", "x", "", 10);
  ASSERT_EQ(vault->remove(secret_name("a")), KS_SUCCESS);
  EXPECT_THAT(owners_from(0, 10), IsEmpty());
}

TEST_F(VaultsCondition, TellsHowLongTheLogWasThatIsWrittenBack) {
  uint64_t pages = 0;
  put(*vault, "a", "x");
  EXPECT_EQ(vault->write_back(pages), KS_SUCCESS);
  EXPECT_GT(pages, 0u);
  EXPECT_EQ(vault->write_back(pages), KS_SUCCESS);
  EXPECT_EQ(pages, 0u);
  EXPECT_EQ(put(*vault, "b", "x"), KS_SUCCESS);
}

TEST_F(VaultsCondition, TellsThatTheLogCouldntBeWrittenBack) {
  uint64_t pages = 0;
  put(*vault, "a", "x");
  disk.fail_writes(EIO);
  EXPECT_EQ(vault->write_back(pages), KS_FW_BAD_CELL);
  disk.fail_writes(0);
  EXPECT_TRUE(vault->condition().until_restart);
  EXPECT_THAT(vault->condition().refusal, HasSubstr("I/O error"));
  EXPECT_EQ(put(*vault, "b", "x"), KS_FW_BAD_CELL);
  EXPECT_EQ(secret_in(*vault, secret_name("a")), "x");
}

}  // namespace
}  // namespace ksd::vault
