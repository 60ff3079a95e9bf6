// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// The service's life: start, reload, restart, end, and the files that it shares with its clients.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "service/raw_client.h"
#include "service/service_process.h"

namespace {

using ks_test::config_of_own_user;
using ks_test::RawClient;
using ks_test::run_as;
using ks_test::run_ksd;
using ks_test::ServiceProcess;
using ks_test::ServiceSetup;
using ks_test::TemporaryFolder;
using testing::HasSubstr;

mode_t mode_of(const std::string &path) {
  struct stat status {};
  EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
  return status.st_mode & 07777;
}

// A client's view of the state page: words at their offsets, mapped read-only.
class MappedPage {
 public:
  explicit MappedPage(const std::string &path) {
    const int file = open(path.c_str(), O_RDONLY);
    words_ = static_cast<const volatile uint32_t *>(mmap(nullptr, 80, PROT_READ, MAP_SHARED, file, 0));
    close(file);
  }
  ~MappedPage() { munmap(const_cast<uint32_t *>(words_), 80); }

  uint32_t magic() const { return words_[0]; }
  uint32_t version() const { return words_[1]; }
  uint32_t supstate() const { return words_[2]; }
  uint32_t history(size_t word) const { return words_[4 + word]; }
  uint32_t debug(size_t word) const { return words_[12 + word]; }

