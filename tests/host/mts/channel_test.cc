// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// The client's end of a channel, beside services that make one rightly, wrongly or not at all.
#include "channel.h"

#include <fcntl.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/time.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <thread>

#include "client.h"
#include "host_channel.h"
#include "send_with_files.h"
#include "socket_hooks.h"

namespace {

constexpr int kUntilChannel = 16;  // exchanges that a connection has before it asks for one

using Request = FakeService::Request;

// What a service does with one step of agreeing. Returning false closes the connection.
using Step = std::function<bool(int socket, const Request &request)>;

struct Closer {
  explicit Closer(int opened) : file(opened) {}
  ~Closer() { close(file); }
  Closer(const Closer &) = delete;
  Closer &operator=(const Closer &) = delete;
  const int file;
};

int memory_of(size_t size, int seals) {
  const int file = memfd_create("test", MFD_CLOEXEC | MFD_ALLOW_SEALING);
  if (ftruncate(file, static_cast<off_t>(size)) != 0 || fcntl(file, F_ADD_SEALS, seals) != 0) abort();
  return file;
}

Octets channel_reply(uint32_t size = sizeof(HostChannel)) {
  const HostChannelReply reply = {.result = KS_SUCCESS, .size = size};
  const auto *bytes = reinterpret_cast<const uint8_t *>(&reply);
  return Octets(bytes, bytes + sizeof reply);
}

bool reply_with_files(int socket, const Request &request, const Octets &payload, const std::vector<int> &files) {
  return send_with_files(socket, FakeService::reply_datagram(request, payload), files);
}

Step passes(std::function<int()> open_file) {
  return [open_file = std::move(open_file)](int socket, const Request &request) {
    const Closer opened(open_file());
    return reply_with_files(socket, request, channel_reply(), {opened.file});
  };
}

Step answers(const Octets &payload) {
  return [payload](int socket, const Request &request) { return FakeService::reply(socket, request, payload); };
}

// A service's channel, and what it does with a request there. Returning false closes the connection.
struct Served {
  HostChannel &channel;
  int socket;
  uint32_t serial;
  Request request;

  void wake(uint32_t word) const {
    bool woken;
    host::post(&channel.reply.word, word, &woken);
  }
  bool answer(const Octets &datagram, std::optional<uint32_t> size = std::nullopt) const {
    memcpy(channel.reply_area, datagram.data(), datagram.size());
    channel.reply.size = size.value_or(static_cast<uint32_t>(datagram.size()));
    wake(serial);
    return true;
  }
  Octets echo() const {
    Octets payload = {1, 0, 0, 0};
    payload.insert(payload.end(), request.payload.begin(), request.payload.end());
    return FakeService::reply_datagram(request, payload);
  }
};
using ChannelAnswer = std::function<bool(const Served &served)>;

bool echo(const Served &served) {
  return served.answer(served.echo());
}

// Beyond the request, for one that answers never.
bool wait_for_the_end(const Served &served) {
  char byte;
  while (recv(served.socket, &byte, 1, 0) > 0) continue;
  return false;
}

class MtsChannel : public Mts {
 protected:
  MtsChannel() {
    service.hello.offers = HOST_OFFERS_CHANNEL;
    service.handler = [this](int socket, const Request &request) {
      if (request.header.opcode != HOST_OP_CHANNEL) return FakeService::echo(socket, request);
      asked++;
      uint32_t step = 0;
      memcpy(&step, request.payload.data(), sizeof step);
      if (step == HOST_CHANNEL_MAKE) return make(socket, request);
      return use(socket, request);
    };
  }

  // Makes a channel as the real service does.
  bool make_channel(int socket, const Request &request) {
    const Closer opened(memory_of(sizeof(HostChannel), F_SEAL_SHRINK | F_SEAL_GROW));
    memory = mmap(nullptr, sizeof(HostChannel), PROT_READ | PROT_WRITE, MAP_SHARED, opened.file, 0);
    return reply_with_files(socket, request, channel_reply(), {opened.file});
  }

