// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// What a confined process can't do any more, and what it still can. Each test's body runs in a child of its own.
#include "server/sandbox.h"

#include <dirent.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/landlock.h>
#include <pwd.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <fstream>
#include <functional>
#include <thread>

#include "content_of.h"
#include "server/notify.h"
#include "service/service_process.h"
#include "temporary_folder.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || defined(KS_COVERAGE)
#define SKIP_WHERE_NOTHING_IS_CONFINED() GTEST_SKIP() << "a sanitized build does more than the service would"
#else
#define SKIP_WHERE_NOTHING_IS_CONFINED() static_cast<void>(0)
#endif

namespace {

using ksd::config::Sandbox;

class Confined : public testing::Test {
 protected:
  // Whether `body` holds in a child that is confined to the folder own() and to reading shared().
  bool holds(const std::function<bool()> &body, Sandbox sandbox = Sandbox::kRequired) const {
    const pid_t child = fork();
    if (child == 0) {
      ksd::server::confine(sandbox, {.changed = {own()}, .read = {shared(), "/etc", "/usr", "/lib", "/lib64", "/run"}});
      _exit(body() ? 0 : 1);
    }
    return ks_test::wait_for(child) == 0;
  }

  std::string own() const { return own_.path(); }
  std::string shared() const { return shared_.path(); }
  std::string foreign() const { return foreign_.path(); }

 private:
  const ks_test::TemporaryFolder own_;
  const ks_test::TemporaryFolder shared_;
  const ks_test::TemporaryFolder foreign_;
};

bool makes(const std::string &path) {
  const int fd = open(path.c_str(), O_RDWR | O_CREAT, 0600);
  return fd >= 0 && write(fd, "x", 1) == 1 && ftruncate(fd, 0) == 0 && close(fd) == 0;
}

TEST_F(Confined, ChangesItsOwnFolder) {
  SKIP_WHERE_NOTHING_IS_CONFINED();
  EXPECT_TRUE(holds([&] {
    return makes(own() + "/a") && rename((own() + "/a").c_str(), (own() + "/b").c_str()) == 0 &&
           link((own() + "/b").c_str(), (own() + "/c").c_str()) == 0 && unlink((own() + "/b").c_str()) == 0 &&
           mkdir((own() + "/d").c_str(), 0700) == 0 && opendir(own().c_str()) != nullptr;
  }));
}

TEST_F(Confined, OnlyReadsWhatIsShared) {
  SKIP_WHERE_NOTHING_IS_CONFINED();
  std::ofstream(shared() + "/file") << "text";
  EXPECT_TRUE(holds([&] {
    return open((shared() + "/file").c_str(), O_RDONLY) >= 0 && !makes(shared() + "/file") && errno == EACCES &&
           unlink((shared() + "/file").c_str()) < 0 && errno == EACCES;
  }));
  // Kernels from 6.2 on know of that right.
  if (syscall(SYS_landlock_create_ruleset, nullptr, 0, LANDLOCK_CREATE_RULESET_VERSION) < 3) return;
  EXPECT_TRUE(holds([&] { return truncate((shared() + "/file").c_str(), 0) < 0 && errno == EACCES; }));
}

TEST_F(Confined, OpensNothingElse) {
  SKIP_WHERE_NOTHING_IS_CONFINED();
  std::ofstream(foreign() + "/file") << "text";
  EXPECT_TRUE(holds([&] { return open((foreign() + "/file").c_str(), O_RDONLY) < 0 && errno == EACCES; }));
  EXPECT_TRUE(holds([&] { return !makes(foreign() + "/new") && errno == EACCES; }));
  EXPECT_TRUE(holds([] { return open("/proc/self/environ", O_RDONLY) < 0; }));
}

TEST_F(Confined, StartsThreadsButNoPrograms) {
  SKIP_WHERE_NOTHING_IS_CONFINED();
  EXPECT_TRUE(holds([] {
    bool ran = false;
    std::thread([&] { ran = true; }).join();
    return ran;
  }));
  EXPECT_TRUE(holds([] { return fork() < 0 && errno == EPERM; }));
  EXPECT_TRUE(holds([] { return execl("/bin/true", "true", nullptr) < 0 && errno == EPERM; }));
}

TEST_F(Confined, SpeaksOverUnixSocketsAlone) {
  SKIP_WHERE_NOTHING_IS_CONFINED();
  EXPECT_TRUE(holds([] { return socket(AF_UNIX, SOCK_DGRAM, 0) >= 0; }));
  for (const int family : {AF_INET, AF_INET6, AF_NETLINK, AF_PACKET}) {
    EXPECT_TRUE(holds([&] { return socket(family, SOCK_DGRAM, 0) < 0 && errno == EPERM; })) << family;
  }
}

TEST_F(Confined, ExecutesNoMemoryThatItWrote) {
  SKIP_WHERE_NOTHING_IS_CONFINED();
  constexpr size_t kSize = 4096;
  const auto map = [&](int protection) { return mmap(nullptr, kSize, protection, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0); };
  EXPECT_TRUE(holds([&] { return map(PROT_READ | PROT_WRITE) != MAP_FAILED; }));
  EXPECT_TRUE(holds([&] { return map(PROT_READ | PROT_WRITE | PROT_EXEC) == MAP_FAILED; }));
  EXPECT_TRUE(holds([&] { return mprotect(map(PROT_READ | PROT_WRITE), kSize, PROT_READ | PROT_EXEC) < 0; }));
}

TEST_F(Confined, HasNoCallsOfAnAdministrator) {
  SKIP_WHERE_NOTHING_IS_CONFINED();
  EXPECT_TRUE(holds([] { return setuid(getuid()) < 0 && errno == EPERM; }));
  EXPECT_TRUE(holds([] { return kill(getppid(), 0) < 0 && errno == EPERM; }));
  EXPECT_TRUE(holds([] { return unshare(CLONE_NEWUSER) < 0 && errno == EPERM; }));
  EXPECT_TRUE(holds([] { return prctl(PR_GET_NO_NEW_PRIVS, 0, 0, 0, 0) == 1; }));
}

// As a reload does: modules of the machine may be loaded for it, and sockets of helpers asked.
TEST_F(Confined, LooksUsersUp) {
  SKIP_WHERE_NOTHING_IS_CONFINED();
  EXPECT_TRUE(holds([] { return getpwnam("root") != nullptr && getpwnam("nobody-of-that-name") == nullptr; }));
}

TEST_F(Confined, IsNothingWhenItIsOff) {
  EXPECT_TRUE(holds([&] { return makes(foreign() + "/new") && fork() >= 0; }, Sandbox::kOff));
}

TEST(ConfinedService, ServesAndReloads) {
  SKIP_WHERE_NOTHING_IS_CONFINED();
  ks_test::ServiceSetup setup;
  setup.config = "[service]\nsandbox = \"required\"\n";
  ks_test::ServiceProcess service(setup);
  EXPECT_THAT(ks_test::content_of("/proc/" + std::to_string(service.pid()) + "/status"),
              testing::HasSubstr("Seccomp:\t2\n"));
  service.reload("[service]\nsandbox = \"required\"\n[administrators]\nusers = [\"root\"]\n");
  EXPECT_THAT(service.log(), testing::HasSubstr("configuration reloaded"));
  EXPECT_EQ(service.stop(), 0);
}

TEST(ServiceOfRoot, IsRefusedUnlessItIsAllowed) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  const auto run = ks_test::run_program({KS_SERVICE_DIR "/ksd", "--config", "/nonexistent/ksd.toml"});
  EXPECT_EQ(run.status, 2);
  EXPECT_THAT(run.errors, testing::HasSubstr("refuses to run as root"));
  EXPECT_THAT(run.errors, testing::HasSubstr("--allow-root"));
  const auto allowed =
      ks_test::run_program({KS_SERVICE_DIR "/ksd", "--allow-root", "--config", "/nonexistent/ksd.toml"});
  EXPECT_EQ(allowed.status, 1) << "it gets as far as the configuration";
}