 private:
  const volatile uint32_t *words_;
};

TEST(StatePage, HasTheDefaultsOfAServiceThatIsToldNothing) {
  ServiceProcess service;
  const MappedPage page(service.state_page());
  EXPECT_EQ(page.magic(), 0x3173736bu);
  EXPECT_EQ(page.version(), 1u);
  EXPECT_EQ(page.supstate(), 0u);
  EXPECT_EQ(page.history(3), 1u << 4);  // subtype 100
  EXPECT_EQ(page.debug(3), 0u);
  EXPECT_EQ(std::filesystem::file_size(service.state_page()), 80u);
  EXPECT_EQ(mode_of(service.state_page()), 0644u);
}

TEST(StatePage, IsNotWrittenThroughALink) {
  ServiceProcess service;
  EXPECT_EQ(service.stop(), 0);
  const std::string elsewhere = service.folder() + "/elsewhere";
  std::ofstream(elsewhere) << "precious";
  std::filesystem::remove(service.state_page());
  std::filesystem::create_symlink(elsewhere, service.state_page());
  EXPECT_THROW(service.start(), std::runtime_error);
  EXPECT_THAT(service.log(), HasSubstr(service.state_page() + ": can't open the state page: "));
  EXPECT_EQ(std::filesystem::file_size(elsewhere), 8u);
}

TEST(StatePage, ChangesUnderRunningClients) {
  ServiceProcess service;
  const MappedPage page(service.state_page());
  service.reload("[service]\nsupstate = 2\n[trace]\nrecord = [0, 103, 255]\ndebug = [100]\n");
  EXPECT_EQ(page.supstate(), 2u);
  EXPECT_EQ(page.history(0), 1u);
  EXPECT_EQ(page.history(3), 1u << 7);
  EXPECT_EQ(page.history(7), 1u << 31);
  EXPECT_EQ(page.debug(3), 1u << 4);
}

TEST(StatePage, StaysTheSameFileWhenTheServiceStartsAgain) {
  ServiceProcess service({.config = "[service]\nsupstate = 2\n"});
  const MappedPage page(service.state_page());
  service.kill();
  EXPECT_EQ(page.supstate(), 2u);
  service.start();
  service.reload("[service]\nsupstate = 3\n");
  EXPECT_EQ(page.supstate(), 3u);
}

TEST(SocketFolder, HoldsNothingThatClientsMayWrite) {
  const ServiceProcess service;
  EXPECT_FALSE(std::filesystem::exists(service.folder() + "/history"));
}

TEST(SocketFolder, KeepsAFolderOfAnEarlierVersionAsItIs) {
  ServiceProcess service;
  service.stop();
  const std::string history = service.folder() + "/history";
  mkdir(history.c_str(), 0700);
  service.start();
  EXPECT_EQ(mode_of(history), 0700u);
}

TEST(Reload, CountsForConnectionsThatAreOpen) {
  ServiceProcess service;
  RawClient client(service.socket());
  EXPECT_EQ(client.hello().vdc_id, 7u);
  service.reload(config_of_own_user(9));
  EXPECT_EQ(client.hello().vdc_id, 9u);
  service.reload("");
  EXPECT_EQ(client.hello().vdc_id, 0xffffu);
}

TEST(Reload, KeepsTheOldConfigurationWhenTheNewOneIsWrong) {
  ServiceProcess service;
  RawClient client(service.socket());
  service.reload("[[vdc]]\nid = 9\nusers = [0]\ncolour = 1\n");
  EXPECT_EQ(client.hello().vdc_id, 7u);
  EXPECT_THAT(service.log(), HasSubstr("/ksd.toml:4:1: unknown key vdc.colour"));
  EXPECT_THAT(service.log(), HasSubstr("the old one stays in force"));
}

TEST(Reload, SaysWhatCountsFromTheNextStart) {
  for (const char *key : {"socket_mode = 0o600", "sandbox = \"off\""}) {
    ServiceProcess service;
    service.reload(std::string("[service]\n") + key + "\n");
    EXPECT_THAT(
        service.log(),
        HasSubstr("a change of socket, vault, master key, witness, sandbox or [shared] counts from the next start"))
        << key;
  }
}

TEST(Reload, ChangesTheLogLevel) {
  ServiceProcess service;
  service.reload("[service]\nlog_level = \"error\"\n");
  service.stop();
  EXPECT_THAT(service.log(), testing::Not(HasSubstr("ended")));
}

TEST(Sigterm, EndsWithStatus0AndRemovesTheSocket) {
  ServiceProcess service;
  RawClient idle(service.socket());
  idle.hello();
  EXPECT_EQ(service.stop(), 0);
  EXPECT_TRUE(idle.is_closed());
  EXPECT_FALSE(std::filesystem::exists(service.socket()));
  EXPECT_THAT(service.log(), HasSubstr("ended"));
}

TEST(Sigterm, LetsWhatHasArrivedBeAnswered) {
  ServiceProcess service;
  RawClient client(service.socket());
  client.hello();
  service.pause();
  for (uint32_t token = 1; token <= 8; ++token) {
    ASSERT_TRUE(client.send(ks_test::request_datagram(66593, token, {})));
  }
  service.signal(SIGTERM);
  service.resume();
  for (uint32_t token = 1; token <= 8; ++token) {
    const auto reply = client.receive();
    ASSERT_TRUE(reply) << token;
    EXPECT_EQ(reply->header.token, token);
  }
  EXPECT_TRUE(client.is_closed());
  EXPECT_EQ(service.wait_exit(), 0);
}

TEST(Sigint, EndsTheServiceToo) {
  ServiceProcess service;
  service.signal(SIGINT);
  EXPECT_EQ(service.wait_exit(), 0);
}

TEST(Start, TakesTheSocketOfAServiceThatWasKilled) {
  ServiceProcess service;
  service.kill();
  EXPECT_TRUE(std::filesystem::exists(service.socket()));
  service.start();
  RawClient client(service.socket());
  EXPECT_EQ(client.hello().vdc_id, 7u);
}

TEST(Start, LeavesTheSocketToTheServiceThatRunsThere) {
  ServiceProcess service;
  const auto second = run_ksd({"--config", service.folder() + "/ksd.toml", "--socket", service.socket(), "--vault",
                               service.folder() + "/other.db", "--master-key-file", service.folder() + "/other.key"});
  EXPECT_EQ(second.status, 1);
  EXPECT_THAT(second.errors, HasSubstr("another keystore service runs on this socket"));
  RawClient client(service.socket());
  EXPECT_EQ(client.hello().vdc_id, 7u);
}

TEST(Start, DoesntRemoveAFileThatIsNoSocket) {
  ServiceProcess service;
  service.stop();
  std::ofstream(service.socket()) << "precious";
  try {
    service.start();
    FAIL();
  } catch (const std::runtime_error &error) {
    EXPECT_THAT(error.what(), HasSubstr("isn't a socket; remove it or name another place"));
  }
  EXPECT_EQ(std::filesystem::file_size(service.socket()), 8u);
}

TEST(Start, SaysWhatIsWrongWithTheConfiguration) {
  const auto run = run_ksd({"--config", "/nonexistent/ksd.toml"});
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.errors, HasSubstr("/nonexistent/ksd.toml: No such file or directory"));
}

