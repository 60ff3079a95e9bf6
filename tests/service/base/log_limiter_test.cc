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

}  // namespace
