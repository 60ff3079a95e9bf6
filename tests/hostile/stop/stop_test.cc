// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// Those who could keep the service from ending, or from going on: clients that leave their replies unread, and readers
// of its log that have stopped.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "service/raw_client.h"
#include "service/service_process.h"

namespace {

using ks_test::config_of_own_user;
using ks_test::RawClient;
using ks_test::request_datagram;
using ks_test::ServiceProcess;
using ks_test::ServiceSetup;
using testing::HasSubstr;

constexpr uint32_t kRandom = 66561;

TEST(Stop, DoesntWaitForClientsThatLeaveTheirRepliesUnread) {
  ServiceSetup setup;
  setup.config = "[service]\nsend_limit_ms = 3600000\nstop_limit_ms = 100\n";
  ServiceProcess service(setup);
  RawClient client(service.socket());
  client.hello();
  service.pause();
  // Far more replies than the socket has room for, and none is read: the service's thread stands in its send.
  uint32_t token = 1;
  const auto request = [&] { return request_datagram(kRandom, token, {255, 0, 0, 0, 0, 0, 0, 0}); };
  while (send(client.socket(), request().data(), request().size(), MSG_DONTWAIT | MSG_NOSIGNAL) > 0) ++token;
  service.resume();
  while (token < 5000) {
    const auto datagram = request();
    if (send(client.socket(), datagram.data(), datagram.size(), MSG_DONTWAIT | MSG_NOSIGNAL) < 0) break;
    ++token;
  }
  EXPECT_EQ(service.stop(), 0);
  EXPECT_THAT(service.log(), HasSubstr("connections didn't take their replies in time; closing them"));
}

TEST(Log, WhoseReaderHasStoppedDoesntStopTheService) {
  // The log goes into a pipe that nobody reads, and that is full after a few lines.
  std::array<int, 2> log{};
  ASSERT_EQ(pipe2(log.data(), O_CLOEXEC), 0);
  fcntl(log[1], F_SETPIPE_SZ, 4096);
  ServiceSetup setup;
  setup.wrapper = {"/bin/sh", "-c", "exec \"$@\" 2>/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(log[1]),
                   "sh"};
  ServiceProcess service(setup);
  const std::string config = config_of_own_user(7);
  for (int i = 0; i < 100; ++i) service.reload(config);  // each says so in the log
  RawClient client(service.socket());
  EXPECT_EQ(client.hello().vdc_id, 7u);

  std::array<char, 65536> lines{};
  EXPECT_GT(read(log[0], lines.data(), lines.size()), 1000);
  service.reload(config);
  const ssize_t size = read(log[0], lines.data(), lines.size());
  EXPECT_THAT(std::string(lines.data(), static_cast<size_t>(size)), HasSubstr("lines were lost: nobody read the log"));
  EXPECT_EQ(service.stop(), 0);
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // which turn mlock off
TEST(Secrets, ThatCantBeLockedAreSpokenOfWhenItHappens) {
  if (geteuid() == 0) GTEST_SKIP() << "root locks memory whatever the limit";
  ServiceSetup setup;
  setup.wrapper = {"prlimit", "--memlock=65536:65536"};
  ServiceProcess service(setup);
  EXPECT_THAT(service.log(), HasSubstr("secrets in memory can't all be locked against swapping"));
}
#endif

}  // namespace
