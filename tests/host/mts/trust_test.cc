// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// What a program that shares its process, or another user of the machine, can make of an exchange: nothing.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>

#include "client.h"

namespace {

using testing::IsEmpty;

constexpr uint32_t kRandom = 66561;
constexpr uint32_t kStore = 66562;
constexpr uint32_t kExists = 66565;
constexpr uint32_t kByIndex = 66566;
constexpr uint32_t kReturnMetadata = 66567;
constexpr uint32_t kPacExists = 66570;
constexpr uint32_t kTPrf = 66571;
constexpr uint32_t kNewPassword = 66574;
constexpr uint32_t kAesEncrypt = 66577;
constexpr uint32_t kFirmware = 66593;

// ---- Descriptors that change hands.

// A socket that nobody answers on, under every number that a program of this size may have.
class Stranger {
 public:
  Stranger() {
    if (socketpair(AF_UNIX, SOCK_SEQPACKET, 0, pair_) != 0) abort();
    ours_ = fcntl(pair_[0], F_DUPFD, kAll);
    theirs_ = fcntl(pair_[1], F_DUPFD, kAll);
  }

  // Takes the numbers of all sockets that are connected to a service, so that they are closed too.
  void take_numbers() const {
    for (int number = 3; number < kAll; number++) {
      sockaddr_un address = {};
      socklen_t size = sizeof address;
      const bool connected = getpeername(number, reinterpret_cast<sockaddr *>(&address), &size) == 0;
      if (connected && address.sun_family == AF_UNIX && address.sun_path[0] == '/') dup2(ours_, number);
    }
  }
  // What came to the stranger.
  Octets received() const {
    Octets datagram(1024);
    const ssize_t size = recv(theirs_, datagram.data(), datagram.size(), MSG_DONTWAIT);
    datagram.resize(size < 0 ? 0 : static_cast<size_t>(size));
    return datagram;
  }

 private:
  static constexpr int kAll = 300;
  int pair_[2];
  int ours_;
  int theirs_;
};

TEST_F(Mts, SendsNothingToASocketThatTookItsNumber) {
  const uint32_t queue = bound();
  ASSERT_TRUE(works(queue));
  EXPECT_TRUE(passes_in_child([&] {
    alarm(20);
    if (!works(queue)) return false;
    const Stranger stranger;
    stranger.take_numbers();
    return works(queue) && stranger.received().empty();
  }));
}

TEST_F(Mts, SendsNothingToAFileThatTookItsNumber) {
  const uint32_t queue = bound();
  EXPECT_TRUE(passes_in_child([&] {
    alarm(20);
    if (!works(queue)) return false;
    const std::string path = socket_path() + ".other";
    const int file = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    for (int number = 3; number < file; number++) dup2(file, number);
    struct stat status;
    return works(queue) && fstat(file, &status) == 0 && status.st_size == 0;
  }));
}

TEST_F(Mts, WaitsForNoReplyAtASocketThatTookItsNumber) {
  const uint32_t queue = bound();
  EXPECT_TRUE(passes_in_child([&] {
    alarm(20);
    KsMtsMessage sent;
    KsMtsMessage received;
    if (send_sections(queue, {1}, {}, &sent) == MTS_FAILED) return false;
    const Stranger stranger;
    stranger.take_numbers();
    return receive_by(queue, mts_rr_token_get(&sent), &received) == MTS_FAILED && mts_errno_get(queue) == EBADF &&
           works(queue);
  }));
}

// ---- Deadlines.

TEST_F(Mts, KeepsTheLimitOfTheHelloTowardsAServiceThatStopped) {
  service.hello.receive_limit_ms = 300;
  service.handler = [&](int, const FakeService::Request &) {
    held.wait();
    return false;
  };
  const uint32_t queue = bound();
  // From now on it accepts connections as a stopped one does, and answers nothing.
  service.greeter = [&](int, const FakeService::Request &) {
    held.wait();
    return false;
  };
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < 3; i++) EXPECT_EQ(exchange(queue, {1}).error, static_cast<uint32_t>(ETIMEDOUT));
  const auto taken = std::chrono::steady_clock::now() - start;
  held.give();

  EXPECT_LT(taken, std::chrono::seconds(15)) << "three times 300 ms, however slow the machine; not 30 s";
}

