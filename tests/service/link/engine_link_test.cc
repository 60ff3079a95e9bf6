// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// The daemon's end of the way to its engine, with engines that do what they shouldn't.
#include "link/engine_link.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <stdexcept>

#include "temporary_folder.h"

namespace {

using ksd::UniqueFd;
using ksd::fleet::EngineGone;
using ksd::fleet::Failed;
using ksd::fleet::Failure;
using ksd::fleet::Report;
using ksd::link::EngineLink;
using ksd::link::FromEngine;
using ksd::link::ToEngine;
using std::chrono::milliseconds;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using Clock = std::chrono::steady_clock;

// FakeEngine is the other end of a connection.
class FakeEngine {
 public:
  explicit FakeEngine(UniqueFd fd) : fd_(std::move(fd)) {}

  void say(const FromEngine &message) const {
    std::vector<uint8_t> frame;
    ASSERT_TRUE(append(message, frame));
    say_bytes(frame);
  }
  void say_bytes(const std::vector<uint8_t> &bytes) const {
    ASSERT_EQ(send(fd_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
  }

  // hear waits for the next message.
  ToEngine hear() {
    while (true) {
      if (const auto frame = incoming_.next()) {
        auto message = ksd::link::read_to_engine(*frame);
        if (!message) throw std::runtime_error("the link says nonsense");
        return *std::move(message);
      }
      const auto room = incoming_.room();
      const ssize_t size = recv(fd_.get(), room.data(), room.size(), 0);
      if (size <= 0) throw std::runtime_error("the link is gone");
      incoming_.added(static_cast<size_t>(size));
    }
  }
  template <typename Message>
  Message hear_a() {
    return std::get<Message>(hear());
  }
  bool is_gone() const {
    pollfd end{.fd = fd_.get(), .events = POLLRDHUP, .revents = 0};
    return poll(&end, 1, 5000) == 1 && (end.revents & (POLLRDHUP | POLLHUP)) != 0;
  }

 private:
  UniqueFd fd_;
  ksd::link::Incoming incoming_;
};

class Link : public testing::Test {
 protected:
  ksd::link::Connect connect() {
    return [this] {
      ++connects;
      if (!refusal.empty()) throw std::runtime_error(refusal);
      int ends[2];
      if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) < 0) throw std::runtime_error("socketpair");
      engines.emplace_back(UniqueFd(ends[1]));
      return UniqueFd(ends[0]);
    };
  }
  EngineLink make() { return {connect(), {.endpoints = {"store:1"}, .prefix = "p/"}}; }

