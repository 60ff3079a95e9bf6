// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// Users who take all the connections that they can get: others, and the administrators, still get theirs.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <fstream>
#include <memory>

#include "service/raw_client.h"
#include "service/service_process.h"
#include "temporary_folder.h"

namespace {

using ks_test::RawClient;
using ks_test::ServiceProcess;
using ks_test::ServiceSetup;

ServiceSetup with_config(const std::string &config) {
  ServiceSetup setup;
  setup.config = config;
  return setup;
}

// A process of another user that opens connections until one is refused, and holds what it got until the object goes.
class Hoarder {
 public:
  Hoarder(uid_t uid, gid_t gid, const ServiceProcess &service, unsigned wanted) {
    std::array<int, 2> told{};
    EXPECT_EQ(pipe(told.data()), 0);
    pid_ = ks_test::start_as(uid, gid, [&] {
      std::vector<std::unique_ptr<RawClient>> clients;
      unsigned got = 0;
      for (; got < wanted; ++got) {
        clients.push_back(std::make_unique<RawClient>(service.socket()));
        if (!clients.back()->send(ks_test::request_datagram(1, 1, {})) || !clients.back()->receive()) break;
      }
      EXPECT_EQ(write(told[1], &got, sizeof got), static_cast<ssize_t>(sizeof got));
      pause();
      return 0;
    });
    EXPECT_EQ(read(told[0], &got_, sizeof got_), static_cast<ssize_t>(sizeof got_));
    close(told[0]);
    close(told[1]);
  }
  ~Hoarder() {
    kill(pid_, SIGKILL);
    ks_test::wait_for(pid_);
  }
  Hoarder(uid_t uid, const ServiceProcess &service, unsigned wanted) : Hoarder(uid, uid, service, wanted) {}
  Hoarder(const Hoarder &) = delete;
  Hoarder &operator=(const Hoarder &) = delete;

  unsigned got() const { return got_; }

 private:
  pid_t pid_ = -1;
  unsigned got_ = 0;
};

class Places : public testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to be several users";
  }
};

TEST_F(Places, OfFourUsersWithoutAVdcLeaveRoomForOthers) {
  const ServiceProcess service(with_config("[[vdc]]\nid = 7\nusers = [0]\n"));
  std::vector<std::unique_ptr<Hoarder>> hoarders;
  unsigned got = 0;
  for (uid_t uid = 23456; uid < 23460; ++uid) {
    hoarders.push_back(std::make_unique<Hoarder>(uid, service, 256));
    got += hoarders.back()->got();
  }
  EXPECT_EQ(got, 64u);
  std::vector<std::unique_ptr<RawClient>> own;
  for (int i = 0; i < 100; ++i) {
    own.push_back(std::make_unique<RawClient>(service.socket()));
    EXPECT_EQ(own.back()->hello().vdc_id, 7u);
  }
}

TEST_F(Places, OfUsersWithAVdcLeaveRoomForAnotherAndForAdministrators) {
  const ServiceProcess service(
      with_config("[limits]\nconnections = 128\n[administrators]\nusers = [0]\n"
                  "[[vdc]]\nid = 8\nusers = [23456, 23457, 23458]\n"));
  const Hoarder first(23456, service, 256);
  EXPECT_EQ(first.got(), 111u);  // of 126 that aren't kept for administrators, all but an eighth
  const Hoarder second(23457, service, 256);
  EXPECT_EQ(second.got(), 8u);
  const Hoarder third(23458, service, 256);
  EXPECT_EQ(third.got(), 7u);
  RawClient administrator(service.socket());
  EXPECT_EQ(administrator.hello().result, 1u);
  EXPECT_EQ(administrator.exchange(HOST_OP_STATUS, {}).result(), 1u);
}

TEST_F(Places, AreAskedForByThousandsOfUserIdsInAFewLinesOfTheLog) {
  const ServiceProcess service(with_config("[limits]\nconnections_unmapped = 0\n"));
  for (uid_t uid = 30000; uid < 30050; ++uid) {
    EXPECT_EQ(ks_test::run_as(uid, uid, [&] { return RawClient(service.socket()).is_closed() ? 0 : 1; }), 0);
  }
  const std::string log = service.log();
  EXPECT_EQ(log.find("refused a connection"), log.rfind("refused a connection"));
}

// The user has the group in a container, and there thousands of numbers.
TEST_F(Places, OfAContainerCountAsItsOwners) {
  ks_test::TemporaryFolder folder;
  std::ofstream(folder.path() + "/subuid") << "23456:300000:65536\n";
  ServiceSetup setup = with_config("[limits]\nconnections_per_user = 20\n[[vdc]]\nid = 8\ngroups = [23000]\n");
  const std::string command = "mount --bind " + folder.path() + "/subuid /etc/subuid && exec \"$@\"";
  setup.wrapper = {"unshare", "--mount", "sh", "-c", command, "sh"};
  std::vector<std::string> probe = setup.wrapper;
  probe.push_back("true");
  if (ks_test::run_program(probe).status != 0) GTEST_SKIP() << "nothing can be mounted on /etc/subuid here";
  const ServiceProcess service(setup);
  std::vector<std::unique_ptr<Hoarder>> hoarders;
  unsigned got = 0;
  for (const uid_t uid : {23456u, 300000u, 300001u, 365535u}) {
    hoarders.push_back(std::make_unique<Hoarder>(uid, 23000, service, 256));
    got += hoarders.back()->got();
  }
  EXPECT_EQ(got, 20u);
  EXPECT_EQ(Hoarder(365536, 23000, service, 256).got(), 20u) << "of whom the file says nothing";
}

}  // namespace