TEST(WatchedService, TellsThatItIsAlive) {
  ks_test::ServiceSetup setup;
  setup.environment = {"WATCHDOG_USEC=20000"};
  ks_test::ServiceProcess service(setup);
  service.wait_for_notification("WATCHDOG=1");
  service.wait_for_notification("WATCHDOG=1");
}

TEST(WatchInterval, IsHalfTheManagersLimitAndOfThisProcessAlone) {
  const auto interval = [](const char *limit, const std::string &pid) {
    setenv("WATCHDOG_USEC", limit, 1);
    setenv("WATCHDOG_PID", pid.c_str(), 1);
    return ksd::server::Notifier().watch_interval();
  };
  const std::string own = std::to_string(getpid());
  EXPECT_EQ(interval("30000000", own), std::chrono::seconds(15));
  EXPECT_EQ(getenv("WATCHDOG_USEC"), nullptr);
  EXPECT_EQ(interval("30000000", std::to_string(getpid() + 1)), std::nullopt);
  EXPECT_EQ(interval("0", own), std::nullopt);
  EXPECT_EQ(interval("1s", own), std::nullopt);
  EXPECT_EQ(interval("18446744073709551615", own), std::chrono::minutes(30)) << "no overflow";
}

TEST(RefusedReload, StandsInTheServicesStatus) {
  ks_test::ServiceProcess service;
  service.reload("[servise]\n");
  service.signal(SIGHUP);
  service.wait_for_notification("STATUS=serving; a changed configuration was refused: ");
  service.reload("");
  service.signal(SIGHUP);
  service.wait_for_notification("READY=1\nSTATUS=serving\n");
}

}  // namespace
