// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// A service that is stopped in the midst of its work.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>

#include "ks_api.h"
#include "service/service_process.h"

namespace {

// By the number of exchanges that the program has had before, few or so many that its connection has a channel.
class StoppedService : public testing::TestWithParam<int> {};

TEST_P(StoppedService, IsWaitedForAsLongAsItAskedFor) {
  ks_test::ServiceSetup setup;
  setup.config = "[service]\nreceive_limit_ms = 300\n";
  ks_test::ServiceProcess service(setup);
  setenv("KS_SOCKET", service.socket().c_str(), 1);
  ASSERT_EQ(ks_init(0, 1, 0), KS_SUCCESS);
  uint8_t random[16];
  for (int i = 0; i < GetParam(); ++i) ASSERT_EQ(ks_generate_random_number(random, 16, 0), KS_SUCCESS);

  service.pause();
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < 3; ++i) EXPECT_EQ(ks_generate_random_number(random, 16, 0), KS_FAILURE);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20)) << "not 30 s for a connection";
  service.resume();
  EXPECT_EQ(ks_generate_random_number(random, 16, 0), KS_SUCCESS);
}

INSTANTIATE_TEST_SUITE_P(BySocketAndByChannel, StoppedService, testing::Values(1, 40));

}  // namespace
