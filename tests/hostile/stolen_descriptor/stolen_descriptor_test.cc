// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// A program that closes descriptors it doesn't know, and whose own sockets get their numbers.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "ks_api.h"
#include "service/service_process.h"

namespace {

// By the number of exchanges that the program has had before, few or so many that its connection has a channel.
class StolenDescriptor : public testing::TestWithParam<int> {};

TEST_P(StolenDescriptor, GetsNoSecretAndStopsNobody) {
  const ks_test::ServiceProcess service;
  setenv("KS_SOCKET", service.socket().c_str(), 1);
  ASSERT_EQ(ks_init(0, 1, 0), KS_SUCCESS);
  uint8_t random[16];
  for (int i = 0; i < GetParam(); ++i) ASSERT_EQ(ks_generate_random_number(random, 16, 0), KS_SUCCESS);

  int pair[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, pair), 0);
  constexpr int kAll = 200;
  const int stranger = fcntl(pair[0], F_DUPFD, kAll);
  const int other_end = fcntl(pair[1], F_DUPFD, kAll);
  for (int number = 3; number < kAll; ++number) dup2(stranger, number);

  alarm(60);  // a call that hangs fails the test
  const uint8_t secret[] = "not for strangers";
  EXPECT_EQ(ks_store_secret_and_metadata("name", nullptr, secret, sizeof secret, nullptr, 0), KS_SUCCESS);
  alarm(0);
  char byte;
  EXPECT_LT(recv(other_end, &byte, 1, MSG_DONTWAIT), 0);
}

INSTANTIATE_TEST_SUITE_P(BySocketAndByChannel, StolenDescriptor, testing::Values(1, 40));

}  // namespace
