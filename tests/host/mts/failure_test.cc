// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// What comes of an exchange when the service doesn't play along.
#include <pthread.h>
#include <signal.h>
#include <sys/time.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <thread>

#include "client.h"
#include "send_with_files.h"

namespace {

std::atomic<int> signals_seen = 0;

void count_signal(int) {
  signals_seen++;
}

// Counts a signal for the length of a test, without restarting what it interrupts.
class CountedSignal {
 public:
  explicit CountedSignal(int number) : number_(number) {
    signals_seen = 0;
    struct sigaction action = {};
    action.sa_handler = count_signal;
    sigaction(number, &action, &before_);
  }
  ~CountedSignal() { sigaction(number_, &before_, nullptr); }
  CountedSignal(const CountedSignal &) = delete;
  CountedSignal &operator=(const CountedSignal &) = delete;

 private:
  int number_;
  struct sigaction before_ = {};
};

TEST_F(Mts, ReconnectsToAServiceThatRestartedBetweenExchanges) {
  const CountedSignal broken_pipe(SIGPIPE);
  const uint32_t queue = bound();
  for (int i = 0; i < 5; i++) {
    ASSERT_TRUE(works(queue));
    service.stop();
    service.start();
  }
  ASSERT_TRUE(works(queue));

  EXPECT_EQ(service.requests().size(), 6U) << "each request arrives once";
  EXPECT_EQ(signals_seen, 0);
}

TEST_F(Mts, FailsWithoutServiceAndRecoversWithIt) {
  const uint32_t queue = bound();
  service.stop();
  const Answer answer = exchange(queue, {1});
  EXPECT_EQ(answer.sent, MTS_FAILED);
  EXPECT_EQ(answer.error, static_cast<uint32_t>(ECONNREFUSED));

  service.start();
  EXPECT_TRUE(works(queue));
}

TEST_F(Mts, NeverSendsTwiceWhatMayHaveBeenDelivered) {
  service.handler = [](int, const FakeService::Request &) { return false; };
  const uint32_t queue = bound();
  const Answer answer = exchange(queue, {1});

  EXPECT_EQ(answer.sent, 0U);
  EXPECT_EQ(answer.received, MTS_FAILED);
  EXPECT_EQ(answer.error, static_cast<uint32_t>(ECONNRESET));
  EXPECT_EQ(service.requests().size(), 1U);
}

TEST_F(Mts, SendsOnceWhateverErrnoWasBefore) {
  std::atomic<unsigned> requests = 0;
  service.handler = [&](int socket, const FakeService::Request &request) {
    requests++;
    return FakeService::echo(socket, request);
  };
  const uint32_t queue = bound();
  const std::vector<uint8_t> large(20'000);  // gathered by the kernel; what is smaller is copied together
  errno = EINTR;
  EXPECT_TRUE(works(queue));
  errno = EINTR;
  EXPECT_EQ(exchange(queue, {}, {{large.data(), 20'000}}).payload.size(), 20'004U);
  errno = EINTR;
  EXPECT_NE(bind_as(1), MTS_FAILED);
  EXPECT_EQ(requests, 2U);
}

TEST_F(Mts, GivesUpAtTheServicesLimitAndForgetsTheLateReply) {
  service.hello.receive_limit_ms = 400;
  service.handler = [&](int socket, const FakeService::Request &request) {
    if (request.payload != Octets{1}) return FakeService::echo(socket, request);
    held.wait();
    FakeService::echo(socket, request);
    answered.give();
    return true;
  };
  const uint32_t queue = bound();
  const Answer answer = exchange(queue, {1});
  EXPECT_EQ(answer.received, MTS_FAILED);
  EXPECT_EQ(answer.error, static_cast<uint32_t>(ETIMEDOUT));

  held.give();
  answered.wait();
  EXPECT_TRUE(works(queue));
  EXPECT_EQ(service.connections(), 2U);
}

TEST_F(Mts, LetsACancelledThreadFinishItsExchange) {
#ifdef __SANITIZE_THREAD__
  GTEST_SKIP() << "under this sanitizer exchanges are made with the C library's send and recv";
#endif
  Signal arrived;
  service.handler = [&](int socket, const FakeService::Request &request) {
    if (request.payload == Octets{1}) {
      arrived.give();
      held.wait();
    }
    return FakeService::echo(socket, request);
  };
  struct Work {
    uint32_t queue;
    Answer answer;
  } work = {.queue = bound(), .answer = {}};
  pthread_t thread;
  const auto run = [](void *argument) -> void * {
    auto *mine = static_cast<Work *>(argument);
    mine->answer = exchange(mine->queue, {1});
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);  // to live and tell
    return mine;
  };
  ASSERT_EQ(pthread_create(&thread, nullptr, run, &work), 0);
  arrived.wait();
  pthread_cancel(thread);
  held.give();
  void *end = nullptr;
  pthread_join(thread, &end);

  EXPECT_EQ(end, &work) << "it was cancelled within";
  EXPECT_EQ(work.answer.payload, (Octets{1, 0, 0, 0, 1}));
  EXPECT_TRUE(works(work.queue));
  EXPECT_EQ(service.connections(), 1U);
}

// A reply that isn't one: the exchange fails, its connection ends, and the next goes well.
class WrongReply : public Mts, public testing::WithParamInterface<std::pair<const char *, void (*)(Octets &)>> {};

TEST_P(WrongReply, FailsTheExchangeAndNoOther) {
  std::atomic<bool> wrong = true;
  service.handler = [&](int socket, const FakeService::Request &request) {
    if (!wrong.exchange(false)) return FakeService::echo(socket, request);
    Octets datagram = FakeService::reply_datagram(request, {1, 0, 0, 0, 9});
    GetParam().second(datagram);
    return FakeService::send_raw(socket, datagram);
  };
  const uint32_t queue = bound();
  const Answer answer = exchange(queue, {1});
  EXPECT_EQ(answer.received, MTS_FAILED);
  EXPECT_EQ(answer.error, static_cast<uint32_t>(EPROTO));

  service.wait_until_closed(1);
  EXPECT_TRUE(works(queue));
}

INSTANTIATE_TEST_SUITE_P(Replies, WrongReply,
                         testing::Values(std::pair(
                                             "Empty", +[](Octets &datagram) { datagram.clear(); }),
                                         std::pair(
                                             "CutInItsHeader", +[](Octets &datagram) { datagram.resize(31); }),
                                         std::pair(
                                             "NoResult",
                                             +[](Octets &datagram) {
                                               datagram.resize(35);
                                               datagram[28] = 3;
                                             }),
                                         std::pair(
                                             "OtherMagic", +[](Octets &datagram) { datagram[0] ^= 1; }),
                                         std::pair(
                                             "OtherVersion", +[](Octets &datagram) { datagram[4] = 2; }),
                                         std::pair(
                                             "OtherOpcode", +[](Octets &datagram) { datagram[8] ^= 1; }),
                                         std::pair(
                                             "OtherToken", +[](Octets &datagram) { datagram[13] ^= 1; }),
                                         std::pair(
                                             "ShorterThanItSays", +[](Octets &datagram) { datagram.pop_back(); }),
                                         std::pair(
                                             "LongerThanItSays", +[](Octets &datagram) { datagram.push_back(0); })),
                         [](const auto &instance) { return instance.param.first; });

TEST_F(Mts, RefusesAReplyThatIsLargerThanAnyMayBe) {
  service.handler = [](int socket, const FakeService::Request &request) {
    return FakeService::reply(socket, request, Octets(192 * 1024 + 1));
  };
  const uint32_t queue = bound();
  EXPECT_EQ(exchange(queue, {1}).error, static_cast<uint32_t>(EMSGSIZE));
}

TEST_F(Mts, TakesAReplyOfTheResultAlone) {
  service.handler = [](int socket, const FakeService::Request &request) {
    return FakeService::reply(socket, request, {5, 0, 0, 0});
  };
  EXPECT_EQ(exchange(bound(), {1}).payload, (Octets{5, 0, 0, 0}));
}

TEST_F(Mts, ClosesDescriptorsThatComeAlong) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  service.handler = [&](int socket, const FakeService::Request &request) {
    return send_with_files(socket, FakeService::reply_datagram(request, {1, 0, 0, 0}), {ends[1]});
  };
  const uint32_t queue = bound();
  const size_t before = open_descriptors();
  EXPECT_EQ(exchange(queue, {1}).payload, (Octets{1, 0, 0, 0}));

  EXPECT_EQ(open_descriptors(), before);
  close(ends[1]);
  char byte;
  EXPECT_EQ(read(ends[0], &byte, 1), 0) << "nobody holds the other end";
  close(ends[0]);
}

TEST_F(Mts, FailsToBindToAServiceThatTurnsItAway) {
  service.hello.result = KS_STORE_FULL;
  EXPECT_EQ(bound(), MTS_FAILED);
  EXPECT_EQ(mts_errno_get(MTS_FAILED), static_cast<uint32_t>(ECONNREFUSED));
}

TEST_F(Mts, FailsToBindToAServiceThatTurnsItAwayInOneWord) {
  service.greeter = [](int socket, const FakeService::Request &request) {
    return FakeService::reply(socket, request, {7, 0, 0, 0});
  };
  EXPECT_EQ(bound(), MTS_FAILED);
  EXPECT_EQ(mts_errno_get(MTS_FAILED), static_cast<uint32_t>(ECONNREFUSED));
}

TEST_F(Mts, FailsToBindToSomethingElse) {
  service.greeter = [](int socket, const FakeService::Request &) {
    return FakeService::send_raw(socket, {'2', '2', '0', ' ', 'h', 'i'});
  };
  EXPECT_EQ(bound(), MTS_FAILED);
  EXPECT_EQ(mts_errno_get(MTS_FAILED), static_cast<uint32_t>(EPROTO));
}

TEST_F(Mts, RefusesAGreetingWhoseTextHasNoEnd) {
  memset(service.hello.running_cfg_uri, 'x', sizeof service.hello.running_cfg_uri);
  EXPECT_EQ(bound(), MTS_FAILED);
  EXPECT_EQ(mts_errno_get(MTS_FAILED), static_cast<uint32_t>(EPROTO));
}

// A timer that interrupts many times within each wait.
class Interrupted : public Mts {
 protected:
  ~Interrupted() override { set_interval(0); }

  static void set_interval(int microseconds) {
    const itimerval often = {.it_interval = {.tv_sec = 0, .tv_usec = microseconds},
                             .it_value = {.tv_sec = 0, .tv_usec = microseconds}};
    setitimer(ITIMER_REAL, &often, nullptr);
  }
  // The service's threads leave the signal to the test's.
  uint32_t bound_under_signals() {
    sigset_t alarm;
    sigemptyset(&alarm);
    sigaddset(&alarm, SIGALRM);
    pthread_sigmask(SIG_BLOCK, &alarm, nullptr);
    const uint32_t queue = bound();
    works(queue);
    pthread_sigmask(SIG_UNBLOCK, &alarm, nullptr);
    set_interval(300);
    return queue;
  }

  CountedSignal alarm_{SIGALRM};
};

TEST_F(Interrupted, TakesNoSignalForAFailure) {
  service.handler = [&](int socket, const FakeService::Request &request) {
    const int enough = signals_seen + 3;
    if (request.payload == Octets{1}) {
      while (signals_seen < enough) std::this_thread::yield();
    }
    return FakeService::echo(socket, request);
  };
  const uint32_t queue = bound_under_signals();
  for (int i = 0; i < 30; i++) EXPECT_EQ(exchange(queue, {1}).payload, (Octets{1, 0, 0, 0, 1}));

  EXPECT_GE(signals_seen, 90);
  EXPECT_EQ(service.connections(), 1U);
}

TEST_F(Interrupted, RefusesALargerReplyAllTheSame) {
  service.handler = [&](int socket, const FakeService::Request &request) {
    const int enough = signals_seen + 3;
    if (request.payload == Octets{1}) {
      while (signals_seen < enough) std::this_thread::yield();
      return FakeService::reply(socket, request, Octets(192 * 1024 + 1));
    }
    return FakeService::echo(socket, request);
  };
  const uint32_t queue = bound_under_signals();
  EXPECT_EQ(exchange(queue, {1}).error, static_cast<uint32_t>(EMSGSIZE));
}

TEST_F(Interrupted, GivesUpInTimeAllTheSame) {
  service.hello.receive_limit_ms = 60;
  service.handler = [&](int socket, const FakeService::Request &request) {
    if (request.payload == Octets{1}) held.wait();
    return FakeService::echo(socket, request);
  };
  const uint32_t queue = bound_under_signals();
  const auto start = std::chrono::steady_clock::now();
  const Answer answer = exchange(queue, {1});
  const auto taken = std::chrono::steady_clock::now() - start;
  held.give();

  EXPECT_EQ(answer.error, static_cast<uint32_t>(ETIMEDOUT));
  EXPECT_GE(taken, std::chrono::milliseconds(50));
  EXPECT_LT(taken, std::chrono::seconds(5));
}

}  // namespace
