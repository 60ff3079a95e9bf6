// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// The service from a client's end of the socket, with datagrams that no library has put in order.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <sstream>
#include <thread>

#include "send_with_files.h"
#include "service/raw_client.h"
#include "service/service_process.h"

namespace {

using ks_test::config_of_own_user;
using ks_test::Datagram;
using ks_test::RawClient;
using ks_test::RawReply;
using ks_test::request_datagram;
using ks_test::ServiceProcess;
using ks_test::ServiceSetup;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::SizeIs;

constexpr uint32_t kInvalidArgs = 3;
constexpr uint32_t kTooLarge = 25;
constexpr uint32_t kUnknown = 26;

Datagram bytes(const std::string &hex) {
  Datagram result;
  std::istringstream in(hex);
  for (unsigned byte = 0; in >> std::hex >> byte;) result.push_back(static_cast<uint8_t>(byte));
  return result;
}

size_t count(const std::string &text, const std::string &part) {
  size_t found = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++found;
  return found;
}

// A service and a client that are shared by the tests of a suite: what one client sends must not matter to the next.
class Raw : public testing::Test {
 protected:
  static void SetUpTestSuite() { service = new ServiceProcess; }
  static void TearDownTestSuite() {
    EXPECT_EQ(service->stop(), 0);
    delete service;
  }

  RawReply reply_to(const Datagram &datagram) {
    EXPECT_TRUE(client.send(datagram));
    const auto reply = client.receive();
    if (!reply) throw std::runtime_error("closed");
    return *reply;
  }
  void expect_alive() { EXPECT_EQ(client.exchange(66561, bytes("04 00 00 00 00 00 00 00")).data().size(), 4u); }