TEST(Log, DoesntGoWhereSomethingElseGotTheNumberOfStandardError) {
  ServiceSetup setup;
  setup.wrapper = {"/bin/sh", "-c", "exec \"$@\" 0<&- 1>&- 2>&-", "sh"};
  ServiceProcess service(setup);
  RawClient client(service.socket());
  EXPECT_EQ(client.hello().vdc_id, 7u);
  EXPECT_EQ(std::filesystem::file_size(service.state_page()), 80u);
  EXPECT_EQ(service.log(), "");
}

TEST(Log, HasPrioritiesInsteadOfTimesForTheJournal) {
  ServiceSetup setup;
  setup.environment = {"JOURNAL_STREAM=8:1"};
  ServiceProcess service(setup);
  EXPECT_THAT(service.log(), HasSubstr("<6>ksd 1.0.0 serves " + service.socket() + "\n"));
}

TEST(Log, HasTimesWhenAskedTo) {
  ServiceSetup setup;
  setup.environment = {"JOURNAL_STREAM=8:1"};
  setup.arguments = {"--log-format", "plain"};
  ServiceProcess service(setup);
  EXPECT_THAT(service.log(), testing::MatchesRegex("2[0-9]+-(.|\n)* ksd\\[[0-9]+\\] info: ksd 1.0.0 serves (.|\n)*"));
}

