// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// Users who would fill the place where others keep their reports.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "ks_api.h"
#include "service/service_process.h"

namespace {

TEST(HistoryFlood, FindsNoFolderThatOthersMayFill) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  const ks_test::ServiceProcess service;
  setenv("KS_SOCKET", service.socket().c_str(), 1);
  ASSERT_EQ(ks_init(0, 1, 0), KS_SUCCESS);
  uint8_t random[16];
  ASSERT_EQ(ks_generate_random_number(random, 16, 0), KS_SUCCESS);
  ASSERT_TRUE(std::filesystem::exists(service.folder() + "/history/00.ring"));

  EXPECT_EQ(ks_test::run_as(12345, 12345,
                            [&] {
                              const std::string mine = service.folder() + "/history/mine";
                              const std::string beside = service.folder() + "/mine";
                              if (open(mine.c_str(), O_CREAT | O_WRONLY, 0600) >= 0) return 1;
                              return open(beside.c_str(), O_CREAT | O_WRONLY, 0600) >= 0 ? 2 : 0;
                            }),
            0);
}

TEST(HistoryFlood, OfTheUsersOwnFilesKeepsNoProcessFromItsRing) {
  const ks_test::ServiceProcess service;
  const std::string history = service.folder() + "/history";
  ASSERT_EQ(mkdir(history.c_str(), 0700), 0);
  for (int i = 0; i < 5000; ++i) {
    close(open((history + "/" + std::to_string(i) + "-1.ring").c_str(), O_CREAT | O_WRONLY, 0600));
  }
  setenv("KS_SOCKET", service.socket().c_str(), 1);
  const auto use = [] {
    uint8_t random[16];
    return ks_init(0, 1, 0) == KS_SUCCESS && ks_generate_random_number(random, 16, 0) == KS_SUCCESS ? 0 : 1;
  };
  EXPECT_EQ(ks_test::run_as(geteuid(), getegid(), use), 0);
  EXPECT_TRUE(std::filesystem::exists(history + "/00.ring"));
}

}  // namespace