  static ServiceProcess *service;
  RawClient client{service->socket()};
};

ServiceProcess *Raw::service = nullptr;

const char kHello[] = "6b 77 73 31 01 00 00 00 01 00 00 00 05 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00";

TEST_F(Raw, GreetsWithVdcLimitVersionAndCache) {
  const RawReply reply = reply_to(bytes(kHello));
  ASSERT_THAT(reply.payload, SizeIs(240));
  EXPECT_THAT(Datagram(reply.payload.begin(), reply.payload.begin() + 16),
              ElementsAre(1, 0, 0, 0, 7, 0, 0, 0, 0x30, 0x75, 0, 0, 0, 1, 1, 0));  // VDC 7, 30000 ms, 1.0, a channel
  EXPECT_STREQ(reinterpret_cast<const char *>(reply.payload.data()) + 16,
               ("lmdb://" + service->cache_folder()).c_str());
}

TEST_F(Raw, RefusesAHelloWithAPayload) {
  EXPECT_EQ(client.exchange(1, {}, bytes("00")).result(), kInvalidArgs);
  expect_alive();
}

TEST_F(Raw, RepeatsOpcodeAndTokenInEveryReply) {
  const RawReply reply = reply_to(request_datagram(66561, 0xdeadbeef, bytes("01 aa bb cc 44 33 22 11")));
  EXPECT_EQ(reply.header.magic, 0x3173776bu);
  EXPECT_EQ(reply.header.version, 1);
  EXPECT_EQ(reply.header.descriptor_size, 0);
  EXPECT_EQ(reply.header.opcode, 66561u);
  EXPECT_EQ(reply.header.token, 0xdeadbeef);
  EXPECT_EQ(reply.header.payload_size, 7u);
}

TEST_F(Raw, SendsAsManyRandomBytesAsAskedFor) {
  for (const uint8_t wanted : Datagram{1, 2, 16, 255}) {
    const RawReply reply = client.exchange(66561, {wanted, 0, 0, 0, 0, 0, 0, 0});
    ASSERT_THAT(reply.payload, SizeIs(6u + wanted));
    EXPECT_THAT(Datagram(reply.payload.begin(), reply.payload.begin() + 6), ElementsAre(1, 0, 0, 0, wanted, 0));
  }
}

TEST_F(Raw, NeverSendsTheSameRandomBytesTwice) {
  std::vector<Datagram> seen;
  for (int i = 0; i < 300; ++i) seen.push_back(client.exchange(66561, bytes("10 00 00 00 00 00 00 00")).data());
  std::sort(seen.begin(), seen.end());
  EXPECT_EQ(std::adjacent_find(seen.begin(), seen.end()), seen.end());
}

TEST_F(Raw, RefusesRandomRequestsOfAnotherShape) {
  EXPECT_EQ(client.exchange(66561, bytes("00 00 00 00 00 00 00 00")).result(), kInvalidArgs);
  EXPECT_EQ(client.exchange(66561, bytes("01 00 00 00 00 00 00")).result(), kInvalidArgs);
  EXPECT_EQ(client.exchange(66561, {}).result(), kInvalidArgs);
}

TEST_F(Raw, TellsFirmwareVersionAtSixAndStatusAtEight) {
  EXPECT_THAT(client.exchange(66593, {}).payload, ElementsAre(1, 0, 0, 0, 3, 0, 0x00, 0x01, 0));
}

TEST_F(Raw, AnswersCompactionWithAResultAlone) {
  EXPECT_THAT(client.exchange(66594, {}).payload, ElementsAre(1, 0, 0, 0));
}

TEST_F(Raw, AnswersUnknownOpcodesAndGoesOn) {
  for (const uint32_t opcode : {0u, 2u, 66560u, 66589u, 66592u, 66595u, 0xffffffffu}) {
    EXPECT_THAT(client.exchange(opcode, {}).payload, ElementsAre(26, 0, 0, 0)) << opcode;
  }
  expect_alive();
}

TEST_F(Raw, TakesAnEmptyDatagramForMalformedNotForTheEnd) {
  EXPECT_EQ(reply_to({}).result(), kInvalidArgs);
  expect_alive();
}

TEST_F(Raw, AnswersDatagramsShorterThanAHeader) {
  Datagram datagram = bytes(kHello);
  datagram.pop_back();
  EXPECT_EQ(reply_to(datagram).result(), kInvalidArgs);
  EXPECT_EQ(reply_to(bytes("6b")).result(), kInvalidArgs);
  expect_alive();
}

TEST_F(Raw, AnswersSizesThatContradictEachOther) {
  Datagram longer = request_datagram(66561, 3, bytes("04 00 00 00 00 00 00 00"));
  longer.push_back(0);
  const RawReply reply = reply_to(longer);
  EXPECT_EQ(reply.result(), kInvalidArgs);
  EXPECT_EQ(reply.header.token, 3u);
  Datagram wrong_descriptor = request_datagram(66561, 3, bytes("04 00 00 00 00 00 00 00"));
  wrong_descriptor[6] = 9;
  EXPECT_EQ(reply_to(wrong_descriptor).result(), kInvalidArgs);
  expect_alive();
}

TEST_F(Raw, AnswersTheTokenThatNobodyHas) {
  EXPECT_EQ(reply_to(request_datagram(66593, 0, {})).result(), kInvalidArgs);
  expect_alive();
}

TEST_F(Raw, AnswersAnotherVersionOfTheProtocol) {
  Datagram datagram = request_datagram(66593, 3, {});
  datagram[4] = 2;
  const RawReply reply = reply_to(datagram);
  EXPECT_EQ(reply.result(), 24u);
  EXPECT_EQ(reply.header.version, 1);
  expect_alive();
}

TEST_F(Raw, HangsUpOnAnotherProtocolAndServesTheOthers) {
  RawClient stranger(service->socket());
  EXPECT_TRUE(stranger.send(bytes("47 45 54 20 2f 0d 0a")));
  EXPECT_TRUE(stranger.is_closed());
  expect_alive();
}

TEST_F(Raw, TakesTheLargestDatagramAndAnswersALargerOne) {
  EXPECT_EQ(reply_to(request_datagram(66595, 3, {}, Datagram(192 * 1024))).result(), kUnknown);
  const RawReply reply = reply_to(request_datagram(66595, 4, {}, Datagram(192 * 1024 + 1)));
  EXPECT_EQ(reply.result(), kTooLarge);
  EXPECT_EQ(reply.header.token, 4u);
  EXPECT_EQ(reply_to(request_datagram(66595, 5, {}, Datagram(300 * 1024))).result(), kTooLarge);
  expect_alive();
}

TEST_F(Raw, DropsDescriptorsThatAreSentAlong) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  ASSERT_TRUE(send_with_files(client.socket(), request_datagram(66593, 3, {}), {ends[1]}));
  close(ends[1]);
  EXPECT_EQ(client.receive()->result(), 1u);
  char byte;
  EXPECT_EQ(read(ends[0], &byte, 1), 0);  // the end: nobody else holds the other side
  close(ends[0]);
}