// A listening socket as a service manager makes it before it starts the service.
class PassedSocket {
 public:
  explicit PassedSocket(int type = SOCK_SEQPACKET) : fd_(socket(AF_UNIX, type | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path().copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(bind(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    EXPECT_EQ(listen(fd_, 8), 0);
  }
  ~PassedSocket() { close(fd_); }
  std::string path() const { return folder_.path() + "/p"; }
  ServiceSetup setup() const {
    ServiceSetup setup;
    setup.passed_socket = fd_;
    return setup;
  }

 private:
  int fd_;
  TemporaryFolder folder_;
};

TEST(PassedSocket, IsServedAndLeftInPlace) {
  const PassedSocket passed;
  ServiceProcess service(passed.setup());
  {
    RawClient client(passed.path());
    EXPECT_EQ(client.hello().vdc_id, 7u);
  }
  EXPECT_EQ(MappedPage(passed.path() + ".state").magic(), 0x3173736bu);
  EXPECT_EQ(service.stop(), 0);
  EXPECT_TRUE(std::filesystem::exists(passed.path()));
}

TEST(PassedSocket, KeepsClientsWaitingWhileTheServiceIsAway) {
  const PassedSocket passed;
  ServiceProcess service(passed.setup());
  service.kill();
  RawClient client(passed.path());
  ASSERT_TRUE(client.send(ks_test::request_datagram(66593, 1, {})));
  service.start();
  EXPECT_EQ(client.receive()->result(), 1u);
}

TEST(PassedSocket, IsRefusedWhenItIsOfAnotherKind) {
  const PassedSocket passed(SOCK_STREAM);
  try {
    ServiceProcess service(passed.setup());
    FAIL();
  } catch (const std::runtime_error &error) {
    EXPECT_THAT(error.what(), HasSubstr("use ListenSequentialPacket="));
  }
}

TEST(PassedSocket, IsRefusedInAFolderThatOthersMayWrite) {
  const PassedSocket passed;
  const std::string folder = std::filesystem::path(passed.path()).parent_path();
  chmod(folder.c_str(), 0777);
  try {
    ServiceProcess service(passed.setup());
    FAIL();
  } catch (const std::runtime_error &error) {
    EXPECT_THAT(error.what(), HasSubstr("the folder of the socket isn't safe: " + folder + " has mode 0777"));
  }
}

// With several users: what the kernel says about them counts.
class Users : public testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to become other users";
  }
};

constexpr uid_t kUser = 23456;
constexpr gid_t kGroup = 23457;

// The VDC that a user is greeted with, as an exit status.
int vdc_of(const ServiceProcess &service, uid_t uid, gid_t gid) {
  return run_as(uid, gid, [&] { return static_cast<int>(RawClient(service.socket()).hello().vdc_id & 0xff); });
}

TEST_F(Users, WithoutAMappingHaveNoVdcAndMayHaveRandomNumbers) {
  ServiceProcess service;
  EXPECT_EQ(vdc_of(service, kUser, kGroup), 0xff);
  EXPECT_EQ(run_as(kUser, kGroup,
                   [&] {
                     RawClient client(service.socket());
                     return static_cast<int>(client.exchange(66561, {9, 0, 0, 0, 0, 0, 0, 0}).data().size());
                   }),
            9);
}

TEST_F(Users, WithoutAMappingAreToldApartInTheLogOnceAMinute) {
  ServiceProcess service({.config = "[[vdc]]\nid = 3\nusers = [0]\n"});
  for (int i = 0; i < 3; ++i) EXPECT_EQ(vdc_of(service, kUser, kGroup), 0xff);
  EXPECT_EQ(vdc_of(service, kUser + 1, kGroup), 0xff);
  EXPECT_EQ(vdc_of(service, 0, 0), 3);
  const std::string log = service.log();
  const auto told = [&service](const std::string &uid) {
    return "user " + uid + " has no VDC and can keep nothing; add " + uid + " to users of the [[vdc]] with id = 3 in " +
           service.folder() + "/ksd.toml, and send the service SIGHUP\n";
  };
  for (const char *uid : {"23456", "23457"}) {
    const size_t first = log.find(told(uid));
    EXPECT_NE(first, std::string::npos) << uid;
    EXPECT_EQ(log.find(told(uid), first + 1), std::string::npos) << uid;
  }
  EXPECT_THAT(log, testing::Not(HasSubstr("user 0 has no VDC")));
}

TEST_F(Users, WithoutAMappingDontFillTheLog) {
  ServiceProcess service({.config = "[limits]\nconnections_unmapped = 1000\n"});
  for (uid_t uid = kUser; uid < kUser + 40; ++uid) EXPECT_EQ(vdc_of(service, uid, kGroup), 0xff);
  size_t lines = 0;
  const std::string log = service.log();
  for (size_t at = log.find(" has no VDC and can keep nothing; add "); at != std::string::npos;
       at = log.find(" has no VDC and can keep nothing; add ", at + 1)) {
    ++lines;
  }
  EXPECT_EQ(lines, 17u) << "of sixteen, and one for all others";
  EXPECT_THAT(log, HasSubstr(" to users of a [[vdc]] in "));
}

TEST_F(Users, AreMappedByIdAndByGroup) {
  ServiceProcess service({.config = "[[vdc]]\nid = 3\nusers = [23456]\n[[vdc]]\nid = 4\ngroups = [23457]\n"});
  EXPECT_EQ(vdc_of(service, kUser, 1), 3);
  EXPECT_EQ(vdc_of(service, kUser, kGroup), 3);
  EXPECT_EQ(vdc_of(service, kUser + 1, kGroup), 4);
  EXPECT_EQ(vdc_of(service, kUser + 1, 1), 0xff);
}

TEST_F(Users, HaveCachesOfTheirOwn) {
  ServiceProcess service({.config = "[service]\ncache_uri = \"lmdb:///c/{uid}\"\n"});
  EXPECT_EQ(run_as(kUser, kGroup,
                   [&] {
                     const HostHelloReply hello = RawClient(service.socket()).hello();
                     return std::string(hello.running_cfg_uri) == "lmdb:///c/23456" ? 0 : 1;
                   }),
            0);
}

TEST_F(Users, AreKeptOutByTheModeOfTheSocket) {
  ServiceProcess service({.config = "[service]\nsocket_mode = 0o660\nsocket_group = 23457\n"});
  EXPECT_EQ(mode_of(service.socket()), 0660u);
  EXPECT_EQ(vdc_of(service, kUser, kGroup), 0xff);
  EXPECT_EQ(run_as(kUser, 1,
                   [&] {
                     try {
                       RawClient client(service.socket());
                     } catch (const std::runtime_error &) {
                       return errno == EACCES ? 0 : 1;
                     }
                     return 2;
                   }),
            0);
}

TEST_F(Users, DontUseUpEachOthersConnections) {
  ServiceProcess service(
      {.config =
           "[limits]\nconnections_per_user = 1\n[[vdc]]\nid = 3\nusers = [0]\n[[vdc]]\nid = 4\nusers = [23456]\n"});
  RawClient own(service.socket());
  own.hello();
  EXPECT_EQ(vdc_of(service, kUser, kGroup), 4);
  RawClient second(service.socket());
  EXPECT_TRUE(second.is_closed());
}

}  // namespace
