// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// Somebody else's locks on what the service shares with everybody: they keep no service from starting.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>

#include "service/raw_client.h"
#include "service/service_process.h"

namespace {

using ks_test::RawClient;
using ks_test::ServiceProcess;
using testing::HasSubstr;

constexpr uid_t kAttacker = 23456;

// Who may read a file may hold a lock of this kind on it, which is the kind that SQLite uses.
void lock_all_of(int file) {
  struct flock lock {};
  lock.l_type = F_RDLCK;
  fcntl(file, F_SETLK, &lock);
}

// A process of another user that holds locks on everything it can open, until the object goes.
class LockHolder {
 public:
  LockHolder(const std::vector<std::string> &paths, int operation) {
    std::array<int, 2> ready{};
    EXPECT_EQ(pipe(ready.data()), 0);
    pid_ = ks_test::start_as(kAttacker, kAttacker, [&] {
      for (const std::string &path : paths) {
        const int file = open(path.c_str(), O_RDONLY | O_NONBLOCK);
        if (file >= 0) flock(file, operation);
        if (file >= 0) lock_all_of(file);
      }
      EXPECT_EQ(write(ready[1], "", 1), 1);
      pause();
      return 0;
    });
    char byte;
    EXPECT_EQ(read(ready[0], &byte, 1), 1);
    close(ready[0]);
    close(ready[1]);
  }
  ~LockHolder() {
    kill(pid_, SIGKILL);
    ks_test::wait_for(pid_);
  }

 private:
  pid_t pid_;
};

class Locks : public testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to become another user";
  }
};

TEST_F(Locks, OnTheStatePageKeepNoServiceDown) {
  ServiceProcess service;
  service.kill();
  const LockHolder holder({service.state_page(), service.socket() + ".lock", service.vault(), service.folder()},
                          LOCK_EX | LOCK_NB);
  service.start();
  RawClient client(service.socket());
  EXPECT_EQ(client.hello().vdc_id, 7u);
}

// As a copy of a backup leaves it.
TEST_F(Locks, CantBeTakenOnAVaultThatOthersCouldRead) {
  ServiceProcess service;
  service.stop();
  ASSERT_EQ(chmod(service.vault().c_str(), 0644), 0);
  service.start();
  EXPECT_EQ(std::filesystem::status(service.vault()).permissions(), std::filesystem::perms{0600});
  EXPECT_THAT(service.log(), HasSubstr("vault.db: others could open it; its mode was 0644 and is 0600 now"));
  service.kill();
  const LockHolder holder({service.vault()}, LOCK_EX | LOCK_NB);
  service.start();
  RawClient client(service.socket());
  EXPECT_EQ(client.hello().vdc_id, 7u);
}

TEST_F(Locks, CanBeTakenOnNothingOfTheServices) {
  ServiceProcess service;
  EXPECT_EQ(ks_test::run_as(kAttacker, kAttacker,
                            [&] { return open((service.socket() + ".lock").c_str(), O_RDONLY) < 0 ? 0 : 1; }),
            0);
}

TEST(LockFile, IsRefusedWhenOthersMayOpenIt) {
  ServiceProcess service;
  service.stop();
  const std::string path = service.socket() + ".lock";
  chmod(path.c_str(), 0644);
  try {
    service.start();
    FAIL();
  } catch (const std::runtime_error &error) {
    EXPECT_THAT(error.what(), HasSubstr("s.lock: isn't a file of user " + std::to_string(geteuid()) +
                                        " alone, as a lock has to be; remove it"));
  }
  EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms{0644});  // not ours to change
}

TEST(LockFile, IsNotFollowedToWhereALinkLeads) {
  ServiceProcess service;
  service.stop();
  const std::string path = service.socket() + ".lock";
  std::filesystem::remove(path);
  std::filesystem::create_symlink(service.folder() + "/elsewhere", path);
  EXPECT_THROW(service.start(), std::runtime_error);
  EXPECT_FALSE(std::filesystem::exists(service.folder() + "/elsewhere"));
}

TEST(SocketFolder, IsRefusedWhenOthersMayWriteIt) {
  for (const mode_t mode : {0777u, 01777u, 0770u}) {
    ServiceProcess service;
    service.stop();
    chmod(service.folder().c_str(), mode);
    try {
      service.start();
      FAIL() << std::oct << mode;
    } catch (const std::runtime_error &error) {
      EXPECT_THAT(error.what(), HasSubstr("with which others may write it; run: chmod go-w " + service.folder()));
    }
  }
}

TEST(SocketFolder, IsRefusedWhenItIsTheWorkingFolderAndOthersMayWriteIt) {
  const ServiceProcess other;
  const std::filesystem::path before = std::filesystem::current_path();
  std::filesystem::current_path("/tmp");
  const ks_test::ProgramRun run =
      ks_test::run_ksd({"--config", other.folder() + "/ksd.toml", "--socket", "ks-socket", "--vault",
                        other.folder() + "/another.db", "--master-key-file", other.folder() + "/another.key"});
  std::filesystem::current_path(before);
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.errors, HasSubstr("the folder of the socket isn't safe: . has mode 1777, with which others"));
}

}  // namespace