TEST_F(Raw, AnswersRequestsOfOneClientInTheirOrder) {
  for (uint32_t token = 1; token <= 20; ++token) {
    ASSERT_TRUE(client.send(request_datagram(token % 2 == 0 ? 66593 : 66595, token, {})));
  }
  for (uint32_t token = 1; token <= 20; ++token) EXPECT_EQ(client.receive()->header.token, token);
}

TEST(Flood, OfMalformedDatagramsIsLoggedOnce) {
  ServiceProcess service;
  for (int i = 0; i < 3; ++i) {
    RawClient client(service.socket());
    for (int j = 0; j < 50; ++j) {
      ASSERT_TRUE(client.send(bytes("00")));
      ASSERT_EQ(client.receive()->result(), kInvalidArgs);
    }
  }
  EXPECT_EQ(count(service.log(), "sent a malformed datagram"), 1u);
  service.signal(SIGUSR1);
  service.stop();
  EXPECT_THAT(service.log(), HasSubstr("malformed datagrams 150"));
}

TEST(Flood, OfRequestsWhoseRepliesNobodyReadsEnds) {
  ServiceProcess service({.config = "[service]\nsend_limit_ms = 50\n"});
  RawClient flooding(service.socket());
  const Datagram request = request_datagram(66561, 1, bytes("ff 00 00 00 00 00 00 00"));
  while (flooding.send(request)) continue;  // in the end the service closes
  RawClient other(service.socket());
  EXPECT_EQ(other.exchange(66593, {}).result(), 1u);
  EXPECT_EQ(count(service.log(), "doesn't read its replies"), 1u);
}

TEST(Flood, OfOneClientDoesntKeepOthersFromTheirReplies) {
  ServiceProcess service;
  RawClient flooding(service.socket());
  const Datagram request = request_datagram(66561, 1, bytes("ff 00 00 00 00 00 00 00"));
  while (send(flooding.socket(), request.data(), request.size(), MSG_DONTWAIT | MSG_NOSIGNAL) > 0) continue;
  RawClient other(service.socket());
  for (int i = 0; i < 100; ++i) EXPECT_EQ(other.exchange(66593, {}).result(), 1u);
}

TEST(Silence, EndsAConnectionThatNeverSpokeAndNoOther) {
  ServiceProcess service({.config = "[service]\nsilence_limit_ms = 500\n"});
  RawClient spoke(service.socket());
  spoke.hello();
  RawClient silent(service.socket());
  EXPECT_TRUE(silent.is_closed());
  EXPECT_EQ(spoke.exchange(66593, {}).result(), 1u);
  EXPECT_EQ(count(service.log(), "connected and said nothing"), 1u);
}

TEST(ConnectionLimits, CloseWhatIsAboveThemAndMakeRoomAgain) {
  ServiceProcess service({.config = config_of_own_user(7) + "[limits]\nconnections_per_user = 2\n"});
  RawClient first(service.socket());
  first.hello();
  {
    RawClient second(service.socket());
    second.hello();
    RawClient third(service.socket());
    EXPECT_TRUE(third.is_closed());
    EXPECT_EQ(first.exchange(66593, {}).result(), 1u);
  }
  EXPECT_EQ(count(service.log(), "refused a connection of user"), 1u);
  EXPECT_THAT(service.log(),
              HasSubstr("2 of 2 connections of this user are in use (connections_per_user under [limits])"));
  // The service notices in its own time that the second has left.
  bool greeted = false;
  while (!greeted) {
    RawClient next(service.socket());
    greeted = next.send(bytes(kHello)) && next.receive();
  }
}

