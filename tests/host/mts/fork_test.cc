// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// What a forked child shares with its parent: nothing.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <thread>

#include "client.h"
#include "host_fork.h"

namespace {

TEST(ForkGeneration, StaysTheSameInAProcess) {
  const uint32_t generation = host::fork_generation();
  EXPECT_NE(generation, 0U);
  std::thread([&] { EXPECT_EQ(host::fork_generation(), generation); }).join();
  EXPECT_EQ(host::fork_generation(), generation);
}

TEST(ForkGeneration, DiffersFromEveryAncestors) {
  const uint32_t own = host::fork_generation();
  EXPECT_TRUE(passes_in_child([&] {
    const uint32_t childs = host::fork_generation();
    return childs != own && childs == host::fork_generation() && passes_in_child([&] {
             const uint32_t grandchilds = host::fork_generation();
             return grandchilds != own && grandchilds != childs;
           });
  }));
  EXPECT_EQ(host::fork_generation(), own);
}

TEST(ForkGeneration, IsOneForAllThreadsOfAChild) {
  host::fork_generation();
  EXPECT_TRUE(passes_in_child([] {
    uint32_t seen[8];
    {
      std::vector<std::thread> threads;
      for (uint32_t &one : seen) threads.emplace_back([&one] { one = host::fork_generation(); });
      for (std::thread &thread : threads) thread.join();
    }
    for (const uint32_t one : seen) {
      if (one != seen[0]) return false;
    }
    return true;
  }));
}

TEST_F(Mts, GivesAChildConnectionsOfItsOwn) {
  const uint32_t queue = bound();
  ASSERT_TRUE(works(queue));

  EXPECT_TRUE(passes_in_child([&] { return works(queue) && works(queue); }));
  EXPECT_EQ(service.connections(), 2U);
  EXPECT_TRUE(works(queue));
  EXPECT_EQ(service.connections(), 2U) << "the parent's own goes on";
}

TEST_F(Mts, GivesAChildTokensOfItsOwn) {
  const uint32_t queue = bound();
  const auto tokens = [queue] {
    std::vector<uint32_t> found;
    for (int i = 0; i < 3; i++) {
      KsMtsMessage sent;
      KsMtsMessage received;
      if (send_sections(queue, {1}, {}, &sent) == MTS_FAILED) abort();
      found.push_back(mts_rr_token_get(&sent));
      if (receive_by(queue, found.back(), &received) == MTS_FAILED) abort();
      mts_drop(queue, &sent);
      mts_drop(queue, &received);
    }
    return found;
  };
  EXPECT_TRUE(passes_in_child([&] {
    const std::vector<uint32_t> parents = tokens();
    return passes_in_child([&] {
      for (const uint32_t own : tokens()) {
        if (std::find(parents.begin(), parents.end(), own) != parents.end()) return false;
      }
      return true;
    });
  }));
}

TEST_F(Mts, LeavesAParentsExchangeToTheParent) {
  service.handler = [&](int socket, const FakeService::Request &request) {
    if (request.payload == Octets{1}) held.wait();
    return FakeService::echo(socket, request);
  };
  const uint32_t queue = bound();
  KsMtsMessage sent;
  ASSERT_EQ(send_sections(queue, {1}, {}, &sent), 0U);

  EXPECT_TRUE(passes_in_child([&] {
    KsMtsMessage received;
    const bool refused = receive_by(queue, mts_rr_token_get(&sent), &received) == MTS_FAILED;
    mts_drop(queue, &sent);
    return refused && works(queue);
  }));
  held.give();
  KsMtsMessage received;
  ASSERT_EQ(receive_by(queue, mts_rr_token_get(&sent), &received), 0U);
  EXPECT_EQ(payload_of(received), (Octets{1, 0, 0, 0, 1}));
  mts_drop(queue, &sent);
  mts_drop(queue, &received);
}

// Otherwise the service would see a parent's connection open for as long as the child lives.
TEST_F(Mts, ClosesAChildsCopiesOfItsParentsConnections) {
  const uint32_t queue = bound();
  KsMtsMessage sent;
  ASSERT_EQ(send_sections(queue, {1}, {}, &sent), 0U);
  int ready[2];
  int end[2];
  ASSERT_EQ(pipe(ready), 0);
  ASSERT_EQ(pipe(end), 0);
  const pid_t child = fork();
  if (child == 0) {
    close(end[1]);
    const char done = works(queue) ? 'y' : 'n';
    char byte;
    if (write(ready[1], &done, 1) != 1 || read(end[0], &byte, 1) != 0) _exit(1);
    _exit(0);
  }
  char done = 0;
  ASSERT_EQ(read(ready[0], &done, 1), 1);
  EXPECT_EQ(done, 'y');
  mts_drop(queue, &sent);  // ends the parent's connection
  service.wait_until_closed(1);

  close(end[1]);
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  for (const int number : {ready[0], ready[1], end[0]}) close(number);
}

// As a program does that becomes a daemon: it closes all descriptors and opens others under the same numbers.
TEST_F(Mts, TouchesNoStrangersDescriptorInAChild) {
  const uint32_t queue = bound();
  works(queue);
  EXPECT_TRUE(passes_in_child([&] {
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET, 0, pair) != 0) return false;
    constexpr int kAll = 200;  // more than the tests before may have left open
    const int stranger = fcntl(pair[0], F_DUPFD, kAll);
    const int other_end = fcntl(pair[1], F_DUPFD, kAll);
    for (int number = 3; number < kAll; number++) dup2(stranger, number);
    if (!works(queue)) return false;
    // A number that was closed may be in use again, for the child's own connection.
    struct stat expected;
    if (fstat(stranger, &expected) != 0) return false;
    for (int number = 3; number < kAll; number++) {
      struct stat status;
      if (fstat(number, &status) != 0 || status.st_ino != expected.st_ino) return false;
    }
    char byte;
    return recv(other_end, &byte, 1, MSG_DONTWAIT) < 0 && errno == EAGAIN;  // nothing was sent there
  }));
}

TEST_F(Mts, GoesOnWhenItsDescriptorsAreClosedUnderIt) {
  const uint32_t queue = bound();
  works(queue);
  EXPECT_TRUE(passes_in_child([&] {
    if (!works(queue)) return false;
    for (int number = 3; number < 200; number++) close(number);
    return works(queue);
  }));
}

TEST_F(Mts, ForksWhileThreadsExchange) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "a child may find this sanitizer's allocator locked by a thread that it doesn't have";
#endif
  const uint32_t queue = bound();
  std::atomic<bool> end = false;
  std::atomic<int> wrong = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < 3; i++) {
    threads.emplace_back([&] {
      while (!end) wrong += works(queue) ? 0 : 1;
    });
  }
  for (int i = 0; i < 20; i++) EXPECT_TRUE(passes_in_child([&] { return works(queue); }));
  end = true;
  for (std::thread &thread : threads) thread.join();
  EXPECT_EQ(wrong, 0);
}

}  // namespace
