// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// What is asked of the kernel and of the service while a connection is made.
#include <malloc.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <cerrno>
#include <functional>
#include <utility>

#include "client.h"
#include "own_run.h"
#include "socket_hooks.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// A datagram of the largest size, and what the kernel adds to it.
constexpr int kSendBuffer = 32 + 192 * 1024 + 32;

using Set = std::pair<int, int>;

class Connecting : public Mts {
 protected:
  // Binds on a kernel whose send buffers have that size, and which refuses what `refused` says, and returns what it was
  // asked for.
  std::vector<Set> buffers_asked_for(int size, int refused = 0) {
    std::vector<Set> asked;
    const WithSocketHooks hooks({.send_buffer = [size] { return size; },
                                 .set_send_buffer =
                                     [&](int option, int wanted) {
                                       asked.emplace_back(option, wanted);
                                       errno = EPERM;
                                       return option == refused ? -1 : 0;
                                     }});
    EXPECT_NE(bound(), MTS_FAILED);
    return asked;
  }
};

TEST_F(Connecting, LeavesASendBufferAloneThatHoldsTheLargestDatagram) {
  EXPECT_THAT(buffers_asked_for(kSendBuffer), IsEmpty());
}

TEST_F(Connecting, RaisesASmallerSendBuffer) {
  EXPECT_THAT(buffers_asked_for(kSendBuffer - 1), ElementsAre(Set(SO_SNDBUFFORCE, kSendBuffer)));
}

TEST_F(Connecting, RaisesASendBufferAsFarAsItMay) {
  EXPECT_THAT(buffers_asked_for(4096, SO_SNDBUFFORCE),
              ElementsAre(Set(SO_SNDBUFFORCE, kSendBuffer), Set(SO_SNDBUF, kSendBuffer)));
}

TEST_F(Connecting, LimitsWaitsByThirtySecondsAndThenAsTheServiceSays) {
  service.hello.receive_limit_ms = 61'234;
  std::vector<std::vector<long>> limits;
  const WithSocketHooks hooks({.set_limit = [&](int option, long seconds, long microseconds) {
    limits.push_back({option, seconds, microseconds});
  }});
  EXPECT_NE(bound(), MTS_FAILED);
  EXPECT_THAT(limits, ElementsAre(ElementsAre(SO_RCVTIMEO, 30, 0), ElementsAre(SO_SNDTIMEO, 30, 0),
                                  ElementsAre(SO_RCVTIMEO, 61, 234'000), ElementsAre(SO_SNDTIMEO, 61, 234'000)));
}

TEST_F(Connecting, KeepsTheThirtySecondsOfAServiceThatSaysNone) {
  service.hello.receive_limit_ms = 0;
  std::vector<long> seconds;
  const WithSocketHooks hooks({.set_limit = [&](int, long limit, long) { seconds.push_back(limit); }});
  EXPECT_NE(bound(), MTS_FAILED);
  EXPECT_THAT(seconds, ElementsAre(30, 30, 30, 30));
}

TEST_F(Connecting, TriesAgainAfterASignal) {
  service.start();
  int tries = 0;
  const WithSocketHooks hooks({.connect = [&] {
    errno = EINTR;
    return ++tries < 3 ? -1 : SocketHooks::kPassOn;
  }});
  EXPECT_TRUE(works(bind_as(1)));
  EXPECT_EQ(tries, 3);
}

#ifndef __SANITIZE_THREAD__
TEST_F(Connecting, GreetsAgainAfterASignal) {
  service.start();
  int tries = 0;
  const WithSocketHooks hooks({.send = [&]() -> long {
    errno = EINTR;
    return ++tries < 3 ? -1 : SocketHooks::kPassOn;
  }});
  EXPECT_NE(bind_as(1), MTS_FAILED);
  EXPECT_EQ(tries, 3);
}
#endif

TEST_F(Connecting, TimesOutWhereTheQueueOfConnectionsDoesNotMove) {
  const WithSocketHooks hooks({.connect = [] {
    errno = EAGAIN;
    return -1;
  }});
  EXPECT_EQ(bind_as(1), MTS_FAILED);
  EXPECT_EQ(mts_errno_get(MTS_FAILED), static_cast<uint32_t>(ETIMEDOUT));
}