TEST(ConnectionLimits, OfUsersWithoutAVdcHoldForAllOfThem) {
  ServiceProcess service({.config = "[limits]\nconnections_unmapped = 2\n"});
  RawClient first(service.socket());
  first.hello();
  RawClient second(service.socket());
  second.hello();
  RawClient third(service.socket());
  EXPECT_TRUE(third.is_closed());
  EXPECT_THAT(service.log(), HasSubstr("2 of 2 connections of users without a VDC are in use"));
  EXPECT_THAT(service.log(), HasSubstr("refused a connection of user " + std::to_string(getuid()) +
                                       ": users without a VDC have too many (connections_unmapped under [limits])"));
}

TEST(ConnectionLimits, HoldForAllTogether) {
  ServiceProcess service({.config = "[limits]\nconnections = 1\n"});
  RawClient first(service.socket());
  first.hello();
  RawClient second(service.socket());
  EXPECT_TRUE(second.is_closed());
  EXPECT_THAT(service.log(), HasSubstr("all together have too many"));
}

// More than a service can accept that has 16 descriptors.
std::vector<std::unique_ptr<RawClient>> twenty_clients(const ServiceProcess &service) {
  std::vector<std::unique_ptr<RawClient>> clients;
  for (int i = 0; i < 20; ++i) {
    clients.push_back(std::make_unique<RawClient>(service.socket()));
    EXPECT_TRUE(clients.back()->send(bytes(kHello)));
  }
  return clients;
}

TEST(ConnectionLimits, LeaveClientsWaitingWhenThereAreNoDescriptors) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "the sanitizer's check of virtual calls needs a descriptor of its own, and reports a fault without";
#endif
  ServiceSetup setup;
  setup.wrapper = {"/bin/sh", "-c", "ulimit -n 16; exec \"$@\"", "sh"};
  ServiceProcess service(setup);
  std::vector<std::unique_ptr<RawClient>> clients = twenty_clients(service);
  ASSERT_TRUE(clients.front()->receive());
  while (service.log().find("can't accept connections: Too many open files") == std::string::npos) {
    ASSERT_EQ(clients.front()->exchange(66593, {}).result(), 1u);  // who is in is served
  }
  RawClient &last = *clients.back();
  for (int i = 0; i < 19; ++i) clients[static_cast<size_t>(i)].reset();
  EXPECT_TRUE(last.receive()) << service.log();
}

TEST(ConnectionLimits, AreAboveTheDescriptorsThatTheServiceBeganWith) {
  ServiceSetup setup;
  setup.wrapper = {"/bin/sh", "-c", "ulimit -Sn 16; exec \"$@\"", "sh"};
  ServiceProcess service(setup);
  for (const auto &client : twenty_clients(service)) EXPECT_TRUE(client->receive());
}

TEST(ManyClients, AreServedAtOnce) {
  ServiceProcess service;
  std::vector<std::thread> threads;
  std::atomic<int> good{0};
  for (int i = 0; i < 16; ++i) {
    threads.emplace_back([&] {
      RawClient client(service.socket());
      for (int j = 0; j < 200; ++j) good += client.exchange(66593, {}).result() == 1;
    });
  }
  for (std::thread &thread : threads) thread.join();
  EXPECT_EQ(good, 16 * 200);
}

TEST(KilledClient, LeavesTheServiceToTheOthers) {
  ServiceProcess service;
  for (int i = 0; i < 5; ++i) {
    const int status = ks_test::run_as(getuid(), getgid(), [&] {
      RawClient client(service.socket());
      for (uint32_t token = 1; token < 10; ++token) client.send(request_datagram(66593, token, {}));
      return raise(SIGKILL);
    });
    EXPECT_EQ(status, -SIGKILL);
  }
  RawClient other(service.socket());
  EXPECT_EQ(other.exchange(66593, {}).result(), 1u);
}

}  // namespace
