// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// The server when memory is refused, allocation by allocation: every connection is answered or closed, none is left
// waiting, and all places come back.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <new>

#include "failing_memory/failing_memory.h"
#include "server/server.h"

namespace {

using namespace ksd;

// A store in which there is nothing, and for nothing any memory.
class EmptyStore : public vault::Store {
 public:
  std::optional<vault::Entry> find(const EntryName &) const override { throw std::bad_alloc(); }
  bool exists(const EntryName &) const override { return false; }
  std::optional<EntryName> at(uint16_t) const override { return std::nullopt; }
  size_t count() const override { return 0; }
  KsResult put(const EntryName &, const std::optional<EntryName> &, Bytes, Bytes, uid_t) override {
    throw std::bad_alloc();
  }
  KsResult set_metadata(const EntryName &, Bytes) override { return KS_NOT_FOUND; }
  KsResult remove(const EntryName &) override { return KS_NOT_FOUND; }
  KsResult rename(const EntryName &, const EntryName &) override { return KS_NOT_FOUND; }
  void on_retired(std::function<void(uint64_t)>) override {}
  KsResult compact() override { return KS_SUCCESS; }
  Usage usage() const override { return {}; }
};

config::Config own_config() {
  config::Config config;
  config.cache_uri = "lmdb:///a/folder/that/is/longer/than/a/short/text/{uid}";
  config.vdc_of_user[getuid()] = 7;
  config.silence_limit_ms = 200;
  return config;
}

// What a client gets that greets, names a key and asks for something that isn't there; -1 for a closed connection.
std::vector<int> answers_of(int socket) {
  std::vector<int> answers;
  for (int i = 0; i < 3; ++i) {
    std::array<uint32_t, 64> reply{};
    const ssize_t size = recv(socket, reply.data(), sizeof reply, 0);
    if (size < 36) {
      answers.push_back(-1);
      return answers;
    }
    answers.push_back(static_cast<int>(reply[8]));
  }
  return answers;
}

void send_all(int socket) {
  const auto say = [&](uint32_t opcode, std::vector<uint8_t> descriptor) {
    std::vector<uint32_t> header{0x3173776b, static_cast<uint32_t>(1 | descriptor.size() << 16),
                                 opcode,     1,
                                 0,          0,
                                 0,          static_cast<uint32_t>(descriptor.size())};
    std::vector<uint8_t> datagram(32);
    std::memcpy(datagram.data(), header.data(), 32);
    datagram.insert(datagram.end(), descriptor.begin(), descriptor.end());
    EXPECT_EQ(send(socket, datagram.data(), datagram.size(), MSG_NOSIGNAL), static_cast<ssize_t>(datagram.size()));
  };
  say(1, {});
  say(66593, {});
  say(67000, {});
}

// Returns whether an allocation failed.
bool try_with_failure(handlers::Service &service, const server::CurrentConfig &current, int nth) {
  std::array<int, 2> ends{};
  EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()), 0);
  UniqueFd theirs(ends[0]);
  const UniqueFd ours(ends[1]);
  send_all(ours.get());
  bool has_failed = false;
  std::vector<int> answers;
  {
    server::Server server(service, current);
    failing_memory::arm(nth, 1);
    server.admit(std::move(theirs));
    while (const auto wait = server.start_next()) {
      if (wait->count() != 0) break;
    }
    shutdown(ours.get(), SHUT_WR);
    server.finish();  // returns: every place has come back
    has_failed = failing_memory::disarm();
    answers = answers_of(ours.get());
  }
  if (answers.front() != -1) {
    EXPECT_THAT(answers.front(), testing::AnyOf(1, 4)) << nth;
  }
  if (!has_failed) {
    EXPECT_THAT(answers, testing::ElementsAre(1, 1, 26));
  }
  return has_failed;
}

TEST(NoMemory, AnswersOrClosesWhicheverAllocationFails) {
  start_logging(LogFormat::kPlain, "error");
  handlers::Service service(std::make_unique<EmptyStore>(), crypto::AlgorithmSet{});
  const server::CurrentConfig current(own_config());
  int failures = 0;
  while (failures < 1000 && try_with_failure(service, current, failures)) ++failures;
  EXPECT_GT(failures, 5);
  EXPECT_LT(failures, 1000);
}

}  // namespace
