// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// Who gets a place, and how fast connections come to a thread.
#include "server/users.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <semaphore>
#include <thread>

namespace {

using ksd::Caller;
using ksd::config::Limits;
using ksd::server::Allowance;
using ksd::server::Clock;
using ksd::server::Rank;
using ksd::server::User;
using ksd::server::Users;
using testing::StrEq;

constexpr Clock::time_point kStart{std::chrono::hours(1)};

Caller user(uid_t uid) {
  Caller caller;
  caller.uid = uid;
  caller.counted_as = uid;
  caller.vdc_id = 7;
  return caller;
}

Caller stranger(uid_t uid) {
  Caller caller;
  caller.uid = uid;
  caller.counted_as = uid;
  return caller;
}

Caller administrator(uid_t uid) {
  Caller caller = user(uid);
  caller.administrator = true;
  return caller;
}

class Places : public testing::Test {
 protected:
  // How many of `wanted` connections the caller gets.
  int take(const Caller &caller, int wanted) {
    int got = 0;
    for (int i = 0; i < wanted; ++i) {
      const Users::Place place = users.take(caller, limits, now);
      why = place.why;
      if (place.user == nullptr) break;
      last = place.user;
      ++got;
    }
    return got;
  }

  Users users;
  Limits limits;
  Clock::time_point now = kStart;
  User *last = nullptr;
  std::string why;
};

TEST_F(Places, OfAllUsersWithoutAVdcAreAFew) {
  int got = 0;
  for (uid_t uid = 1; uid <= 5000; ++uid) got += take(stranger(uid), 1);
  EXPECT_EQ(got, 64);
  EXPECT_THAT(why, StrEq("users without a VDC have too many (connections_unmapped under [limits])"));
  EXPECT_EQ(take(user(9999), 300), 256);
  EXPECT_THAT(why, StrEq("the user has too many (connections_per_user under [limits])"));
}

TEST_F(Places, ForAdministratorsAreLeftByAllOthers) {
  for (uid_t uid = 1; uid <= 200; ++uid) take(user(uid), 256);
  EXPECT_EQ(users.all(), 1008u);
  EXPECT_THAT(why, StrEq("what is left is kept for administrators (connections_administrators under [limits])"));
  EXPECT_EQ(take(administrator(900), 100), 16);
  EXPECT_THAT(why, StrEq("all together have too many (connections under [limits])"));
}

TEST_F(Places, AreLeftForUsersWithFewByThoseWithMany) {
  for (uid_t uid = 1; uid <= 4; ++uid) take(user(uid), 256);
  EXPECT_EQ(users.all(), 882u);  // of the 1008 that aren't kept for administrators, all but an eighth
  EXPECT_THAT(why, StrEq("what is left is kept for users with fewer (an eighth of connections under [limits])"));
  EXPECT_EQ(take(user(5), 20), 8);
  EXPECT_EQ(take(user(6), 3), 3);
}

TEST_F(Places, ComeBackWhenTheyAreGivenBack) {
  limits.connections_per_user = 2;
  EXPECT_EQ(take(user(1), 3), 2);
  users.give_back(*last, Rank::kMapped);
  EXPECT_EQ(take(user(1), 3), 1);
  EXPECT_EQ(users.all(), 2u);
}

TEST_F(Places, OfUsersWhoHaveGoneAreForgotten) {
  for (uid_t uid = 1; uid <= 200; ++uid) {
    ASSERT_EQ(take(user(uid), 1), 1);
    users.give_back(*last, Rank::kMapped);
    now += std::chrono::seconds(1);
  }
  EXPECT_LE(users.known(), 128u);
}

TEST_F(Places, OfAUserWhoComesBackHaveTheAllowanceThatWasLeft) {
  take(user(1), 1);
  User *const before = last;
  while (before->connects.take(limits.connects_per_second, now)) continue;
  users.give_back(*before, Rank::kMapped);
  for (uid_t uid = 2; uid <= 200; ++uid) {
    take(user(uid), 1);
    users.give_back(*last, Rank::kMapped);
  }
  take(user(1), 1);
  EXPECT_EQ(last, before);
  EXPECT_FALSE(last->connects.take(limits.connects_per_second, now));
}

TEST_F(Places, OfOneUserMakeNoCrowd) {
  take(user(1), 2);
  EXPECT_FALSE(users.check_crowd(now));
  take(user(2), 1);
  EXPECT_TRUE(users.check_crowd(now));
  now += std::chrono::hours(1);
  EXPECT_TRUE(users.check_crowd(now));  // both are connected still
  users.give_back(*last, Rank::kMapped);
  now += std::chrono::seconds(9);
  EXPECT_TRUE(users.check_crowd(now));
  now += std::chrono::seconds(1);
  EXPECT_FALSE(users.check_crowd(now));
}

TEST_F(Places, OfUsersInACrowdAreForOneLargeChangeAtATimeAndMoreSmallOnes) {
  take(user(1), 1);
  take(user(2), 1);
  ksd::server::Share::Pass large(last->changes_of(4097));
  const ksd::server::Share::Pass small(last->changes_of(4096));
  const ksd::server::Share::Pass another(last->changes_of(20));
  std::binary_semaphore second_came_in(0);
  std::thread other([&] {
    const ksd::server::Share::Pass second(last->changes_of(60000));
    second_came_in.release();
  });
  EXPECT_FALSE(second_came_in.try_acquire());
  large.give_back();
  second_came_in.acquire();
  other.join();
}

TEST(Allowance, LetsATenthOfASecondsThroughAtOnceAndTheRestInTime) {
  Allowance allowance;
  int got = 0;
  while (allowance.take(1000, kStart)) ++got;
  EXPECT_EQ(got, 100);
  EXPECT_EQ(allowance.wait_for_one(1000), std::chrono::nanoseconds(1'000'001));
  EXPECT_FALSE(allowance.take(1000, kStart + std::chrono::microseconds(900)));
  EXPECT_TRUE(allowance.take(1000, kStart + std::chrono::microseconds(1100)));
  got = 0;
  while (allowance.take(1000, kStart + std::chrono::hours(1))) ++got;
  EXPECT_EQ(got, 100);
}

TEST(Allowance, LetsOneThroughHoweverLittleItIs) {
  Allowance allowance;
  EXPECT_TRUE(allowance.take(1, kStart));
  EXPECT_FALSE(allowance.take(1, kStart));
  EXPECT_TRUE(allowance.take(1, kStart + std::chrono::seconds(1)));
}

}  // namespace