TEST_F(Mts, WaitsForAReplyThoughItsSocketWasMadeNotToBlock) {
  Signal arrived;
  service.handler = [&](int socket, const FakeService::Request &request) {
    if (request.payload == Octets{1}) {
      arrived.give();
      held.wait();
    }
    return FakeService::echo(socket, request);
  };
  const uint32_t queue = bound();
  for (int number = 3; number < 300; number++) {
    const int flags = fcntl(number, F_GETFL);
    sockaddr_un address = {};
    socklen_t size = sizeof address;
    if (getpeername(number, reinterpret_cast<sockaddr *>(&address), &size) == 0 && address.sun_path[0] == '/') {
      fcntl(number, F_SETFL, flags | O_NONBLOCK);
    }
  }
  std::thread late([&] {
    arrived.wait();
    held.give();
  });
  EXPECT_EQ(exchange(queue, {1}).payload, (Octets{1, 0, 0, 0, 1}));
  late.join();
}

TEST_F(Mts, PassesOverAnAnswerTooManyToAnEarlierRequest) {
  service.handler = [](int socket, const FakeService::Request &request) {
    FakeService::echo(socket, request);
    FakeService::reply(socket, request, {9, 0, 0, 0});
    return FakeService::reply(socket, request, {8, 0, 0, 0});
  };
  const uint32_t queue = bound();
  for (int i = 0; i < 5; i++) EXPECT_TRUE(works(queue));

  EXPECT_EQ(service.connections(), 1U);
}

TEST_F(Mts, GivesUpInTimeWhenOnlyEarlierAnswersCome) {
  service.hello.receive_limit_ms = 200;
  std::atomic<bool> end = false;
  service.handler = [&](int socket, const FakeService::Request &request) {
    if (request.payload == Octets{1}) return FakeService::echo(socket, request);
    FakeService::Request earlier = request;
    earlier.header.token -= 1 << 12;
    while (!end && FakeService::echo(socket, earlier)) std::this_thread::yield();
    return false;
  };
  const uint32_t queue = bound();
  exchange(queue, {1});
  EXPECT_EQ(exchange(queue, {2}).error, static_cast<uint32_t>(ETIMEDOUT));
  end = true;
}

// ---- Replies that would lead their reader astray.

struct Shape {
  const char *name;
  uint32_t opcode;
  Octets descriptor;
  Octets good;
  Octets bad;
};

Octets with_length(uint16_t length, size_t data) {
  Octets payload = {1, 0, 0, 0, static_cast<uint8_t>(length), static_cast<uint8_t>(length >> 8)};
  payload.resize(payload.size() + data);
  return payload;
}

class ReplyShape : public Mts, public testing::WithParamInterface<Shape> {};

TEST_P(ReplyShape, IsKeptOrTheExchangeFails) {
  const Shape &shape = GetParam();
  Octets answer = shape.good;
  service.handler = [&](int socket, const FakeService::Request &request) {
    return FakeService::reply(socket, request, answer);
  };
  const uint32_t queue = bound();
  EXPECT_EQ(exchange(queue, shape.descriptor, {}, shape.opcode).payload, shape.good);
  EXPECT_EQ(service.connections(), 1U);

  answer = shape.bad;
  const Answer refused = exchange(queue, shape.descriptor, {}, shape.opcode);
  EXPECT_EQ(refused.received, MTS_FAILED);
  EXPECT_EQ(refused.error, static_cast<uint32_t>(EBADMSG));
  service.wait_until_closed(1);

  answer[0] = 5;  // the same as a refusal, of which nothing else is read
  EXPECT_EQ(exchange(queue, shape.descriptor, {}, shape.opcode).payload, answer);
}

const Shape kShapes[] = {
    {"RandomBeyondItsReply", kRandom, {16, 0, 0, 0, 0, 0, 0, 0}, with_length(16, 16), with_length(16, 15)},
    {"RandomBeyondTheRequest", kRandom, {16, 0, 0, 0, 0, 0, 0, 0}, with_length(15, 15), with_length(17, 17)},
    {"RandomByItsLowByteAlone", kRandom, {16, 0, 0, 0, 0, 0, 0, 0}, with_length(0x0310, 16), with_length(0x0311, 17)},
    {"RandomWithoutACount", kRandom, {16, 0, 0, 0, 0, 0, 0, 0}, with_length(0, 0), {1, 0, 0, 0, 0}},
    {"FlagOfASecret", kExists, {5, 2}, {1, 0, 0, 0, 0, 0, 1}, {1, 0, 0, 0, 1, 0}},
    {"FlagOfAPac", kPacExists, {5, 2}, {1, 0, 0, 0, 0, 0, 1}, {1, 0, 0, 0, 1, 0}},
    {"NameByIndex", kByIndex, {0, 0}, with_length(5, 5), with_length(65535, 5)},
    {"Metadata", kReturnMetadata, {5, 2}, with_length(300, 300), with_length(301, 300)},
    {"MetadataWithoutALength", kReturnMetadata, {5, 2}, with_length(0, 0), {1, 0, 0, 0}},
    {"TPrfBeyondTheRequest", kTPrf, {44, 1, 0, 0}, with_length(300, 300), with_length(301, 301)},
    {"TPrfBeyondItsReply", kTPrf, {44, 1, 0, 0}, with_length(299, 300), with_length(300, 299)},
    {"NewPasswordBeyondItsBlock", kNewPassword, {5, 8}, with_length(516, 516), with_length(517, 517)},
    {"NewPasswordBeyondItsReply", kNewPassword, {5, 8}, with_length(516, 517), with_length(516, 515)},
    {"Cipher", kAesEncrypt, {5, 8}, with_length(16, 16), with_length(16, 0)},
    {"Firmware", kFirmware, {}, {1, 0, 0, 0, 3, 0, 0, 1, 0}, {1, 0, 0, 0, 3, 0, 0, 1}},
};

