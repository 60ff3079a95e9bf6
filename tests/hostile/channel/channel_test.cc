// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// Clients that do with a channel what no library does, on a real service: each gets what it has earned, and nobody else
// notices.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <functional>
#include <memory>
#include <thread>

#include "leave.h"
#include "service/raw_channel.h"
#include "service/service_process.h"
#include "setup.h"

namespace {

using ks_test::Datagram;
using ks_test::RawChannel;
using ks_test::RawClient;
using ks_test::RawReply;
using ks_test::request_datagram;
using ks_test::ServiceProcess;

constexpr uint32_t kRandom = 66561;
constexpr uint32_t kStore = 66562;

Datagram random_request(uint32_t token = 1) {
  return request_datagram(kRandom, token, {4, 0, 0, 0, 0, 0, 0, 0});
}

// A store of `size` bytes under the name "k", as large as wanted.
Datagram store_request(uint16_t size) {
  const Datagram name{KS_NAME_TAG_SECRET, 0, 0, 7, 'k'};
  const auto offset = static_cast<uint8_t>(12 + name.size());
  const auto low = static_cast<uint8_t>(size), high = static_cast<uint8_t>(size >> 8);
  const auto end_of = static_cast<uint16_t>(offset + size);
  Datagram sections = name;
  sections.resize(name.size() + size, 0x5a);
  return request_datagram(kStore, 3,
                          {static_cast<uint8_t>(name.size()), 12, 0, offset, low, high, offset, 0, 0, 0,
                           static_cast<uint8_t>(end_of), static_cast<uint8_t>(end_of >> 8)},
                          sections);
}

// All cases of a suite meet the same service, which is well at the end.
template <typename Case>
class OnOneService : public testing::TestWithParam<Case> {
 protected:
  static void SetUpTestSuite() { service = new ServiceProcess(setup_with("")); }
  static void TearDownTestSuite() {
    EXPECT_EQ(service->stop(), 0);
    delete service;
  }
  static inline ServiceProcess *service = nullptr;
};

// How many channels the service counts, by an administrator's word.
uint64_t channels_of(const ServiceProcess &service) {
  RawClient administrator(service.socket());
  const Datagram limits = administrator.exchange(HOST_OP_LIMITS, {}).payload;
  for (size_t at = sizeof(HostLimitsReply); at + sizeof(HostLimitRecord) <= limits.size();
       at += sizeof(HostLimitRecord)) {
    HostLimitRecord record;
    std::memcpy(&record, limits.data() + at, sizeof record);
    if (std::string(record.key) == "channels") return record.used;
  }
  throw std::runtime_error("the service has no such limit");
}

bool comes_to(const ServiceProcess &service, uint64_t channels) {
  for (int i = 0; i < 1000; ++i) {
    if (channels_of(service) == channels) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}

bool closes(RawClient &client) {
  pollfd state{.fd = client.socket(), .events = POLLRDHUP, .revents = 0};
  return poll(&state, 1, 30'000) == 1;
}

// ---- What a client may do before a channel is in use.

struct Asking {
  const char *name;
  Datagram asked;
  KsResult result;
};

const Asking kAskings[] = {
    {"UseOfWhatIsntMade", RawChannel::step(HOST_CHANNEL_USE), KS_INVALID_ARGS},
    {"NoStep", RawChannel::step(0), KS_INVALID_ARGS},
    {"AnUnknownStep", RawChannel::step(3), KS_INVALID_ARGS},
    {"AllBits", RawChannel::step(UINT32_MAX), KS_INVALID_ARGS},
    {"NoDescriptor", request_datagram(HOST_OP_CHANNEL, 1, {}), KS_INVALID_ARGS},
    {"HalfADescriptor", request_datagram(HOST_OP_CHANNEL, 1, {1, 0}), KS_INVALID_ARGS},
    {"MoreThanADescriptor", request_datagram(HOST_OP_CHANNEL, 1, {1, 0, 0, 0, 0}), KS_INVALID_ARGS},
    {"ASection", request_datagram(HOST_OP_CHANNEL, 1, {1, 0, 0, 0}, {9}), KS_INVALID_ARGS},
};

class HostileAsking : public OnOneService<Asking> {};

TEST_P(HostileAsking, IsAnsweredAndAllGoesOnByTheSocket) {
  RawClient client(service->socket());
  ASSERT_TRUE(client.send(GetParam().asked));
  EXPECT_EQ(client.receive()->result(), GetParam().result);
  EXPECT_EQ(client.exchange(kRandom, {4, 0, 0, 0, 0, 0, 0, 0}).data().size(), 4u);
}

INSTANTIATE_TEST_SUITE_P(Channel, HostileAsking, testing::ValuesIn(kAskings),
                         [](const auto &test) { return test.param.name; });

// ---- What goes through a channel.

struct Saying {
  const char *name;
  Datagram said;
  std::optional<uint32_t> size;    // that it is said to have
  std::optional<uint32_t> result;  // nothing: the connection is closed
};

Datagram spoilt(Datagram datagram, size_t at, uint8_t byte) {
  datagram.at(at) = byte;
  return datagram;
}

Datagram cut(Datagram datagram, size_t size) {
  datagram.resize(size);
  return datagram;
}

const Saying kSayings[] = {
    {"ARequest", random_request(), {}, KS_SUCCESS},
    {"NothingAtAll", {}, 0, KS_INVALID_ARGS},
    {"OneByte", {0x6b}, {}, KS_INVALID_ARGS},
    {"HalfAHeader", cut(random_request(), 16), {}, KS_INVALID_ARGS},
    {"FewerBytesThanItSays", spoilt(random_request(), 28, 200), {}, KS_INVALID_ARGS},
    {"MoreBytesThanItSays", random_request(), 200, KS_INVALID_ARGS},
    {"NoToken", random_request(0), {}, KS_INVALID_ARGS},
    {"AnotherVersion", spoilt(random_request(), 4, 9), {}, KS_VERSION_MISMATCH},
    {"AnotherProtocol", spoilt(random_request(), 0, 0), {}, {}},
    {"AnUnknownOpcode", request_datagram(70000, 1, {}), {}, KS_RPC_ERROR},
    {"OneByteMoreThanTheArea", random_request(), sizeof(HostChannel::request_area) + 1, KS_RPC_TOO_LARGE},
    {"TheSizeOfTheMemory", random_request(), sizeof(HostChannel), KS_RPC_TOO_LARGE},
    {"MoreThanADatagram", random_request(), HOST_WIRE_MAX_DATAGRAM + 1, KS_RPC_TOO_LARGE},
    {"TheLargestSize", random_request(), UINT32_MAX - 1, KS_RPC_TOO_LARGE},
    {"OnTheSocketWhereNothingIs", {}, HOST_CHANNEL_ON_SOCKET, {}},
    {"AnotherChannel", RawChannel::step(HOST_CHANNEL_MAKE), {}, KS_INVALID_ARGS},
    {"TheSameChannelAgain", RawChannel::step(HOST_CHANNEL_USE), {}, KS_INVALID_ARGS},
    {"Hello", request_datagram(HOST_OP_HELLO, 1, {}), {}, KS_SUCCESS},
};

class HostileSayings : public OnOneService<Saying> {};

TEST_P(HostileSayings, IsAnsweredAsOnTheSocket) {
  RawClient client(service->socket());
  RawChannel channel(client);

  channel.post(GetParam().said, GetParam().size);
  const std::optional<RawReply> reply = channel.answer();

  EXPECT_EQ(reply.has_value(), GetParam().result.has_value());
  if (reply) {
    EXPECT_EQ(reply->result(), GetParam().result);
    EXPECT_EQ(channel.exchange(random_request()).data().size(), 4u);
  } else {
    EXPECT_TRUE(closes(client));
  }
  EXPECT_EQ(RawClient(service->socket()).exchange(kRandom, {4, 0, 0, 0, 0, 0, 0, 0}).data().size(), 4u);
}

INSTANTIATE_TEST_SUITE_P(Channel, HostileSayings, testing::ValuesIn(kSayings),
                         [](const auto &test) { return test.param.name; });

// ---- What a client may do to the memory, the socket and itself while its channel is in use. Whatever it is, the
// connection ends when the client does, and the service when it is asked to.

struct Doing {
  const char *name;
  std::function<void(RawClient &, RawChannel &)> done;
};

void store_words(RawChannel &channel, uint32_t word) {
  __atomic_store_n(&channel->request.word, word, __ATOMIC_RELEASE);
  host::wake(&channel->request.word);
}

const Doing kDoings[] = {
    {"Nothing", [](RawClient &, RawChannel &) {}},
    {"SaysThatItIsOver", [](RawClient &, RawChannel &channel) { store_words(channel, HOST_CHANNEL_OVER); }},
    {"ClearsTheWord", [](RawClient &, RawChannel &channel) { store_words(channel, 0); }},
    {"SetsAllBits", [](RawClient &, RawChannel &channel) { store_words(channel, UINT32_MAX); }},
    {"WakesForNothing",
     [](RawClient &, RawChannel &channel) {
       for (int i = 0; i < 1000; ++i) host::wake(&channel->request.word);
     }},
    {"WritesAllOverTheMemory",
     [](RawClient &, RawChannel &channel) {
       std::memset(&channel.memory(), 0xff, sizeof(HostChannel));
       host::wake(&channel->request.word);
     }},
    {"TakesThePagesOut",
     [](RawClient &, RawChannel &channel) {
       fallocate(channel.file(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, 0, sizeof(HostChannel));
       host::wake(&channel->request.word);
     }},
    {"TriesToCutTheMemory",
     [](RawClient &, RawChannel &channel) {
       EXPECT_EQ(ftruncate(channel.file(), 0), -1);
       EXPECT_EQ(ftruncate(channel.file(), 1 << 30), -1);
     }},
    {"PostsWithoutWaking",
     [](RawClient &, RawChannel &channel) { __atomic_store_n(&channel->request.word, 5, __ATOMIC_RELEASE); }},
    {"PostsAndDoesntWait", [](RawClient &, RawChannel &channel) { channel.post(random_request()); }},
    {"PostsTwice",
     [](RawClient &, RawChannel &channel) {
       channel.post(random_request());
       channel.post(random_request());
     }},
    {"TalksOnTheSocketBeside", [](RawClient &client, RawChannel &) { EXPECT_TRUE(client.send(random_request())); }},
    {"FillsTheSocket",
     [](RawClient &client, RawChannel &) {
       const Datagram datagram = random_request();
       while (::send(client.socket(), datagram.data(), datagram.size(), MSG_DONTWAIT | MSG_NOSIGNAL) > 0) continue;
     }},
    {"ShutsTheSocketForWriting",
     [](RawClient &client, RawChannel &) {
       shutdown(client.socket(), SHUT_WR);
       EXPECT_TRUE(closes(client));
     }},
    {"ShutsTheSocketForReading", [](RawClient &client, RawChannel &) { shutdown(client.socket(), SHUT_RD); }},
    {"ShutsTheSocketForAll", [](RawClient &client, RawChannel &) { shutdown(client.socket(), SHUT_RDWR); }},
    {"ShutsTheSocketWithARequestUnderWay",
     [](RawClient &client, RawChannel &channel) {
       channel.post(store_request(3000));
       shutdown(client.socket(), SHUT_RDWR);
     }},
    {"ClosesTheFile", [](RawClient &, RawChannel &channel) { EXPECT_EQ(fcntl(channel.file(), F_GETFD), FD_CLOEXEC); }},
};

class HostileDoing : public testing::TestWithParam<Doing> {};

TEST_P(HostileDoing, EndsWithTheClientAndTheServiceInTime) {
  ServiceProcess service(setup_with(""));
  {
    RawClient client(service.socket());
    RawChannel channel(client);
    GetParam().done(client, channel);
    EXPECT_EQ(RawClient(service.socket()).exchange(kRandom, {4, 0, 0, 0, 0, 0, 0, 0}).data().size(), 4u);
  }
  EXPECT_TRUE(comes_to(service, 0));
  RawClient client(service.socket());
  RawChannel channel(client);
  GetParam().done(client, channel);
  EXPECT_EQ(service.stop(), 0);
}

INSTANTIATE_TEST_SUITE_P(Channel, HostileDoing, testing::ValuesIn(kDoings),
                         [](const auto &test) { return test.param.name; });

// ---- Who plays on behind the end of the connection.

// A process that has the memory still, and undoes whatever would end the wait of the service.
TEST(HostileChannel, EndsThoughItsMemoryIsPlayedWithBehindTheEnd) {
  ServiceProcess service(setup_with(""));
  auto client = std::make_unique<RawClient>(service.socket());
  const RawChannel channel(*client);
  auto *memory = static_cast<HostChannel *>(
      mmap(nullptr, sizeof(HostChannel), PROT_READ | PROT_WRITE, MAP_SHARED, channel.file(), 0));
  std::atomic<bool> stop = false;
  std::thread player([&] {
    while (!stop) __atomic_store_n(&memory->request.word, HOST_CHANNEL_WAITING, __ATOMIC_RELEASE);
  });
  client.reset();
  EXPECT_TRUE(comes_to(service, 0));
  stop = true;
  player.join();
  munmap(memory, sizeof *memory);
  EXPECT_EQ(service.stop(), 0);
}

// Requests without end are answered until the service ends, and don't keep it from ending.
TEST(HostileChannel, StopsUnderAStormOfRequests) {
  ServiceProcess service(setup_with(""));
  RawClient client(service.socket());
  RawChannel channel(client);
  const Datagram request = random_request();
  std::memcpy(channel->request_area, request.data(), request.size());
  channel->request.size = static_cast<uint32_t>(request.size());
  std::atomic<bool> stop = false;
  std::thread storm([&] {
    bool woken;
    for (uint32_t serial = 1; !stop; ++serial) host::post(&channel->request.word, serial & HOST_CHANNEL_SERIAL, &woken);
  });
  EXPECT_EQ(service.stop(), 0);
  stop = true;
  storm.join();
}

// ---- Large datagrams, which go by the socket.

TEST(HostileChannel, TakesLargeRequestsAndGivesLargeRepliesBesideTheChannel) {
  ServiceProcess service(setup_with(""));
  RawClient client(service.socket());
  RawChannel channel(client);
  for (const uint16_t size : {uint16_t{3000}, uint16_t{30'000}, uint16_t{20}}) {
    const Datagram request = store_request(size);
    if (request.size() > sizeof(HostChannel::request_area)) {
      ASSERT_TRUE(client.send(request));
      channel.post({}, HOST_CHANNEL_ON_SOCKET);
      EXPECT_EQ(client.receive()->result(), KS_SUCCESS) << size;
    } else {
      EXPECT_EQ(channel.exchange(request).result(), KS_SUCCESS) << size;
    }
  }
  // Metadata that is too large for the area of replies, asked for by a small request.
  const Datagram name{KS_NAME_TAG_SECRET, 0, 0, 7, 'k'};
  Datagram sections = name;
  sections.resize(name.size() + 30'000, 0x5b);
  ASSERT_TRUE(client.send(request_datagram(KS_OP_ADD_METADATA, 4, {5, 6, 0x30, 0x75, 11, 0}, sections)));
  channel.post({}, HOST_CHANNEL_ON_SOCKET);
  ASSERT_EQ(client.receive()->result(), KS_SUCCESS);
  EXPECT_EQ(channel.exchange(request_datagram(KS_OP_RETURN_METADATA, 5, {5, 2}, name)).data().size(), 30'000u);
}

TEST(HostileChannel, AnswersAByteOnTheSocketAsAnyOther) {
  ServiceProcess service(setup_with(""));
  RawClient client(service.socket());
  RawChannel channel(client);
  ASSERT_TRUE(client.send({0x6b}));
  channel.post({}, HOST_CHANNEL_ON_SOCKET);
  EXPECT_EQ(client.receive()->result(), KS_INVALID_ARGS);
  EXPECT_EQ(channel.exchange(random_request()).data().size(), 4u);
}

// ---- Limits.

TEST(HostileChannel, TakesNoMoreThanTheConfigurationAllows) {
  ServiceProcess service(setup_with("channels = 2\n"));
  RawClient one(service.socket()), other(service.socket()), third(service.socket());
  const RawChannel first(one);
  {
    const RawChannel second(other);
    EXPECT_EQ(channels_of(service), 2u);
    ASSERT_TRUE(third.send(RawChannel::step(HOST_CHANNEL_MAKE)));
    EXPECT_EQ(third.receive()->result(), KS_NO_MEMORY);
    EXPECT_EQ(third.exchange(kRandom, {4, 0, 0, 0, 0, 0, 0, 0}).data().size(), 4u);
    shutdown(other.socket(), SHUT_RDWR);
  }
  EXPECT_TRUE(comes_to(service, 1));
  EXPECT_NO_THROW(RawChannel again(third));
}

// Of many that were made, no more are taken into use.
TEST(HostileChannel, CountsWhenAChannelIsTakenIntoUse) {
  ServiceProcess service(setup_with("channels = 1\n"));
  RawClient one(service.socket()), other(service.socket());
  RawChannel first(one, false), second(other, false);
  EXPECT_EQ(channels_of(service), 0u);
  EXPECT_TRUE(first.take_into_use());
  EXPECT_FALSE(second.take_into_use());
  EXPECT_EQ(other.exchange(kRandom, {4, 0, 0, 0, 0, 0, 0, 0}).data().size(), 4u);
}

TEST(HostileChannel, IsNeitherOfferedNorMadeWhereTheConfigurationHasNone) {
  ServiceProcess service(setup_with("channels = 0\n"));
  RawClient client(service.socket());
  EXPECT_EQ(client.hello().offers, 0);
  ASSERT_TRUE(client.send(RawChannel::step(HOST_CHANNEL_MAKE)));
  EXPECT_EQ(client.receive()->result(), KS_NO_MEMORY);
}

TEST(HostileChannel, IsTakenBackWhenTheClientGoesOnWithoutIt) {
  ServiceProcess service(setup_with(""));
  RawClient client(service.socket());
  RawChannel channel(client, false);
  EXPECT_EQ(client.exchange(kRandom, {4, 0, 0, 0, 0, 0, 0, 0}).data().size(), 4u);
  EXPECT_FALSE(channel.take_into_use());
  EXPECT_EQ(channel->reply.word, HOST_CHANNEL_OVER);
}

TEST(HostileChannel, LeavesNoDescriptorWithTheService) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root, as the service lets nobody else look into it";
  ServiceProcess service(setup_with(""));
  const auto open_files = [&] {
    const std::filesystem::directory_iterator files("/proc/" + std::to_string(service.pid()) + "/fd");
    return std::distance(begin(files), end(files));
  };
  RawClient client(service.socket());
  client.hello();
  const auto before = open_files();
  RawChannel channel(client);
  channel.exchange(random_request());
  EXPECT_EQ(open_files(), before);
}

// ---- A client that ends at any step.

TEST(HostileChannel, EndsWithAClientThatIsKilledAtAnyStep) {
  ServiceProcess service(setup_with(""));
  constexpr int kSteps = 5;
  for (int step = 0; step < kSteps; ++step) {
    const pid_t child = fork();
    if (child == 0) {
      RawClient client(service.socket());
      const auto end_at = [step](int here) {
        if (step == here) kill(getpid(), SIGKILL);
      };
      end_at(0);
      RawChannel channel(client, false);
      end_at(1);
      client.send(RawChannel::step(HOST_CHANNEL_USE));
      end_at(2);
      client.receive();
      end_at(3);
      channel.post(random_request());
      end_at(4);
      ks_test::leave(1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status)) << step;
    EXPECT_TRUE(comes_to(service, 0)) << step;
  }
  EXPECT_EQ(service.stop(), 0);
}

}  // namespace
