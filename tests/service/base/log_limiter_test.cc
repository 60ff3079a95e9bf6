// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/log.h"

namespace {

using ksd::LogLimiter;
using Kind = LogLimiter::Kind;
using namespace std::chrono_literals;

TEST(LogLimiter, LetsOneLineAMinutePassAndCountsTheOthers) {
  LogLimiter limiter;
  const LogLimiter::Clock::time_point start{};
  EXPECT_EQ(limiter.pass(Kind::kMalformed, 1, start), 0u);
  EXPECT_EQ(limiter.pass(Kind::kMalformed, 1, start + 1s), std::nullopt);
  EXPECT_EQ(limiter.pass(Kind::kMalformed, 1, start + 59s), std::nullopt);
  EXPECT_EQ(limiter.pass(Kind::kMalformed, 1, start + 60s), 2u);
  EXPECT_EQ(limiter.pass(Kind::kMalformed, 1, start + 61s), std::nullopt);
}

TEST(LogLimiter, KeepsUsersAndKindsApart) {
  LogLimiter limiter;
  const LogLimiter::Clock::time_point start{};
  EXPECT_TRUE(limiter.pass(Kind::kMalformed, 1, start));
  EXPECT_TRUE(limiter.pass(Kind::kMalformed, 2, start));
  EXPECT_TRUE(limiter.pass(Kind::kTooLarge, 1, start));
}

TEST(SinceLast, IsSilentAboutNothing) {
  EXPECT_EQ(ksd::since_last(0), "");
  EXPECT_EQ(ksd::since_last(7), " (7 more since the last such line)");
}

TEST(LogLimiter, LetsAThousandUsersHaveNoMoreLinesThanItRemembers) {
  LogLimiter limiter;
  LogLimiter::Clock::time_point now{};
  const auto lines_of_many = [&] {
    int lines = 0;
    for (int round = 0; round < 3; ++round) {
      for (uid_t uid = 0; uid < 20'000; ++uid) lines += limiter.pass(Kind::kRefused, uid, now).has_value() ? 1 : 0;
    }
    return lines;
  };
  EXPECT_EQ(lines_of_many(), 513);  // those who are remembered, and one for all the others
  now += std::chrono::minutes(1);
  EXPECT_LE(lines_of_many(), 1025);                       // room for others is looked for once a second
  EXPECT_EQ(limiter.pass(Kind::kMalformed, 1, now), 0u);  // one for the others of each kind
  EXPECT_EQ(limiter.pass(Kind::kMalformed, 2, now), std::nullopt);
}

TEST(LogLimiter, RemembersOthersInThePlaceOfThoseWhoHaveBeenSilentForAMinute) {
  LogLimiter limiter;
  const LogLimiter::Clock::time_point start{};
  for (uid_t uid = 0; uid < 20'000; ++uid) limiter.pass(Kind::kRefused, uid, start);
  EXPECT_EQ(limiter.pass(Kind::kRefused, 30'000, start + 59s), std::nullopt) << "there is no room";
  EXPECT_TRUE(limiter.pass(Kind::kRefused, 30'001, start + 60s));
  EXPECT_TRUE(limiter.pass(Kind::kRefused, 30'002, start + 60s)) << "each has a line of its own again";
}

// To look at all of them for every line of somebody new would be work that whoever has many user ids can ask for.
TEST(LogLimiter, LooksForRoomOnceASecond) {
  LogLimiter limiter(2);
  const LogLimiter::Clock::time_point start{};
  EXPECT_TRUE(limiter.pass(Kind::kRefused, 1, start));
  EXPECT_TRUE(limiter.pass(Kind::kRefused, 2, start + 500ms));
  EXPECT_TRUE(limiter.pass(Kind::kRefused, 3, start + 59s)) << "the line of all others";
  EXPECT_TRUE(limiter.pass(Kind::kRefused, 4, start + 60s)) << "in the place of the first";
  EXPECT_FALSE(limiter.pass(Kind::kRefused, 5, start + 60s + 500ms)) << "the second's place isn't looked for yet";
  EXPECT_TRUE(limiter.pass(Kind::kRefused, 6, start + 61s));
}

}  // namespace
