// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// Connections whose clients have gone before their turn.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "log_lines.h"
#include "server/server.h"
#include "vault_files/vault_files.h"

namespace {

using namespace ksd;

std::pair<UniqueFd, UniqueFd> connection() {
  std::array<int, 2> ends{-1, -1};
  EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()), 0);
  return {UniqueFd(ends[0]), UniqueFd(ends[1])};
}

TEST(ClientsThatHaveGone, TakeNothingOfWhatTheirUserIsAllowed) {
  const LogLines log;
  const vault::Folder folder;
  handlers::Service service(folder.open(), crypto::AlgorithmSet{});
  config::Config config;
  config.vdc_of_user[getuid()] = 7;
  config.limits.connects_per_second = 10;  // one of them at once
  const server::CurrentConfig current(config);
  server::Server server(service, current);
  for (int i = 0; i < 20; ++i) {
    auto [theirs, gone] = connection();
    gone = UniqueFd();
    server.admit(std::move(theirs));
  }
  auto [theirs, ours] = connection();
  server.admit(std::move(theirs));
  auto wait = server.start_next();
  while (wait && wait->count() == 0) wait = server.start_next();
  EXPECT_FALSE(wait) << "somebody has to wait for " << wait->count() << " ns";
  ours = UniqueFd();
  server.finish();
}

}  // namespace