INSTANTIATE_TEST_SUITE_P(Of, ReplyShape, testing::ValuesIn(kShapes),
                         [](const auto &instance) { return instance.param.name; });

TEST_F(Mts, AsksNothingOfAReplyOfWhichTheResultAloneIsRead) {
  service.handler = [](int socket, const FakeService::Request &request) {
    return FakeService::reply(socket, request, {1, 0, 0, 0, 0xff, 0xff});
  };
  EXPECT_EQ(exchange(bound(), {1}, {}, kStore).payload, (Octets{1, 0, 0, 0, 0xff, 0xff}));
}

// What each message's reply is held to: the bytes that are read of it, and the bytes of its length that are.
struct Held {
  uint32_t opcode;
  size_t least;
  size_t length_bytes;
};

const Held kHeld[] = {
    {66561, 6, 1}, {66562, 4, 0}, {66563, 4, 0}, {66564, 4, 0}, {66565, 7, 0}, {66566, 6, 2}, {66567, 6, 2},
    {66568, 4, 0}, {66569, 4, 0}, {66570, 7, 0}, {66571, 6, 2}, {66572, 6, 2}, {66573, 6, 2}, {66574, 6, 2},
    {66575, 6, 2}, {66576, 6, 2}, {66577, 6, 2}, {66578, 6, 2}, {66579, 6, 2}, {66580, 6, 2}, {66581, 6, 2},
    {66582, 6, 2}, {66583, 6, 2}, {66584, 6, 2}, {66585, 6, 2}, {66586, 6, 2}, {66587, 6, 2}, {66588, 6, 2},
    {66589, 4, 0}, {66590, 4, 0}, {66591, 4, 0}, {66592, 4, 0}, {66593, 9, 0}, {66594, 4, 0},
};

TEST_F(Mts, HoldsTheReplyToEachMessageToItsShape) {
  Octets answer;
  service.handler = [&](int socket, const FakeService::Request &request) {
    return FakeService::reply(socket, request, answer);
  };
  const uint32_t queue = bound();
  for (const Held &row : kHeld) {
    SCOPED_TRACE(row.opcode);
    // Those that say how much they want want all there can be; of the others, a descriptor says nothing about length.
    const bool asks = row.opcode == kRandom || row.opcode == kTPrf;
    const Octets descriptor = asks ? Octets{0xff, 0xff, 0, 0} : Octets{0, 0, 0, 0};
    const auto passes = [&](const Octets &payload) {
      answer = payload;
      return exchange(queue, descriptor, {}, row.opcode).payload == payload;
    };
    Octets shortest = {1, 0, 0, 0};
    shortest.resize(row.least);
    EXPECT_TRUE(passes(shortest));
    shortest.pop_back();
    EXPECT_FALSE(row.least > 4 && passes(shortest));

    Octets longest = {1, 0, 0, 0, 0xff, 0xff, 0xff, 0xff, 0xff};
    EXPECT_EQ(passes(longest), row.length_bytes == 0);
    EXPECT_TRUE(passes(with_length(0x0101, 0x0101)));
    EXPECT_EQ(passes(with_length(0x0101, 0x0100)), row.length_bytes < 2);
    EXPECT_EQ(passes(with_length(0x0101, 0)), row.length_bytes == 0 && row.least <= 6);
  }
}

