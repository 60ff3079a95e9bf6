// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// How changes come to disk: few writes, and all of them before the sync that acknowledges them.
#include <gtest/gtest.h>

#include <cerrno>

#include "vault_files/vault_files.h"

namespace ksd::vault {
namespace {

class JoinedLog : public testing::Test {
 protected:
  // steps_of counts what a change does to files: writes, and the one sync.
  int steps_of(const std::function<KsResult()> &change) {
    int steps = 0;
    disk.after_changes([&] { ++steps; });
    EXPECT_EQ(change(), KS_SUCCESS);
    disk.after_changes([] {});
    return steps;
  }

  Disk disk;
  Folder folder;
  std::unique_ptr<Vault> vault = folder.open();
};

TEST_F(JoinedLog, TakesOneWriteAndOneSyncForAChange) {
  ASSERT_EQ(put(*vault, "first", "x"), KS_SUCCESS);  // which marks the vault as in use
  EXPECT_EQ(steps_of([&] { return put(*vault, "a", "x"); }), 2);
  EXPECT_EQ(steps_of([&] { return vault->rename(secret_name("a"), secret_name("b")); }), 2);
  EXPECT_EQ(steps_of([&] { return vault->remove(secret_name("b")); }), 2);
}

TEST_F(JoinedLog, HoldsAChangeThatSqliteCantKeepInMemory) {
  const std::string large(5 << 20, 'l'), other(5 << 20, 'o');
  EXPECT_EQ(put(*vault, "large", large, "channel 11"), KS_SUCCESS);
  EXPECT_EQ(put(*vault, "large", other, "channel 11"), KS_SUCCESS);
  EXPECT_EQ(put(*vault, "small", "x"), KS_SUCCESS);
  const Folder crashed;
  crash(folder, crashed);
  const auto holds_both = [&](const Vault &opened) {
    EXPECT_TRUE(secret_in(opened, secret_name("large")) == other);
    EXPECT_EQ(secret_in(opened, secret_name("small")), "x");
  };
  holds_both(*crashed.open());
  vault.reset();
  holds_both(*folder.open());
}

TEST_F(JoinedLog, RefusesAChangeWhoseWritesFailWhenTheyAreSynced) {
  ASSERT_EQ(put(*vault, "a", "old"), KS_SUCCESS);
  for (const int error : {ENOSPC, EDQUOT}) {
    disk.fail_writes(error);
    EXPECT_EQ(put(*vault, "a", "new"), KS_STORE_FULL);
    disk.fail_writes(0);
    EXPECT_EQ(secret_in(*vault, secret_name("a")), "old");
  }
  EXPECT_EQ(put(*vault, "a", "new"), KS_SUCCESS);
  vault.reset();
  EXPECT_EQ(secret_in(*folder.open(), secret_name("a")), "new");
}

}  // namespace
}  // namespace ksd::vault