  bool serve_channel(int socket, const Request &request) {
    auto &channel = *static_cast<HostChannel *>(memory);
    bool goes_on = FakeService::reply(socket, request, channel_reply());
    uint32_t last = 0;
    while (goes_on && !host_gone(socket)) {
      const uint32_t word = host::read_word(&channel.request.word);
      if (host::serial_of(word) == last) {
        const timespec slice = {.tv_sec = 0, .tv_nsec = 2'000'000};
        if (host::replace_word(&channel.request.word, word, word | HOST_CHANNEL_WAITING)) {
          host::sleep_on(&channel.request.word, word | HOST_CHANNEL_WAITING, &slice);
        }
        continue;
      }
      last = host::serial_of(word);
      host::replace_word(&channel.request.word, word, word | HOST_CHANNEL_TAKEN);
      Octets datagram(channel.request_area, channel.request_area + sizeof channel.request_area);
      if (channel.request.size == HOST_CHANNEL_ON_SOCKET) {
        datagram.resize(HOST_WIRE_MAX_DATAGRAM);
        datagram.resize(static_cast<size_t>(recv(socket, datagram.data(), datagram.size(), 0)));
        by_socket++;
      } else {
        datagram.resize(channel.request.size);
        by_channel++;
      }
      Served served = {.channel = channel, .socket = socket, .serial = last, .request = {}};
      memcpy(&served.request.header, datagram.data(), sizeof served.request.header);
      served.request.payload.assign(datagram.begin() + sizeof served.request.header, datagram.end());
      goes_on = answer(served);
    }
    munmap(memory, sizeof(HostChannel));
    return false;
  }

