// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// What the engine makes of a call's end, and which member of the cluster it asks next.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "engine/channels.h"
#include "engine/outcome.h"

namespace ksd::engine {
namespace {

using fleet::Failure;

struct End {
  const char *name;
  grpc::StatusCode code;
  const char *says;
  Failure kind;
  About about;
  bool repeat;
};

// Only what etcd refuses before it does anything counts as not sent. Whatever is unknown may have happened.
const End kEnds[] = {
    {"NoLeader", grpc::UNAVAILABLE, "etcdserver: no leader", Failure::kNotSent, About::kCannotServe, true},
    {"Dropped", grpc::UNKNOWN, "raft proposal dropped", Failure::kNotSent, About::kCannotServe, true},
    {"TooMany", grpc::RESOURCE_EXHAUSTED, "etcdserver: too many requests", Failure::kNotSent, About::kNothing, true},
    {"NoSpace", grpc::RESOURCE_EXHAUSTED, "etcdserver: mvcc: database space exceeded", Failure::kNoSpace,
     About::kNothing, false},
    {"TooLarge", grpc::INVALID_ARGUMENT, "etcdserver: request is too large", Failure::kTooLarge, About::kNothing,
     false},
    {"TooManyOperations", grpc::INVALID_ARGUMENT, "etcdserver: too many operations in txn request", Failure::kTooLarge,
     About::kNothing, false},
    {"TooLargeForTheLibrary", grpc::RESOURCE_EXHAUSTED, "grpc: received message larger than max (9 vs. 8)",
     Failure::kTooLarge, About::kNothing, false},
    {"Denied", grpc::PERMISSION_DENIED, "etcdserver: permission denied", Failure::kDenied, About::kNothing, false},
    {"NotKnown", grpc::UNAUTHENTICATED, "etcdserver: invalid auth token", Failure::kDenied, About::kNothing, false},
    {"NoUser", grpc::INVALID_ARGUMENT, "etcdserver: user name is empty", Failure::kDenied, About::kNothing, false},
    {"ConnectionBroken", grpc::UNAVAILABLE, "Socket closed", Failure::kUnknown, About::kConnectionFailed, true},
    {"Cancelled", grpc::CANCELLED, "", Failure::kUnknown, About::kConnectionFailed, true},
    {"InTime", grpc::DEADLINE_EXCEEDED, "", Failure::kUnknown, About::kTimedOut, true},
    {"InTimeOfIts", grpc::UNKNOWN, "etcdserver: request timed out", Failure::kUnknown, About::kCannotServe, true},
    {"AnotherArgument", grpc::INVALID_ARGUMENT, "etcdserver: duplicate key given in txn request", Failure::kUnknown,
     About::kNothing, false},
    {"AnotherCodeOfTheSameText", grpc::INTERNAL, "etcdserver: no leader", Failure::kUnknown, About::kNothing, false},
};

class CallEnds : public testing::TestWithParam<End> {};

TEST_P(CallEnds, SaysWhetherItHappenedAndWhetherToTryAgain) {
  const End &end = GetParam();
  const Outcome outcome = judge(grpc::Status(end.code, end.says));
  EXPECT_EQ(outcome.kind, end.kind);
  EXPECT_EQ(outcome.about, end.about);
  EXPECT_EQ(outcome.repeat, end.repeat);
}

INSTANTIATE_TEST_SUITE_P(All, CallEnds, testing::ValuesIn(kEnds), [](const auto &each) { return each.param.name; });

// Nobody listens there, and nobody is called.
link::Start three_members() {
  link::Start start;
  start.endpoints = {"127.0.0.1:1", "[::1]:1", "localhost:1"};
  return start;
}

size_t asked(Channels &channels) {
  return channels.route(Purpose::kCalls).endpoint;
}

TEST(Members, AreAskedInTurnAsTheyFail) {
  Channels channels(three_members());
  EXPECT_EQ(asked(channels), 0u);
  channels.failed(0);
  EXPECT_EQ(asked(channels), 1u);
  channels.failed(0);  // it is known already
  EXPECT_EQ(asked(channels), 1u);
  channels.failed(1);
  channels.failed(2);
  EXPECT_EQ(asked(channels), 0u);
}

TEST(Members, AreGivenUpAfterTwoCallsInARowWithoutAnAnswer) {
  Channels channels(three_members());
  EXPECT_FALSE(channels.timed_out(0));
  channels.answered(0);
  EXPECT_FALSE(channels.timed_out(0));
  EXPECT_EQ(asked(channels), 0u);
  EXPECT_FALSE(channels.timed_out(1));  // of another attempt, at one that isn't asked now
  channels.answered(1);
  EXPECT_TRUE(channels.timed_out(0));
  EXPECT_EQ(asked(channels), 1u);
  EXPECT_FALSE(channels.timed_out(1));
  EXPECT_TRUE(channels.timed_out(1));
  EXPECT_EQ(asked(channels), 2u);
}

TEST(Members, StartAnewWithTheirCountWhenTheNextHasItsTurn) {
  Channels channels(three_members());
  EXPECT_FALSE(channels.timed_out(0));
  channels.failed(0);
  EXPECT_FALSE(channels.timed_out(1));
  EXPECT_EQ(asked(channels), 1u);
}

TEST(Members, HaveAConnectionForEachPurposeAndANewOneWhenTheyWereGivenUp) {
  Channels channels(three_members());
  const auto calls = channels.route(Purpose::kCalls).channel;
  EXPECT_NE(calls, nullptr);
  EXPECT_EQ(channels.route(Purpose::kCalls).channel, calls);
  EXPECT_NE(channels.route(Purpose::kLoad).channel, calls);
  EXPECT_NE(channels.route(Purpose::kWatch).channel, calls);
  EXPECT_NE(channels.route(Purpose::kWatch).channel, channels.route(Purpose::kLoad).channel);
  channels.timed_out(0);
  channels.timed_out(0);
  channels.failed(1);
  channels.failed(2);
  EXPECT_EQ(asked(channels), 0u);
  EXPECT_NE(channels.route(Purpose::kCalls).channel, calls);
}

TEST(Members, HaveToBeSomeAndTheirFilesReadable) {
  EXPECT_THROW(Channels(link::Start{}), std::runtime_error);
  link::Start start = three_members();
  start.ca = "/nonexistent/ca.crt";
  try {
    Channels{start};
    FAIL() << "nobody needs its files";
  } catch (const std::runtime_error &error) {
    EXPECT_STREQ(error.what(),
                 "/nonexistent/ca.crt: No such file or directory; the engine's user has to be able to read it");
  }
}

}  // namespace
}  // namespace ksd::engine
