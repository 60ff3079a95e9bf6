// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// What an administrator is told page by page.
#include <gtest/gtest.h>

#include <cstring>

#include "service/raw_client.h"
#include "service/service_process.h"
#include "vault_files/vault_files.h"

namespace {

using namespace ksd;

// More than one page, whose end is that of a page, and one that is none.
class Owners : public testing::TestWithParam<uid_t> {};

TEST_P(Owners, AreToldPageByPageEachOnce) {
  const uid_t count = GetParam();
  ks_test::ServiceSetup setup;
  setup.config = ks_test::config_of_administrator(7);
  setup.parent = "/dev/shm";
  ks_test::ServiceProcess service(setup);
  service.stop();
  {
    vault::VaultOptions options;
    options.path = service.vault();
    options.master_key_file = service.master_key_file();
    const auto vault = vault::open_vault(options);
    for (uid_t user = 1; user <= count; ++user) {
      ASSERT_EQ(vault::put(*vault, std::to_string(user), std::string(user, 'x'), "", user), KS_SUCCESS);
    }
  }
  service.start();
  ks_test::RawClient client(service.socket());
  client.hello();

  uid_t next = 1;
  for (bool more = true; more;) {
    ks_test::Datagram from(sizeof next);
    std::memcpy(from.data(), &next, sizeof next);
    const ks_test::RawReply reply = client.exchange(HOST_OP_OWNERS, from);
    HostPageReply page{};
    ASSERT_GE(reply.payload.size(), sizeof page);
    std::memcpy(&page, reply.payload.data(), sizeof page);
    ASSERT_EQ(page.result, KS_SUCCESS);
    ASSERT_EQ(reply.payload.size(), sizeof page + page.count * sizeof(HostOwnerRecord));
    ASSERT_EQ(page.count, std::min<uid_t>(HOST_PAGE_RECORDS, count - next + 1));
    for (uint32_t i = 0; i < page.count; ++i, ++next) {
      HostOwnerRecord owner{};
      std::memcpy(&owner, reply.payload.data() + sizeof page + i * sizeof owner, sizeof owner);
      EXPECT_EQ(owner.uid, next);
      EXPECT_EQ(owner.bytes, next);
    }
    more = page.more == 1;
    ASSERT_EQ(more, next <= count);
  }
  EXPECT_EQ(next, count + 1);

  // Who has most is the last of them.
  const ks_test::RawReply limits = client.exchange(HOST_OP_LIMITS, {});
  HostLimitsReply head{};
  std::memcpy(&head, limits.payload.data(), sizeof head);
  bool is_told = false;
  for (uint32_t i = 0; i < head.count; ++i) {
    HostLimitRecord limit{};
    std::memcpy(&limit, limits.payload.data() + sizeof head + i * sizeof limit, sizeof limit);
    if (std::strcmp(limit.key, "bytes_per_user") != 0) continue;
    is_told = true;
    EXPECT_EQ(limit.uid, count);
    EXPECT_EQ(limit.used, count);
  }
  EXPECT_TRUE(is_told);
}

INSTANTIATE_TEST_SUITE_P(Administration, Owners, testing::Values(HOST_PAGE_RECORDS, 2 * HOST_PAGE_RECORDS + 88));

}  // namespace
