// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// What the service manager is told.
#include "server/notify.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <string>

#include "temporary_folder.h"

namespace {

TEST(Notifier, GoesOnWhenTheManagerHasStoppedReading) {
  const ks_test::TemporaryFolder folder;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  (folder.path() + "/n").copy(address.sun_path, sizeof address.sun_path);
  const auto *const where = reinterpret_cast<const sockaddr *>(&address);
  const ksd::UniqueFd manager(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  ASSERT_EQ(bind(manager.get(), where, sizeof address), 0);
  const ksd::UniqueFd other(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  while (sendto(other.get(), "x", 1, MSG_DONTWAIT, where, sizeof address) == 1) continue;

  setenv("NOTIFY_SOCKET", address.sun_path, 1);
  ksd::server::Notifier notifier;
  notifier.reloading();
  notifier.ready();

  char byte = 0;
  while (recv(manager.get(), &byte, 1, MSG_DONTWAIT) == 1) EXPECT_EQ(byte, 'x');
  notifier.ready();
  EXPECT_EQ(recv(manager.get(), &byte, 1, MSG_DONTWAIT), 1);
  EXPECT_EQ(byte, 'R');
}

// As containers pass it on: a name that is in no folder.
TEST(Notifier, TellsAManagerWithoutAFile) {
  const std::string name = "ks-notify-test-" + std::to_string(getpid());
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  name.copy(address.sun_path + 1, sizeof address.sun_path - 1);
  const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
  const ksd::UniqueFd manager(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  ASSERT_EQ(bind(manager.get(), reinterpret_cast<const sockaddr *>(&address), size), 0);

  setenv("NOTIFY_SOCKET", ("@" + name).c_str(), 1);
  ksd::server::Notifier().ready();
  char byte = 0;
  EXPECT_EQ(recv(manager.get(), &byte, 1, MSG_DONTWAIT), 1);
  EXPECT_EQ(byte, 'R');
}

}  // namespace
