// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// What an exchange does when all is well.
#include <fcntl.h>
#include <malloc.h>

#include <atomic>
#include <cerrno>
#include <thread>

#include "client.h"

namespace {

using testing::ElementsAre;

TEST_F(Mts, BindsWhereKsSocketPoints) {
  const uint32_t queue = bound();

  EXPECT_NE(queue, MTS_FAILED);
  EXPECT_EQ(service.connections(), 1U);
  EXPECT_TRUE(works(queue));
  EXPECT_EQ(service.connections(), 1U) << "the greeted connection is used";
}

TEST_F(Mts, FailsToBindWithoutServiceAndBindsWhenItHasCome) {
  EXPECT_EQ(bind_as(1), MTS_FAILED);
  EXPECT_EQ(mts_errno_get(MTS_FAILED), static_cast<uint32_t>(ENOENT));

  EXPECT_TRUE(works(bound()));
}

TEST_F(Mts, FailsToBindWhenThePathIsTooLongForASocket) {
  setenv("KS_SOCKET", ("/tmp/" + std::string(120, 'x')).c_str(), 1);

  EXPECT_EQ(bind_as(1), MTS_FAILED);
  EXPECT_EQ(mts_errno_get(MTS_FAILED), static_cast<uint32_t>(ENAMETOOLONG));
}

TEST_F(Mts, BindsAgainWithoutCollectingConnections) {
  const uint32_t queue = bound();
  for (int i = 0; i < 20; i++) EXPECT_EQ(bind_as(0x11223344), queue);

  service.wait_until_closed(20);
  EXPECT_TRUE(works(queue));
  EXPECT_EQ(service.connections(), 21U);
}

TEST_F(Mts, SendsHeaderDescriptorAndSectionsWithoutGaps) {
  const uint32_t queue = bound();
  const Octets name = {0x30, 0, 0, 7, 'k', '1'};
  const Octets data = {0xd0, 0xd1, 0xd2};
  ASSERT_EQ(exchange(queue, {6, 6, 3, 0, 12, 0}, {{name.data(), 6}, {data.data(), 3}}).payload,
            (Octets{1, 0, 0, 0, 6, 6, 3, 0, 12, 0, 0x30, 0, 0, 7, 'k', '1', 0xd0, 0xd1, 0xd2}));

  Octets seen = service.requests().at(0).datagram;
  ASSERT_EQ(seen.size(), 32U + 15);
  EXPECT_THAT(Octets(seen.begin() + 12, seen.begin() + 16), testing::Not(ElementsAre(0, 0, 0, 0))) << "a token";
  std::fill(seen.begin() + 12, seen.begin() + 16, uint8_t{0xaa});
  EXPECT_THAT(seen, ElementsAre(0x6b, 0x77, 0x73, 0x31,              // magic
                                0x01, 0x00, 0x06, 0x00,              // version, descriptor size
                                0x02, 0x04, 0x01, 0x00,              // opcode 66562
                                0xaa, 0xaa, 0xaa, 0xaa,              // token
                                0x00, 0x00, 0x00, 0xfe,              // node
                                0x0b, 0x00, 0x00, 0x00,              // service access point
                                0x44, 0x33, 0x22, 0x11,              // application id
                                0x0f, 0x00, 0x00, 0x00,              // payload size
                                0x06, 0x06, 0x03, 0x00, 0x0c, 0x00,  // descriptor
                                0x30, 0x00, 0x00, 0x07, 'k', '1',    // name
                                0xd0, 0xd1, 0xd2));                  // data
}

TEST_F(Mts, KeepsApplicationsApartByTheirQueues) {
  const uint32_t one = bound();
  const uint32_t other = bind_as(0xcafe);
  ASSERT_NE(one, other);
  works(other);
  works(one);

  EXPECT_EQ(service.requests().at(0).header.app_uuid, 0xcafeU);
  EXPECT_EQ(service.requests().at(1).header.app_uuid, 0x11223344U);
}

TEST_F(Mts, SendsNothingAtAllAsAnEmptyPayload) {
  const uint32_t queue = bound();

  EXPECT_EQ(exchange(queue, {}).payload, (Octets{1, 0, 0, 0}));
  EXPECT_EQ(service.requests().at(0).datagram.size(), 32U);
}

TEST_F(Mts, AcceptsANullSectionOfNoLength) {
  const uint32_t queue = bound();
  const uint8_t byte = 5;

  EXPECT_EQ(exchange(queue, {1}, {{nullptr, 0}, {&byte, 1}}).payload, (Octets{1, 0, 0, 0, 1, 5}));
}

TEST_F(Mts, RefusesAnUnboundQueue) {
  bound();
  for (const uint32_t queue : {MTS_FAILED, UINT32_C(0), UINT32_C(200), UINT32_C(70000)}) {
    const Answer answer = exchange(queue, {1});
    EXPECT_EQ(answer.sent, MTS_FAILED) << queue;
    EXPECT_EQ(answer.error, static_cast<uint32_t>(EBADF)) << queue;
  }
  EXPECT_EQ(service.requests().size(), 0U);
}

TEST_F(Mts, RefusesMissingData) {
  const uint32_t queue = bound();
  KsMtsMessage sent;

  EXPECT_EQ(exchange(queue, {}, {{nullptr, 3}}).error, static_cast<uint32_t>(EINVAL));
  for (const uint32_t size : {1U, 2U}) {
    EXPECT_EQ(mts_send(queue, 0, 0, 1, nullptr, size, &sent, 0, nullptr), MTS_FAILED);
    EXPECT_EQ(mts_errno_get(queue), static_cast<uint32_t>(EINVAL));
  }
}

// From a piece that is copied together to the largest there may be.
TEST_F(Mts, CarriesRequestsAndRepliesOfEverySize) {
  const uint32_t queue = bound();
  for (const size_t size : {1UL, 1023UL, 1024UL, 1025UL, 4096UL, 65'520UL, 131'070UL, 192 * 1024UL - 8}) {
    Octets data(size);
    for (size_t i = 0; i < size; i++) data[i] = static_cast<uint8_t>(i * 31 + size);
    const auto half = static_cast<uint32_t>(size / 2);
    const Octets descriptor = {1, 2, 3, 4};
    const Answer answer =
        exchange(queue, descriptor, {{data.data(), half}, {data.data() + half, static_cast<uint32_t>(size - half)}});
    Octets expected = {1, 0, 0, 0, 1, 2, 3, 4};
    expected.insert(expected.end(), data.begin(), data.end());
    EXPECT_TRUE(answer.payload == expected) << size;
  }
  EXPECT_EQ(service.connections(), 1U);
}

TEST_F(Mts, CarriesTheLargestRequestThatThereCanBe) {
  service.handler = [](int socket, const FakeService::Request &request) {
    return FakeService::reply(socket, request, {1, 0, 0, 0});
  };
  const uint32_t queue = bound();
  const Octets data(192 * 1024);
  EXPECT_EQ(exchange(queue, {1}, {{data.data(), 192 * 1024 - 1}}).payload, (Octets{1, 0, 0, 0}));
}

TEST_F(Mts, KeepsNoReplyThatWasDropped) {
  service.handler = [](int socket, const FakeService::Request &request) {
    Octets reply(10'000);
    reply[0] = 1;
    return FakeService::reply(socket, request, reply);
  };
  const uint32_t queue = bound();
  EXPECT_EQ(exchange(queue, {1}).payload.size(), 10'000U);
  const size_t before = mallinfo2().uordblks;
  for (int i = 0; i < 100; i++) EXPECT_EQ(exchange(queue, {1}).payload.size(), 10'000U);
  EXPECT_LT(mallinfo2().uordblks, before + 500'000);  // what the service keeps of requests is far less
}

TEST_F(Mts, RefusesARequestThatIsTooLargeAndGoesOn) {
  const uint32_t queue = bound();
  const Octets data(192 * 1024);
  const Octets descriptor(70'000);

  EXPECT_EQ(exchange(queue, {1}, {{data.data(), 192 * 1024}}).error, static_cast<uint32_t>(EMSGSIZE));
  EXPECT_EQ(exchange(queue, descriptor).error, static_cast<uint32_t>(EMSGSIZE));
  EXPECT_EQ(exchange(queue, {1}, {{data.data(), UINT32_MAX}, {data.data(), UINT32_MAX}}).error,
            static_cast<uint32_t>(EMSGSIZE));
  EXPECT_TRUE(works(queue));
  EXPECT_EQ(service.connections(), 1U);
}

TEST_F(Mts, CarriesMoreSectionsThanTheKernelIsGivenAtOnce) {
  const uint32_t queue = bound();
  const Octets piece(100, 0x5a);
  const std::vector<KsSection> sections(500, KsSection{piece.data(), 100});

  EXPECT_EQ(exchange(queue, {}, sections).payload.size(), 4U + 50'000);
}

TEST_F(Mts, UsesOneConnectionForAnyNumberOfExchangesInTurn) {
  const uint32_t queue = bound();
  for (int i = 0; i < 100; i++) ASSERT_TRUE(works(queue));

  EXPECT_EQ(service.connections(), 1U);
}

// The connection is free when the reply is in, whatever becomes of the messages.
TEST_F(Mts, NeedsNoDropsAndKeepsEachPayloadUntilItsOwn) {
  const uint32_t queue = bound();
  std::vector<KsMtsMessage> messages(100);
  for (uint8_t i = 0; i < messages.size(); i++) {
    KsMtsMessage sent;
    ASSERT_EQ(send_sections(queue, {i}, {}, &sent), 0U);
    ASSERT_EQ(receive_by(queue, mts_rr_token_get(&sent), &messages[i]), 0U);
    EXPECT_TRUE(works(queue));  // received and dropped between those that are not
  }

  EXPECT_EQ(service.connections(), 1U);
  for (uint8_t i = 0; i < messages.size(); i++) {
    EXPECT_EQ(payload_of(messages[i]), (Octets{1, 0, 0, 0, i}));
    mts_drop(queue, &messages[i]);
  }
}

TEST_F(Mts, LetsMessagesBeMovedAnywhere) {
  const uint32_t queue = bound();
  alignas(8) uint8_t area[64];
  auto *sent = reinterpret_cast<KsMtsMessage *>(area + 1);
  auto *received = reinterpret_cast<KsMtsMessage *>(area + 33);
  ASSERT_EQ(send_sections(queue, {42}, {}, sent), 0U);
  KsMtsMessage moved_sent = *sent;
  ASSERT_EQ(receive_by(queue, mts_rr_token_get(&moved_sent), received), 0U);
  KsMtsMessage moved_received = *received;
  memset(area, 0xff, sizeof area);

  EXPECT_EQ(payload_of(moved_received), (Octets{1, 0, 0, 0, 42}));
  mts_drop(queue, &moved_sent);
  mts_drop(queue, &moved_received);
}

TEST_F(Mts, TakesASecondDropForNothing) {
  const uint32_t queue = bound();
  KsMtsMessage sent;
  KsMtsMessage received;
  ASSERT_EQ(send_sections(queue, {42}, {}, &sent), 0U);
  ASSERT_EQ(receive_by(queue, mts_rr_token_get(&sent), &received), 0U);
  for (int i = 0; i < 2; i++) {
    mts_drop(queue, &sent);
    mts_drop(queue, &received);
    EXPECT_EQ(mts_rr_token_get(&sent), 0U);
    EXPECT_EQ(mts_payload_get(&received), nullptr);
    EXPECT_EQ(mts_payload_size(&received), 0U);
  }

  EXPECT_TRUE(works(queue));
}

TEST_F(Mts, ClosesTheConnectionOfARequestThatIsDroppedUnanswered) {
  const uint32_t queue = bound();
  KsMtsMessage sent;
  ASSERT_EQ(send_sections(queue, {42}, {}, &sent), 0U);
  const uint32_t token = mts_rr_token_get(&sent);
  mts_drop(queue, &sent);
  service.wait_until_closed(1);

  KsMtsMessage received;
  EXPECT_EQ(receive_by(queue, token, &received), MTS_FAILED);
  EXPECT_EQ(mts_errno_get(queue), static_cast<uint32_t>(EINVAL));
  EXPECT_TRUE(works(queue));
}

TEST_F(Mts, GivesAReplyOnce) {
  const uint32_t queue = bound();
  KsMtsMessage sent;
  KsMtsMessage received;
  ASSERT_EQ(send_sections(queue, {42}, {}, &sent), 0U);
  ASSERT_EQ(receive_by(queue, mts_rr_token_get(&sent), &received), 0U);

  KsMtsMessage again;
  EXPECT_EQ(receive_by(queue, mts_rr_token_get(&sent), &again), MTS_FAILED);
  mts_drop(queue, &received);
}

// Replies may be asked for in another order than requests were sent.
TEST_F(Mts, TiesRepliesToRequestsByToken) {
  const uint32_t queue = bound();
  KsMtsMessage sent[3];
  for (uint8_t i = 0; i < 3; i++) ASSERT_EQ(send_sections(queue, {i}, {}, &sent[i]), 0U);
  for (const uint8_t i : {uint8_t{2}, uint8_t{0}, uint8_t{1}}) {
    KsMtsMessage received;
    ASSERT_EQ(receive_by(queue, mts_rr_token_get(&sent[i]), &received), 0U);
    EXPECT_EQ(payload_of(received), (Octets{1, 0, 0, 0, i}));
    mts_drop(queue, &received);
    mts_drop(queue, &sent[i]);
  }
  EXPECT_EQ(service.connections(), 3U);
}

// Who gets a reply that is another connection's doesn't wait for one of its own: the two have come apart.
TEST_F(Mts, TakesAReplyToAnotherConnectionsRequestForAFault) {
  constexpr uint32_t kOfAnotherConnection = 1;
  constexpr uint32_t kEarlier = 2 << 12;
  service.hello.receive_limit_ms = 2000;
  service.handler = [](int socket, const FakeService::Request &request) {
    FakeService::Request other = request;
    other.header.token = (request.header.token ^ kOfAnotherConnection) - kEarlier;
    return FakeService::echo(socket, other);
  };
  EXPECT_EQ(exchange(bound(), {1}).error, static_cast<uint32_t>(EPROTO));
}

TEST_F(Mts, LeavesAMessageAloneThatItDidNotFill) {
  const uint32_t queue = bound();
  KsMtsMessage never = {};
  const KsMtsMessage before = never;
  mts_drop(queue, &never);
  EXPECT_EQ(memcmp(&never, &before, sizeof never), 0);
}

TEST_F(Mts, LetsThreadsShareAQueue) {
  const uint32_t queue = bound();
  std::atomic<int> wrong = 0;
  std::vector<std::thread> threads;
  for (uint8_t number = 0; number < 16; number++) {
    threads.emplace_back([&, number] {
      for (uint8_t i = 0; i < 200; i++) {
        if (exchange(queue, {number, i}).payload != Octets{1, 0, 0, 0, number, i}) wrong++;
      }
    });
  }
  for (std::thread &thread : threads) thread.join();

  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(service.requests().size(), 16U * 200);
  EXPECT_LE(service.connections(), 16U);
}

TEST_F(Mts, KeepsOneThreadsWaitFromDelayingOthers) {
  service.handler = [&](int socket, const FakeService::Request &request) {
    if (request.payload == Octets{1}) held.wait();
    return FakeService::echo(socket, request);
  };
  const uint32_t queue = bound();
  std::thread waiting([&] { EXPECT_EQ(exchange(queue, {1}).payload, (Octets{1, 0, 0, 0, 1})); });
  for (int i = 0; i < 50; i++) EXPECT_TRUE(works(queue));
  held.give();
  waiting.join();
}

TEST_F(Mts, RemembersErrorsByThread) {
  const uint32_t queue = bound();
  exchange(MTS_FAILED, {1});
  std::thread([&] { EXPECT_EQ(mts_errno_get(queue), 0U); }).join();

  EXPECT_EQ(mts_errno_get(queue), static_cast<uint32_t>(EBADF));
}

TEST_F(Mts, LeavesNothingOpenForExec) {
  const uint32_t queue = bound();
  works(queue);
  for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    const int number = std::stoi(entry.path().filename());
    struct stat status;
    if (fstat(number, &status) != 0 || !S_ISSOCK(status.st_mode)) continue;
    EXPECT_TRUE((fcntl(number, F_GETFD) & FD_CLOEXEC) != 0) << number;
  }
}

}  // namespace
