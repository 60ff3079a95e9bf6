// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// Where a time is counted.
#include "base/latencies.h"

#include <gtest/gtest.h>

namespace {

using ksd::latency_bucket;
using std::chrono::nanoseconds;

TEST(LatencyBucket, IsTheFirstOneBelow512Nanoseconds) {
  EXPECT_EQ(latency_bucket(nanoseconds(-5)), 0u);
  EXPECT_EQ(latency_bucket(nanoseconds(0)), 0u);
  EXPECT_EQ(latency_bucket(nanoseconds(511)), 0u);
  EXPECT_EQ(latency_bucket(nanoseconds(512)), 1u);
}

TEST(LatencyBucket, BeginsWhereThePageSays) {
  for (unsigned n = 0; n < 23; ++n) {
    for (unsigned q = 0; q < 4; ++q) {
      const auto begin = static_cast<int64_t>((4 + q) * (uint64_t{1} << (7 + n)));
      EXPECT_EQ(latency_bucket(nanoseconds(begin)), 1 + 4 * n + q);
      EXPECT_EQ(latency_bucket(nanoseconds(begin - 1)), 4 * n + q);
    }
  }
}

TEST(LatencyBucket, IsTheLastOneForAllThatIsLonger) {
  EXPECT_EQ(latency_bucket(std::chrono::hours(1)), 95u);
  EXPECT_EQ(latency_bucket(nanoseconds::max()), 95u);
}

}  // namespace