TEST_F(Mts, HoldsTheReplyToAMessageThatIsNotKnownToNothing) {
  service.handler = [](int socket, const FakeService::Request &request) {
    return FakeService::reply(socket, request, {1, 0, 0, 0, 0xff});
  };
  const uint32_t queue = bound();
  for (const uint32_t opcode : {2U, 66560U, 66595U}) {
    EXPECT_EQ(exchange(queue, {1}, {}, opcode).payload, (Octets{1, 0, 0, 0, 0xff})) << opcode;
  }
}

// A message that doesn't say how much it wants gets no less for it.
TEST_F(Mts, AllowsWhatFitsItsLengthWhereNothingWasAskedFor) {
  Octets answer = with_length(255, 255);
  service.handler = [&](int socket, const FakeService::Request &request) {
    return FakeService::reply(socket, request, answer);
  };
  const uint32_t queue = bound();
  EXPECT_EQ(exchange(queue, {}, {}, kRandom).payload, answer);
  answer = with_length(300, 300);
  EXPECT_EQ(exchange(queue, {1}, {}, kTPrf).payload, answer);
}

// ---- Who serves, and where.

TEST_F(Mts, RefusesASocketFolderThatOthersMayWrite) {
  service.start();
  const std::string folder = socket_path().substr(0, socket_path().rfind('/'));
  for (const mode_t mode : {0770U, 0707U, 01777U, 0720U}) {
    ASSERT_EQ(chmod(folder.c_str(), mode), 0);
    EXPECT_EQ(bind_as(1), MTS_FAILED) << std::oct << mode;
    EXPECT_EQ(mts_errno_get(MTS_FAILED), static_cast<uint32_t>(EPERM));
  }
  ASSERT_EQ(chmod(folder.c_str(), 0755), 0);
  EXPECT_NE(bind_as(1), MTS_FAILED);
}

TEST_F(Mts, RefusesASocketFolderThatOthersCouldHavePutThere) {
  const std::string above = socket_path().substr(0, socket_path().rfind('/'));
  const std::string folder = above + "/run";
  ASSERT_EQ(mkdir(folder.c_str(), 0700), 0);
  setenv("KS_SOCKET", (folder + "/ksd.sock").c_str(), 1);
  FakeService inside(folder + "/ksd.sock");
  inside.start();
  ASSERT_EQ(chmod(above.c_str(), 0777), 0);
  EXPECT_EQ(bind_as(1), MTS_FAILED);
  EXPECT_EQ(mts_errno_get(MTS_FAILED), static_cast<uint32_t>(EPERM));

  ASSERT_EQ(chmod(above.c_str(), 01777), 0);
  EXPECT_NE(bind_as(1), MTS_FAILED) << "in a sticky folder the caller's own stays the caller's";
}

TEST_F(Mts, RefusesASocketFolderOfAStrangerBelowAStickyOne) {
  NEEDS_ROOT();
  service.start();
  const std::string folder = socket_path().substr(0, socket_path().rfind('/'));  // which is below /tmp
  ASSERT_EQ(chmod(folder.c_str(), 0755), 0);
  ASSERT_EQ(chown(folder.c_str(), kSomebody, kSomebody), 0);
  EXPECT_EQ(bind_as(1), MTS_FAILED);
  EXPECT_EQ(mts_errno_get(MTS_FAILED), static_cast<uint32_t>(EPERM));
}

TEST_F(Mts, RefusesAServiceOfAStranger) {
  NEEDS_ROOT();
  const std::string folder = socket_path().substr(0, socket_path().rfind('/'));
  // The folder is the caller's, and the stranger has got in once.
  ASSERT_EQ(chmod(folder.c_str(), 0777), 0);
  EXPECT_TRUE(while_served_by(kSomebody, socket_path(), [&] {
    if (chmod(folder.c_str(), 0755) != 0) return false;
    return bind_as(1) == MTS_FAILED && mts_errno_get(MTS_FAILED) == EPERM;
  }));
}

TEST_F(Mts, TakesAServiceOfTheFoldersOwner) {
  NEEDS_ROOT();
  const std::string above = socket_path().substr(0, socket_path().rfind('/'));
  ASSERT_EQ(chmod(above.c_str(), 0755), 0);
  const std::string folder = above + "/run";
  ASSERT_EQ(mkdir(folder.c_str(), 0755), 0);
  ASSERT_EQ(chown(folder.c_str(), kSomebody, kSomebody), 0);
  setenv("KS_SOCKET", (folder + "/ksd.sock").c_str(), 1);
  EXPECT_TRUE(while_served_by(kSomebody, folder + "/ksd.sock", [&] { return bind_as(1) != MTS_FAILED; }));
}

}  // namespace
