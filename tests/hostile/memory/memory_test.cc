// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// A service that is short of memory: whoever finds none is turned away, and the service goes on.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>

#include "service/raw_client.h"
#include "service/service_process.h"

namespace {

using ks_test::config_of_own_user;
using ks_test::RawClient;
using ks_test::ServiceProcess;
using ks_test::ServiceSetup;

TEST(Memory, ThatIsLackingForAConnectionEndsNothingElse) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "a sanitizer needs terabytes of addresses";
#endif
  ServiceSetup setup;
  setup.wrapper = {"prlimit", "--as=400000000"};  // room for some tens of stacks
  ServiceProcess service(setup);
  RawClient first(service.socket());
  EXPECT_EQ(first.hello().vdc_id, 7u);
  int turned_away = 0;
  {
    std::vector<std::unique_ptr<RawClient>> clients;
    for (int i = 0; i < 200; ++i) {
      clients.push_back(std::make_unique<RawClient>(service.socket()));
      const bool greeted = clients.back()->send(ks_test::request_datagram(1, 1, {})) && clients.back()->receive();
      turned_away += greeted ? 0 : 1;
      EXPECT_EQ(first.exchange(66593, {}).result(), 1u);
    }
  }
  EXPECT_GT(turned_away, 0);
  EXPECT_THAT(service.log(), testing::ContainsRegex("refused a connection of user [0-9]+: there (are|is) no (more )?"));
  service.reload(config_of_own_user(9));
  EXPECT_EQ(first.hello().vdc_id, 9u);
  EXPECT_EQ(service.stop(), 0);
}

}  // namespace