TEST_F(Connecting, GreetsWithAHeaderAlone) {
  Octets greeting;
  service.greeter = [&](int socket, const FakeService::Request &request) {
    greeting = request.datagram;
    return FakeService::reply(socket, request,
                              Octets(reinterpret_cast<const uint8_t *>(&service.hello),
                                     reinterpret_cast<const uint8_t *>(&service.hello + 1)));
  };
  EXPECT_NE(bound(), MTS_FAILED);
  EXPECT_EQ(greeting, (Octets{'k', 'w', 's', '1',  1,  0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0,
                              0,   0,   0,   0xfe, 11, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
}

// A greeting that is answered wrongly: there is no service of this kind.
class WrongGreeting : public Mts, public testing::WithParamInterface<std::pair<const char *, void (*)(Octets &)>> {};

TEST_P(WrongGreeting, FailsTheBinding) {
  service.greeter = [&](int socket, const FakeService::Request &request) {
    const auto *hello = reinterpret_cast<const uint8_t *>(&service.hello);
    Octets datagram = FakeService::reply_datagram(request, Octets(hello, hello + sizeof service.hello));
    GetParam().second(datagram);
    return FakeService::send_raw(socket, datagram);
  };
  EXPECT_EQ(bound(), MTS_FAILED);
  EXPECT_EQ(mts_errno_get(MTS_FAILED), static_cast<uint32_t>(EPROTO));
}

// Cuts or fills the datagram up to so many bytes behind the header, whose word for it is right.
template <uint32_t kSize>
void resize(Octets &datagram) {
  datagram.resize(32 + kSize);
  const uint32_t size = kSize;
  memcpy(datagram.data() + 28, &size, sizeof size);
}

INSTANTIATE_TEST_SUITE_P(Replies, WrongGreeting,
                         testing::Values(std::pair("WithoutAResult", &resize<3>),
                                         std::pair("OfTheResultAloneThoughItIsSuccess", &resize<4>),
                                         std::pair("CutByAByte", &resize<239>),
                                         std::pair("LongerByAByte", &resize<241>),
                                         std::pair(
                                             "OfAnotherOpcode", +[](Octets &datagram) { datagram[8] ^= 2; }),
                                         std::pair(
                                             "OfAnotherToken", +[](Octets &datagram) { datagram[12] ^= 2; })),
                         [](const auto &instance) { return instance.param.first; });

// The text's last byte may be its end.
TEST_F(Connecting, TakesTheLongestText) {
  memset(service.hello.running_cfg_uri, 'x', sizeof service.hello.running_cfg_uri - 1);
  service.hello.running_cfg_uri[sizeof service.hello.running_cfg_uri - 1] = '\0';
  EXPECT_TRUE(works(bound()));
}

TEST_F(Connecting, TakesTheLongestPath) {
  const std::string folder = socket_path().substr(0, socket_path().rfind('/') + 1);
  const std::string path = folder + std::string(107 - folder.size(), 's');
  setenv("KS_SOCKET", path.c_str(), 1);
  FakeService there(path);
  there.start();
  EXPECT_TRUE(works(bind_as(1)));

  setenv("KS_SOCKET", (path + "s").c_str(), 1);
  EXPECT_EQ(bind_as(1), MTS_FAILED);
  EXPECT_EQ(mts_errno_get(MTS_FAILED), static_cast<uint32_t>(ENAMETOOLONG));
  setenv("KS_SOCKET", path.c_str(), 1);
  EXPECT_TRUE(works(bind_as(1)));
}

TEST_F(Connecting, TakesTheShortestPath) {
  service.start();
  EXPECT_TRUE(passes_in_child([this] {
    const std::string path = socket_path();
    if (chdir(path.substr(0, path.rfind('/')).c_str()) != 0 || symlink("ksd.sock", "s") != 0) return false;
    setenv("KS_SOCKET", "s", 1);
    return works(bind_as(1));
  }));
}

// What becomes of a datagram that doesn't go.
class Sending : public Mts {
 protected:
  void SetUp() override {
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "under this sanitizer datagrams go another way";
#endif
  }

  static SocketHooks each_send(std::function<long()> send) {
    return {.send = std::move(send)};
  }
  static long fail_with(int error) {
    errno = error;
    return -1;
  }
};

TEST_F(Sending, IsTriedAgainAfterASignal) {
  const uint32_t queue = bound();
  int tries = 0;
  const WithSocketHooks hooks(each_send([&] { return ++tries < 4 ? fail_with(EINTR) : SocketHooks::kPassOn; }));
  EXPECT_TRUE(works(queue));
  EXPECT_EQ(tries, 4);
}

TEST_F(Sending, EndsTheConnectionWhenItTakesTooLong) {
  const uint32_t queue = bound();
  ASSERT_TRUE(works(queue));
  {
    const WithSocketHooks hooks(each_send([] { return fail_with(EAGAIN); }));
    EXPECT_EQ(exchange(queue, {1}).error, static_cast<uint32_t>(ETIMEDOUT));
  }
  service.wait_until_closed(1);
  EXPECT_TRUE(works(queue));
  EXPECT_EQ(service.connections(), 2U);
}

TEST_F(Sending, KeepsTheConnectionWhenTheRequestIsAtFault) {
  const uint32_t queue = bound();
  ASSERT_TRUE(works(queue));
  {
    const WithSocketHooks hooks(each_send([] { return fail_with(EMSGSIZE); }));
    EXPECT_EQ(exchange(queue, {1}).error, static_cast<uint32_t>(EMSGSIZE));
  }
  EXPECT_TRUE(works(queue));
  EXPECT_EQ(service.connections(), 1U);
}

// A connection has 2^20 - 1 tokens, and 0 is none of them.
TEST_F(Sending, BeginsItsTokensAgain) {
  const uint32_t queue = bound();
  KsMtsMessage sent;
  KsMtsMessage received;
  ASSERT_EQ(send_sections(queue, {1}, {}, &sent), 0U);
  ASSERT_EQ(receive_by(queue, mts_rr_token_get(&sent), &received), 0U);
  mts_drop(queue, &received);
  const uint32_t first = mts_rr_token_get(&sent);
  {
    const WithSocketHooks hooks(each_send([] { return fail_with(EMSGSIZE); }));
    const Octets descriptor = {1};
    for (uint32_t serial = first >> 12; serial < (1 << 20) - 1; serial++) {
      ASSERT_EQ(send_sections(queue, descriptor, {}, &sent), MTS_FAILED);
    }
  }
  ASSERT_EQ(send_sections(queue, {2}, {}, &sent), 0U);
  EXPECT_EQ(mts_rr_token_get(&sent), 1U << 12 | (first & 0xfff));
  ASSERT_EQ(receive_by(queue, mts_rr_token_get(&sent), &received), 0U);
  EXPECT_EQ(payload_of(received), (Octets{1, 0, 0, 0, 2}));
  mts_drop(queue, &received);
}

TEST_F(Sending, CostsNoMemoryWhereThereIsNoService) {
  bind_as(1);
  const size_t before = mallinfo2().uordblks;
  for (int i = 0; i < 100; i++) EXPECT_EQ(bind_as(1), MTS_FAILED);
  EXPECT_LT(mallinfo2().uordblks, before + 4096);
}

TEST_F(Connecting, GoesToRunKsWhereTheEnvironmentNamesNoPath) {
  if (!passes_in_child(gives_own_run)) GTEST_SKIP() << "needs a mount namespace";
  for (const char *named : {static_cast<const char *>(nullptr), ""}) {
    EXPECT_TRUE(passes_in_child([named] {
      if (!gives_own_run() || mkdir("/run/ks", 0755) != 0) return false;
      FakeService served("/run/ks/ksd.sock");
      served.start();
      unsetenv("KS_SOCKET");
      if (named != nullptr) setenv("KS_SOCKET", named, 1);
      return bind_as(1) != MTS_FAILED;
    }));
  }
}

}  // namespace