  // reports_of waits, as the daemon does, until there are so many reports.
  static std::vector<Report> reports_of(EngineLink &link, size_t count, milliseconds most = milliseconds(10'000)) {
    std::vector<Report> reports;
    const Clock::time_point end = Clock::now() + most;
    while (reports.size() < count && Clock::now() < end) {
      pollfd source{.fd = link.file(), .events = link.events(), .revents = 0};
      const auto wait = std::min(link.wait_at_most().value_or(milliseconds(1000)), milliseconds(1000));
      poll(&source, 1, static_cast<int>(wait.count()));
      link.receive(reports);
    }
    return reports;
  }
  template <typename Message>
  static Message only_report_of(EngineLink &link) {
    const std::vector<Report> reports = reports_of(link, 1);
    EXPECT_THAT(reports, SizeIs(1));
    return std::get<Message>(reports.at(0));
  }

  std::vector<FakeEngine> engines;
  std::string refusal;
  int connects = 0;
};

TEST_F(Link, BeginsBySayingWhereTheStoreIsAndPassesRequestsAndReportsOn) {
  EngineLink link = make();
  link.send(ksd::fleet::ReadHeader{5, milliseconds(1000)});
  const auto start = engines.at(0).hear_a<ksd::link::Start>();
  EXPECT_EQ(start.version, ksd::link::kVersion);
  EXPECT_THAT(start.endpoints, testing::ElementsAre("store:1"));
  EXPECT_EQ(start.prefix, "p/");
  EXPECT_EQ(engines[0].hear_a<ksd::fleet::ReadHeader>().id, 5u);
  engines[0].say(ksd::link::Started{});
  engines[0].say(ksd::fleet::HeaderIs{5, std::nullopt, 17});
  EXPECT_EQ(only_report_of<ksd::fleet::HeaderIs>(link).revision, 17u);
}

TEST_F(Link, TakesAnotherEngineWhenOneEnds) {
  EngineLink link = make();
  engines.clear();
  EXPECT_EQ(only_report_of<EngineGone>(link).why, "the engine has ended");
  link.send(ksd::fleet::ReadHeader{5, milliseconds(1000)});
  link.send(ksd::fleet::Watch{6, 1});
  const auto refused = reports_of(link, 2);
  EXPECT_EQ(std::get<Failed>(refused.at(0)).kind, Failure::kNotSent);
  EXPECT_EQ(std::get<ksd::fleet::WatchBroken>(refused.at(1)).id, 6u);
  while (link.file() < 0) reports_of(link, 1, milliseconds(10));
  link.send(ksd::fleet::ReadHeader{7, milliseconds(1000)});
  engines.at(0).hear_a<ksd::link::Start>();
  engines[0].say(ksd::fleet::HeaderIs{7, std::nullopt, 18});
  EXPECT_EQ(only_report_of<ksd::fleet::HeaderIs>(link).id, 7u);
}

TEST_F(Link, TriesLessAndLessOftenWhereThereIsNoEngineAndSaysSoOnce) {
  refusal = "nobody listens";
  EngineLink link = make();
  EXPECT_EQ(only_report_of<EngineGone>(link).why, "nobody listens");
  EXPECT_THAT(reports_of(link, 1, milliseconds(1000)), IsEmpty());
  EXPECT_GE(connects, 3);
  EXPECT_LE(connects, 5);  // at 0, 100, 300, 700 and 1500 ms
  refusal = "something else";
  EXPECT_EQ(only_report_of<EngineGone>(link).why, "something else");
}

TEST_F(Link, SaysWhyAnEngineEnds) {
  EngineLink link = make();
  engines.at(0).say(ksd::link::Stopped{"no certificate"});
  engines.clear();
  EXPECT_EQ(only_report_of<EngineGone>(link).why, "the engine has ended: no certificate");
  while (link.file() < 0) reports_of(link, 1, milliseconds(10));
  engines.clear();
  EXPECT_EQ(only_report_of<EngineGone>(link).why, "the engine has ended") << "another one, which said nothing";
}

TEST_F(Link, LeavesAnEngineThatSaysNonsense) {
  const std::vector<uint8_t> nonsense[] = {{0xff, 0xff, 0xff, 0xff}, {0, 0, 0, 0}, {1, 0, 0, 0, 0x81}, {1, 0, 0, 0, 1}};
  for (const auto &bytes : nonsense) {
    EngineLink link = make();
    engines.back().say_bytes(bytes);
    EXPECT_THAT(only_report_of<EngineGone>(link).why,
                testing::AnyOf(HasSubstr("no sense"), HasSubstr("more than any")));
    EXPECT_TRUE(engines.back().is_gone());
  }
}

TEST_F(Link, LeavesAnEngineThatDoesNotAnswerInTime) {
  EngineLink link = make();
  link.send(ksd::fleet::ReadHeader{1, milliseconds(0)});
  engines.at(0).say(ksd::fleet::HeaderIs{1, std::nullopt, 1});
  EXPECT_EQ(only_report_of<ksd::fleet::HeaderIs>(link).id, 1u);
  const Clock::time_point begun = Clock::now();
  link.send(ksd::fleet::ReadHeader{2, milliseconds(500)});
  EXPECT_EQ(only_report_of<EngineGone>(link).why, "the engine doesn't answer");
  EXPECT_GE(Clock::now() - begun, milliseconds(2500));
  EXPECT_TRUE(engines.at(0).is_gone());
}

// An engine that has just taken a connection again, after some have failed.
TEST_F(Link, HurriesAgainOnceAnEngineHasStarted) {
  refusal = "nobody listens";
  EngineLink link = make();
  EXPECT_EQ(only_report_of<EngineGone>(link).why, "nobody listens");
  while (connects < 4) reports_of(link, 1, milliseconds(10));
  refusal.clear();
  while (link.file() < 0) reports_of(link, 1, milliseconds(10));
  engines.at(0).say(ksd::link::Started{});
  link.send(ksd::fleet::ReadHeader{1, milliseconds(1000)});
  engines[0].say(ksd::fleet::HeaderIs{1, std::nullopt, 1});
  EXPECT_EQ(only_report_of<ksd::fleet::HeaderIs>(link).id, 1u);
  refusal = "nobody listens";
  engines.clear();
  EXPECT_EQ(only_report_of<EngineGone>(link).why, "the engine has ended");
  EXPECT_LE(link.wait_at_most().value_or(milliseconds::max()), milliseconds(100));
  EXPECT_EQ(only_report_of<EngineGone>(link).why, "nobody listens");
}

TEST_F(Link, TellsOfTheEndOfEachEngineThatHadStarted) {
  EngineLink link = make();
  for (int i = 0; i < 2; ++i) {
    while (link.file() < 0) reports_of(link, 1, milliseconds(10));
    engines.at(0).say(ksd::link::Started{});
    engines.clear();
    EXPECT_EQ(only_report_of<EngineGone>(link).why, "the engine has ended");
  }
}

TEST_F(Link, TakesNothingOverFromOneEngineToTheNext) {
  EngineLink link = make();
  std::vector<uint8_t> half;
  append(FromEngine(ksd::fleet::Committed{1, 1}), half);
  half.resize(half.size() / 2);
  engines.at(0).say_bytes(half);
  // More than the socket takes.
  link.send(ksd::fleet::Commit{1, 1, {{"h", std::vector<uint8_t>(1 << 20), 0}}, {}, milliseconds(0)});
  EXPECT_NE(link.events() & POLLOUT, 0);
  engines.clear();
  only_report_of<EngineGone>(link);
  while (link.file() < 0) reports_of(link, 1, milliseconds(10));
  link.send(ksd::fleet::ReadHeader{2, milliseconds(1000)});
  engines.at(0).hear_a<ksd::link::Start>();
  EXPECT_EQ(engines[0].hear_a<ksd::fleet::ReadHeader>().id, 2u);
  EXPECT_EQ(link.events() & POLLOUT, 0);
  engines[0].say(ksd::fleet::HeaderIs{2, std::nullopt, 18});
  EXPECT_EQ(only_report_of<ksd::fleet::HeaderIs>(link).id, 2u);
  // What the first one would have had to answer by now.
  EXPECT_THAT(reports_of(link, 1, milliseconds(2500)), IsEmpty());
}

TEST_F(Link, AnswersInPlaceOfAnEngineThatReadsNothing) {
  EngineLink link = make();
  ksd::fleet::Commit commit{1, 1, {{"h", std::vector<uint8_t>(1 << 20), 0}}, {}, milliseconds(60'000)};
  std::vector<Report> reports;
  for (int i = 0; i < 10; ++i) {
    commit.id = static_cast<uint64_t>(i);
    link.send(commit);
    link.receive(reports);
  }
  EXPECT_GE(reports.size(), 4u);
  for (const Report &report : reports) EXPECT_EQ(std::get<Failed>(report).kind, Failure::kNotSent);
}

TEST_F(Link, RefusesWhatNoFrameHolds) {
  EngineLink link = make();
  link.send(ksd::fleet::Commit{1, 1, {{"h", std::vector<uint8_t>(ksd::link::kMostFrame), 0}}, {}, milliseconds(1000)});
  EXPECT_EQ(only_report_of<Failed>(link).kind, Failure::kTooLarge);
  link.send(ksd::fleet::Load{2});
  engines.at(0).hear_a<ksd::link::Start>();
  EXPECT_EQ(engines[0].hear_a<ksd::fleet::Load>().id, 2u);
}

TEST_F(Link, TakesFromAnEngineThatTalksWithoutEndAPartAtATime) {
  EngineLink link = make();
  const FakeEngine &engine = engines.at(0);
  std::vector<uint8_t> flood;
  for (uint64_t i = 0; i < 1000; ++i) append(FromEngine(ksd::fleet::Committed{i, i}), flood);
  engine.say_bytes(flood);
  EXPECT_THAT(reports_of(link, 1000), SizeIs(1000));
}

TEST_F(Link, TakesAllThatIsThereAtOnce) {
  EngineLink link = make();
  std::vector<uint8_t> bytes;
  uint64_t said = 0;
  for (; bytes.size() < 140'000; ++said) append(FromEngine(ksd::fleet::Committed{said, said}), bytes);
  engines.at(0).say_bytes(bytes);
  std::vector<Report> reports;
  link.receive(reports);
  EXPECT_THAT(reports, SizeIs(said));
}

TEST(ConnectAt, GivesConnectionsThatDoNotBlockAndSaysWhyNot) {
  const ks_test::TemporaryFolder folder;
  const std::string path = folder.path() + "/engine";
  const ksd::link::Connect connect = ksd::link::connect_at(path);
  try {
    connect();
    FAIL() << "nobody listens";
  } catch (const std::runtime_error &error) {
    EXPECT_EQ(error.what(), path + ": No such file or directory");
  }
  const UniqueFd listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(bind(listener.get(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
  ASSERT_EQ(listen(listener.get(), 1), 0);
  const UniqueFd connection = connect();
  char byte;
  EXPECT_EQ(recv(connection.get(), &byte, 1, 0), -1);
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_THROW(ksd::link::connect_at(std::string(200, 'x')), std::runtime_error);
}

// A real engine, where there is one, started as the daemon starts it.
TEST(StartEngines, GivesEachConnectionAnEngineThatEndsWithIt) {
#ifdef __SANITIZE_THREAD__
  GTEST_SKIP() << "ThreadSanitizer doesn't see how gRPC's threads wait for each other";
#endif
  const std::string program = KS_SERVICE_DIR "/ksd-engine";
  EXPECT_THROW(ksd::link::start_engines("/none"), std::runtime_error);
  if (access(program.c_str(), X_OK) < 0) GTEST_SKIP() << "this build has no engine: gRPC isn't installed";
  const ksd::link::Connect connect = ksd::link::start_engines(program);
  for (int i = 0; i < 2; ++i) {
    EngineLink link(connect, {.endpoints = {"127.0.0.1:1"}, .prefix = "p/"});
    link.send(ksd::fleet::ReadHeader{1, milliseconds(100)});
    std::vector<Report> reports;
    while (reports.empty()) {
      pollfd source{.fd = link.file(), .events = link.events(), .revents = 0};
      ASSERT_EQ(poll(&source, 1, 10'000), 1);
      link.receive(reports);
    }
    EXPECT_EQ(std::get<Failed>(reports.at(0)).kind, Failure::kNotSent);
  }
}

}  // namespace