  static bool host_gone(int socket) {
    char byte;
    return recv(socket, &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 0;
  }

  // Has the exchanges behind which the next one asks for a channel.
  uint32_t bound_and_about_to_ask() {
    const uint32_t queue = bound();
    for (int i = 0; i < kUntilChannel - 1; i++) EXPECT_TRUE(works(queue));
    EXPECT_EQ(asked, 0);
    return queue;
  }
  uint32_t bound_with_channel() {
    const uint32_t queue = bound_and_about_to_ask();
    EXPECT_TRUE(works(queue));
    EXPECT_EQ(by_channel, 1);
    return queue;
  }

  std::atomic<int> asked = 0;
  std::atomic<int> by_channel = 0;  // requests
  std::atomic<int> by_socket = 0;   // those that the channel told of
  int last_by_socket = 0;
  Step make = [this](int socket, const Request &request) { return make_channel(socket, request); };
  Step use = [this](int socket, const Request &request) { return serve_channel(socket, request); };
  ChannelAnswer answer = echo;
  void *memory = nullptr;
};

TEST_F(MtsChannel, IsAskedForByConnectionsThatAreUsedMoreThanAFewTimes) {
  const uint32_t queue = bound_and_about_to_ask();
  const size_t before = open_descriptors();
  for (int i = 0; i < 10; i++) EXPECT_TRUE(works(queue));

  EXPECT_EQ(asked, 2);
  EXPECT_EQ(by_channel, 10);
  EXPECT_EQ(service.connections(), 1U);
  EXPECT_EQ(open_descriptors(), before) << "memory needs none";
}

TEST_F(MtsChannel, BringsAReplyThatFillsIt) {
  const uint32_t queue = bound_with_channel();
  Octets filling(sizeof(HostChannel::reply_area) - sizeof(HostWireHeader), 0x33);
  filling[0] = 1;
  filling[1] = filling[2] = filling[3] = 0;
  answer = [&filling](const Served &served) {
    return served.answer(FakeService::reply_datagram(served.request, filling));
  };
  EXPECT_EQ(exchange(queue, {1}).payload, filling);
}

#ifndef __SANITIZE_THREAD__
TEST_F(MtsChannel, IsAskedForAgainAfterASignal) {
  const uint32_t queue = bound_and_about_to_ask();
  int sent = 0;
  const WithSocketHooks hooks({.send = [&sent]() -> long {
    errno = EINTR;
    return ++sent < 3 ? -1 : SocketHooks::kPassOn;
  }});
  EXPECT_TRUE(works(queue));
  EXPECT_EQ(by_channel, 1);
}
#endif

TEST_F(MtsChannel, IsNotAskedForWhereItIsntOffered) {
  service.hello.offers = 0;  // as of an older service
  const uint32_t queue = bound();
  for (int i = 0; i < 3 * kUntilChannel; i++) EXPECT_TRUE(works(queue));
  EXPECT_EQ(asked, 0);
}

TEST_F(MtsChannel, IsNotAskedForByConnectionsWhoseRequestsAreTooLargeForIt) {
  const uint32_t queue = bound();
  const Octets data(20'000, 0x33);
  for (int i = 0; i < 4 * kUntilChannel; i++) {
    const bool is_large = i % (kUntilChannel - 1) == 0;
    EXPECT_NE(exchange(queue, {1}, {{data.data(), is_large ? 20'000U : 1U}}).received, MTS_FAILED);
  }
  EXPECT_EQ(asked, 0);
}

TEST_F(MtsChannel, IsOneForEachConnection) {
  const uint32_t queue = bound_with_channel();
  ChannelAnswer hold = [this](const Served &served) {
    held.wait();
    return echo(served);
  };
  answer = hold;
  std::thread other([&] { EXPECT_TRUE(works(queue)); });
  while (by_channel < 2) std::this_thread::yield();
  EXPECT_TRUE(works(queue)) << "by the socket of another connection";
  held.give();
  other.join();
  EXPECT_EQ(service.connections(), 2U);
}

// ---- Services that don't bring a channel about. Every exchange succeeds all the same.

struct Failing {
  const char *name;
  Step make;
  Step use = nullptr;      // null: as it should be
  size_t connections = 1;  // that it took
};

Step with_token(uint32_t token) {
  return [token](int socket, Request request) {
    request.header.token = token;
    return FakeService::reply(socket, request, channel_reply());
  };
}

int pipe_end() {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) abort();
  close(ends[1]);
  return ends[0];
}

int read_only_memory() {
  const Closer writable(memory_of(sizeof(HostChannel), F_SEAL_SHRINK));
  return open(("/proc/self/fd/" + std::to_string(writable.file)).c_str(), O_RDONLY | O_CLOEXEC);
}

const Step kProper = nullptr;

const Failing kFailings[] = {
    {"Refused", answers({9, 0, 0, 0})},
    {"RefusedAsUnknown", answers({26, 0, 0, 0})},
    {"NoFile", answers(channel_reply())},
    {"APipe", passes(pipe_end)},
    {"ASocket", passes([] { return socket(AF_UNIX, SOCK_SEQPACKET, 0); })},
    {"AFolder", passes([] { return open("/tmp", O_RDONLY | O_CLOEXEC); })},
    {"MemoryThatCanBeCut", passes([] { return memory_of(sizeof(HostChannel), F_SEAL_GROW); })},
    {"MemoryWithoutSeals", passes([] { return memory_of(sizeof(HostChannel), 0); })},
    {"TooLittleMemory", passes([] { return memory_of(sizeof(HostChannel) - 4096, F_SEAL_SHRINK); })},
    {"NoMemoryAtAll", passes([] { return memory_of(0, F_SEAL_SHRINK); })},
    {"MemoryThatCantBeWritten", passes(read_only_memory)},
    {"MemoryThatIsSealedAgainstWriting",
     passes([] { return memory_of(sizeof(HostChannel), F_SEAL_SHRINK | F_SEAL_WRITE); })},
    {"AnotherSize",
     [](int socket, const Request &request) {
       const Closer opened(memory_of(sizeof(HostChannel), F_SEAL_SHRINK));
       return reply_with_files(socket, request, channel_reply(sizeof(HostChannel) * 2), {opened.file});
     }},
    {"NoSize",
     [](int socket, const Request &request) {
       const Closer opened(memory_of(sizeof(HostChannel), F_SEAL_SHRINK));
       return reply_with_files(socket, request, {1, 0, 0, 0}, {opened.file});
     }},
    {"FilesThatAreTooMany",
     [](int socket, const Request &request) {
       const Closer one(pipe_end()), other(pipe_end()), third(pipe_end());
       return reply_with_files(socket, request, channel_reply(), {one.file, other.file, third.file});
     }},
    {"NoReplyAtAll", [](int, const Request &) { return false; }, kProper, 2},
    {"NotEvenAResult", answers({}), kProper, 2},
    {"FewerBytesThanAResult", answers({1, 0}), kProper, 2},
    {"TooManyBytes", answers(Octets(500, 1)), kProper, 2},
    {"AnotherToken", with_token(77), kProper, 2},
    {"AFileWithAWrongReply",
     [](int socket, const Request &request) {
       const Closer opened(memory_of(sizeof(HostChannel), F_SEAL_SHRINK));
       return reply_with_files(socket, request, {1}, {opened.file});
     },
     kProper, 2},
    {"UseRefused", kProper, answers({9, 0, 0, 0})},
    {"UseAnsweredByAHangUp", kProper, [](int, const Request &) { return false; }, 2},
    {"UseRefusedWithAFile", kProper,
     [](int socket, const Request &request) {
       const Closer opened(pipe_end());
       return reply_with_files(socket, request, {9, 0, 0, 0}, {opened.file});
     }},
};

class FailingChannel : public MtsChannel, public testing::WithParamInterface<Failing> {};

TEST_P(FailingChannel, LeavesAllToTheSocket) {
  if (GetParam().make) make = GetParam().make;
  if (GetParam().use) use = GetParam().use;
  const uint32_t queue = bound_and_about_to_ask();
  const size_t before = open_descriptors();

  for (int i = 0; i < kUntilChannel - 1; i++) EXPECT_TRUE(works(queue));

  EXPECT_EQ(service.connections(), GetParam().connections);
  service.wait_until_closed(GetParam().connections - 1);
  EXPECT_EQ(open_descriptors(), before);
  EXPECT_EQ(by_channel, 0);
}

INSTANTIATE_TEST_SUITE_P(Mts, FailingChannel, testing::ValuesIn(kFailings),
                         [](const auto &test) { return test.param.name; });

TEST_F(MtsChannel, IsWaitedForNoLongerThanAReply) {
  service.hello.receive_limit_ms = 300;
  make = [](int, const Request &) { return true; };
  const uint32_t queue = bound_and_about_to_ask();

  const auto start = std::chrono::steady_clock::now();
  const Answer answer_of = exchange(queue, {1});

  EXPECT_EQ(answer_of.sent, MTS_FAILED);
  EXPECT_EQ(answer_of.error, static_cast<uint32_t>(ETIMEDOUT));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
  EXPECT_TRUE(works(queue)) << "on another connection";
}

// ---- Answers through a channel.

struct Answering {
  const char *name;
  ChannelAnswer answer;
  int error;  // 0: the exchange succeeds
};

Octets changed(Octets datagram, size_t at, uint8_t by) {
  datagram.at(at) = static_cast<uint8_t>(datagram.at(at) + by);
  return datagram;
}

const Answering kAnswerings[] = {
    {"Rightly", echo, 0},
    {"WithoutWaking",
     [](const Served &served) {
       served.channel.reply.size = 0;
       const Octets datagram = served.echo();
       memcpy(served.channel.reply_area, datagram.data(), datagram.size());
       served.channel.reply.size = static_cast<uint32_t>(datagram.size());
       __atomic_store_n(&served.channel.reply.word, served.serial, __ATOMIC_RELEASE);
       return true;
     },
     0},
    {"OnTheSocket",
     [](const Served &served) {
       const bool sent = FakeService::send_raw(served.socket, served.echo());
       return served.answer({}, HOST_CHANNEL_ON_SOCKET) && sent;
     },
     0},
    {"OnTheSocketAfterItSaidSo",
     [](const Served &served) {
       served.answer({}, HOST_CHANNEL_ON_SOCKET);
       return FakeService::send_raw(served.socket, served.echo());
     },
     0},
    {"OnTheSocketWhereNothingIs",
     [](const Served &served) {
       served.answer({}, HOST_CHANNEL_ON_SOCKET);
       return wait_for_the_end(served);
     },
     ETIMEDOUT},
    {"Never", wait_for_the_end, ETIMEDOUT},
    {"AnotherRequest",
     [](const Served &served) {
       served.wake(served.serial + 1);
       return wait_for_the_end(served);
     },
     ETIMEDOUT},
    {"AnEarlierRequest",
     [](const Served &served) {
       served.wake(served.serial - 1);
       return wait_for_the_end(served);
     },
     ETIMEDOUT},
    {"WithTheEnd",
     [](const Served &served) {
       served.wake(HOST_CHANNEL_OVER);
       return false;
     },
     ECONNRESET},
    {"ByClosingTheSocket", [](const Served &) { return false; }, ECONNRESET},
    {"WithNothing", [](const Served &served) { return served.answer({}, 0); }, EPROTO},
    {"WithLessThanAHeader", [](const Served &served) { return served.answer(served.echo(), 31); }, EPROTO},
    {"WithFewerBytesThanItSays",
     [](const Served &served) { return served.answer(served.echo(), static_cast<uint32_t>(served.echo().size()) - 1); },
     EPROTO},
    {"WithMoreBytesThanItSays",
     [](const Served &served) { return served.answer(served.echo(), static_cast<uint32_t>(served.echo().size()) + 1); },
     EPROTO},
    {"WithMoreThanTheArea",
     [](const Served &served) { return served.answer(served.echo(), sizeof served.channel.reply_area + 1); }, EPROTO},
    {"WithTheLargestSize", [](const Served &served) { return served.answer(served.echo(), UINT32_MAX - 1); }, EPROTO},
    {"WithAnotherMagic", [](const Served &served) { return served.answer(changed(served.echo(), 0, 1)); }, EPROTO},
    {"WithAnotherVersion", [](const Served &served) { return served.answer(changed(served.echo(), 4, 1)); }, EPROTO},
    {"WithAnotherOpcode", [](const Served &served) { return served.answer(changed(served.echo(), 8, 1)); }, EPROTO},
    {"WithAnotherToken", [](const Served &served) { return served.answer(changed(served.echo(), 12, 1)); }, EPROTO},
    {"WithAnEarlierToken", [](const Served &served) { return served.answer(changed(served.echo(), 13, 0xf0)); },
     EPROTO},
    {"WithoutAResult",
     [](const Served &served) { return served.answer(FakeService::reply_datagram(served.request, {})); }, EPROTO},
};

class AnsweringChannel : public MtsChannel, public testing::WithParamInterface<Answering> {};

TEST_P(AnsweringChannel, ComesToWhatIsTold) {
  service.hello.receive_limit_ms = 300;
  const uint32_t queue = bound_with_channel();
  answer = GetParam().answer;

  const Answer answer_of = exchange(queue, {5, 6});

  EXPECT_EQ(answer_of.error, static_cast<uint32_t>(GetParam().error));
  EXPECT_EQ(answer_of.received == MTS_FAILED, GetParam().error != 0);
  EXPECT_EQ(by_channel, 2) << "it was sent once";
  answer = echo;
  EXPECT_TRUE(works(queue)) << "on another connection, after a failure";
}

INSTANTIATE_TEST_SUITE_P(Mts, AnsweringChannel, testing::ValuesIn(kAnswerings),
                         [](const auto &test) { return test.param.name; });

TEST_F(MtsChannel, RepliesAreJudgedByTheirShape) {
  const uint32_t queue = bound_with_channel();
  answer = [](const Served &served) {
    return served.answer(FakeService::reply_datagram(served.request, {1, 0, 0, 0, 200, 0, 1, 2, 3}));
  };
  constexpr uint32_t kRandom = 66561;
  EXPECT_EQ(exchange(queue, {200, 0, 0, 0, 0, 0, 0, 0}, {}, kRandom).error, static_cast<uint32_t>(EBADMSG));
}

TEST_F(MtsChannel, SecretsDontStayInTheMemory) {
  const uint32_t queue = bound_with_channel();
  Octets seen;
  answer = [&seen](const Served &served) {
    seen = served.request.payload;
    return echo(served);
  };
  const Octets secret(100, 0x5a);
  EXPECT_EQ(exchange(queue, {1}, {{secret.data(), 100}}).payload.size(), 105U);
  const auto *area = static_cast<HostChannel *>(memory)->reply_area;
  EXPECT_EQ(std::count(area, area + 200, 0x5a), 0);
}

// ---- A service that has gone.

TEST_F(MtsChannel, RequestThatNobodyTookGoesAnotherWay) {
  const uint32_t queue = bound_with_channel();
  for (int i = 0; i < 3; i++) {
    service.stop();
    service.start();
    EXPECT_TRUE(works(queue));
  }
}

// It said that it ends, as a service does that ends in order, and its socket is still open.
TEST_F(MtsChannel, RequestBehindTheEndGoesAnotherWay) {
  const uint32_t queue = bound_with_channel();
  answer = [this](const Served &served) {
    echo(served);
    uint32_t word = host::read_word(&served.channel.request.word);
    while (!host::replace_word(&served.channel.request.word, word, word | HOST_CHANNEL_OVER)) {
      word = host::read_word(&served.channel.request.word);
    }
    answered.give();
    return wait_for_the_end(served);
  };
  EXPECT_TRUE(works(queue));
  answered.wait();
  EXPECT_TRUE(works(queue));
  EXPECT_EQ(service.connections(), 2U);
}

// ---- Large datagrams, and what is dropped.

TEST_F(MtsChannel, LargeRequestsGoByTheSocketInTheirOrder) {
  const uint32_t queue = bound_with_channel();
  int expected_by_socket = 0;
  for (const size_t size : {size_t{0}, size_t{1}, sizeof(HostChannel::request_area) - 32 - 1,
                            sizeof(HostChannel::request_area) - 32, size_t{40'000}, size_t{100'000}, size_t{7}}) {
    const Octets data(size, 0x33);
    answer = [this](const Served &served) {
      const bool came_by_socket = by_socket > last_by_socket;
      last_by_socket = by_socket;
      return came_by_socket ? FakeService::send_raw(served.socket, served.echo()) : echo(served);
    };
    const Answer answer_of = exchange(queue, {1}, {{data.data(), static_cast<uint32_t>(size)}});
    EXPECT_EQ(answer_of.payload.size(), 5 + size);
    if (size + 33 > sizeof(HostChannel::request_area)) expected_by_socket++;
    EXPECT_EQ(by_socket, expected_by_socket) << size;
  }
  EXPECT_EQ(service.connections(), 1U);
}

TEST_F(MtsChannel, RequestWhoseReplyNobodyWaitsForEndsItsConnection) {
  const uint32_t queue = bound_with_channel();
  KsMtsMessage sent;
  ASSERT_NE(send_sections(queue, {1}, {}, &sent), MTS_FAILED);
  mts_drop(queue, &sent);
  service.wait_until_closed(1);
  EXPECT_TRUE(works(queue));
  EXPECT_EQ(service.connections(), 2U);
}

void ignore(int) {}

TEST_F(MtsChannel, SignalsNeitherEndNorProlongTheWait) {
  service.hello.receive_limit_ms = 400;
  struct sigaction action = {}, before;
  action.sa_handler = ignore;
  sigaction(SIGALRM, &action, &before);
  const uint32_t queue = bound_with_channel();
  answer = wait_for_the_end;
  const itimerval often = {.it_interval = {.tv_sec = 0, .tv_usec = 3000}, .it_value = {.tv_sec = 0, .tv_usec = 3000}};
  const itimerval never = {};
  setitimer(ITIMER_REAL, &often, nullptr);
  const auto start = std::chrono::steady_clock::now();
  const Answer answer_of = exchange(queue, {1});
  const auto took = std::chrono::steady_clock::now() - start;
  setitimer(ITIMER_REAL, &never, nullptr);
  sigaction(SIGALRM, &before, nullptr);

  EXPECT_EQ(answer_of.error, static_cast<uint32_t>(ETIMEDOUT));
  EXPECT_GE(took, std::chrono::milliseconds(380));
  EXPECT_LT(took, std::chrono::seconds(20));
}

// ---- A process that forks, and one that may not do what a channel takes.

TEST_F(MtsChannel, ChildHasAConnectionOfItsOwnAndNoneOfTheMemory) {
  const uint32_t queue = bound_with_channel();
  EXPECT_TRUE(passes_in_child([&] { return works(queue); }));
  EXPECT_TRUE(works(queue));
  EXPECT_EQ(service.connections(), 2U) << "the parent's goes on";
  EXPECT_EQ(by_channel, 2);
}

TEST_F(MtsChannel, ProcessWithoutAddressSpaceForItGoesOnByTheSocket) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "these sanitizers may need more address space for any allocation";
#endif
  const uint32_t queue = bound();
  EXPECT_TRUE(works(queue));
  EXPECT_TRUE(passes_in_child([&] {
    if (!works(queue)) return false;
    rlimit none = {};
    getrlimit(RLIMIT_AS, &none);
    none.rlim_cur = 1 << 20;  // it has more than that already
    if (setrlimit(RLIMIT_AS, &none) != 0) return false;
    for (int i = 0; i < 2 * kUntilChannel; i++) {
      if (!works(queue)) return false;
    }
    return true;
  }));
  EXPECT_EQ(by_channel, 0);
  EXPECT_GE(asked, 1);
}

#ifdef SYS_futex_time64
constexpr uint32_t kOtherFutex = SYS_futex_time64;
#else
constexpr uint32_t kOtherFutex = SYS_futex;
#endif

bool forbid_waiting() {
  sock_filter program[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_futex, 1, 0),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kOtherFutex, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  const sock_fprog filter = {.len = sizeof program / sizeof *program, .filter = program};
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}

TEST_F(MtsChannel, ProcessThatMayNotWaitThereGoesOnByTheSocket) {
  const uint32_t queue = bound();
  EXPECT_TRUE(passes_in_child([&] {
    if (!forbid_waiting()) return false;
    for (int i = 0; i < 2 * kUntilChannel; i++) {
      if (!works(queue)) return false;
    }
    return true;
  }));
  EXPECT_EQ(by_channel, 0);
}

}  // namespace
