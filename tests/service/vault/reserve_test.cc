// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// The room that is kept for what makes room.
#include "vault/reserve.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "temporary_folder.h"

namespace ksd::vault {
namespace {

constexpr off_t kSize = 4 << 20;

class KeptRoom : public testing::Test {
 protected:
  // The file's size, or -1 without a file.
  off_t size() const { return look() ? info_.st_size : -1; }
  bool is_allocated() const { return look() && info_.st_blocks * 512 >= kSize; }

  const ks_test::TemporaryFolder folder;
  const std::string path = folder.path() + "/reserve";

 private:
  bool look() const { return lstat(path.c_str(), &info_) == 0; }

  mutable struct stat info_ {};
};

TEST_F(KeptRoom, IsAFileOfAllocatedBlocksThatNobodyElseReads) {
  Reserve reserve(path);
  EXPECT_FALSE(reserve.is_kept());
  EXPECT_TRUE(reserve.keep());
  EXPECT_TRUE(reserve.is_kept());
  EXPECT_EQ(size(), kSize);
  EXPECT_TRUE(is_allocated());
  struct stat info {};
  ASSERT_EQ(stat(path.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0600u);
}

// An entry of the folder could need room itself when it is made anew.
TEST_F(KeptRoom, LeavesAnEmptyFileWhenItIsReleased) {
  Reserve reserve(path);
  ASSERT_TRUE(reserve.keep());
  reserve.release();
  EXPECT_FALSE(reserve.is_kept());
  EXPECT_EQ(size(), 0);
  EXPECT_TRUE(reserve.keep());
  EXPECT_TRUE(is_allocated());
}

TEST_F(KeptRoom, IsNotTakenFromAFileElsewhere) {
  const std::string elsewhere = folder.path() + "/elsewhere";
  ASSERT_EQ(symlink(elsewhere.c_str(), path.c_str()), 0);
  Reserve reserve(path);
  EXPECT_FALSE(reserve.keep());
  EXPECT_FALSE(reserve.is_kept());
  EXPECT_NE(access(elsewhere.c_str(), F_OK), 0);
  reserve.release();
  EXPECT_EQ(size(), -1) << "what stands in the way is removed";
  EXPECT_TRUE(reserve.keep());
}

}  // namespace
}  // namespace ksd::vault
