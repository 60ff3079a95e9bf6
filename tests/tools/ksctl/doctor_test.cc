// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// One fault at a time is put into a service that is healthy; the doctor names it and says what to do.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "content_of.h"
#include "ksctl.h"
#include "service/raw_client.h"

namespace {

using ks_test::ksctl;
using ks_test::ProgramRun;
using ks_test::RawClient;
using ks_test::run_program;
using ks_test::ServiceProcess;
using ks_test::ServiceSetup;
using ks_test::TemporaryFolder;
using ks_test::with_administrator;
using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

ServiceSetup with_files(const std::string &more = "") {
  ServiceSetup setup = with_administrator();
  setup.config = "[limits]\nconnections = 200\n" + setup.config + more;
  return setup;
}

ProgramRun doctor(const ServiceProcess &service, const std::vector<std::string> &wrapper = {}) {
  std::vector<std::string> arguments = wrapper;
  arguments.insert(arguments.end(),
                   {ks_test::kKsctl, "--socket", service.socket(), "doctor", "--config", service.folder() + "/ksd.toml",
                    "--vault", service.vault(), "--master-key-file", service.master_key_file()});
  return run_program(arguments);
}

// names is what a run with the one fault has to print: the check, the fault and its repair on one line.
auto names(const std::string &check, const std::string &finding, const std::string &repair) {
  return ContainsRegex("(^|\n)" + check + "\tfault\t[^\t\n]*" + finding + "[^\t\n]*\t[^\t\n]*" + repair);
}

void store_something(const ServiceProcess &service) {
  RawClient client(service.socket());
  ASSERT_EQ(client.exchange(66562, {5, 12, 0, 17, 1, 0, 17, 0, 0, 0, 18, 0}, {0x30, 0, 0, 7, 'n', 's'}).result(), 1u);
}

std::string number(uint64_t value) {
  return std::to_string(value);
}

TEST(KsctlDoctor, FindsNothingWrongWithAHealthyService) {
  const ServiceProcess service(with_files());

  const ProgramRun run = doctor(service);

  EXPECT_EQ(run.status, 0) << run.output << run.errors;
  EXPECT_THAT(run.output, Not(HasSubstr("\tfault\t")));
  EXPECT_THAT(run.output, Not(HasSubstr("not looked at")));
  EXPECT_THAT(run.output, HasSubstr("service\tgood\tprocess " + number(static_cast<uint64_t>(service.pid())) +
                                    " answers; exchanges go by memory that is shared with it (a channel)\t\n"));
}

TEST(KsctlDoctor, TellsThatExchangesGoByTheSocketWhereThereAreNoChannels) {
  ServiceSetup setup = with_files();
  setup.config.insert(setup.config.find("connections ="), "channels = 0\n");
  const ServiceProcess service(setup);

  EXPECT_THAT(doctor(service).output, HasSubstr("answers; exchanges go by the socket, since it offers no channel\t\n"));
}

TEST(KsctlDoctor, ChangesNothingAboutTheVault) {
  ServiceProcess service(with_files());
  store_something(service);
  service.kill();
  const auto files = [&service] {
    std::vector<std::pair<std::string, std::string>> all;
    for (const auto &file : std::filesystem::directory_iterator(service.folder())) {
      all.emplace_back(file.path(), file.is_regular_file() ? ks_test::content_of(file.path()) : "");
    }
    std::sort(all.begin(), all.end());
    return all;
  };
  const auto before = files();

  doctor(service);

  EXPECT_EQ(files(), before);
}

TEST(KsctlDoctor, SaysThatTheSocketIsAbsent) {
  ServiceProcess service(with_files());
  service.kill();
  unlink(service.socket().c_str());

  const ProgramRun run = doctor(service);

  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.output, names("socket", "isn't there", "start the service: systemctl start ksd"));
  EXPECT_THAT(run.errors, HasSubstr("faults found"));
}

TEST(KsctlDoctor, SaysThatNobodyListens) {
  ServiceProcess service(with_files());
  service.kill();

  EXPECT_THAT(doctor(service).output, names("service", "nobody listens", "start the service"));
}

TEST(KsctlDoctor, SaysThatTheServiceIsStopped) {
  ServiceProcess service(with_files());
  service.pause();

  const ProgramRun run = doctor(service);

  service.resume();
  EXPECT_THAT(run.output, names("service", "is stopped", "kill -CONT " + number(static_cast<uint64_t>(service.pid()))));
}

TEST(KsctlDoctor, SaysThatTheSocketIsAStrangers) {
  if (getuid() != 0) GTEST_SKIP() << "only root can give a file away";
  const ServiceProcess service(with_files());
  ASSERT_EQ(chown(service.socket().c_str(), 12345, 12345), 0);

  EXPECT_THAT(doctor(service).output, names("socket", "belongs to user 12345", "rm " + service.socket()));
}

TEST(KsctlDoctor, SaysThatTheSocketHasTheWrongMode) {
  const ServiceProcess service(with_files());
  ASSERT_EQ(chmod(service.socket().c_str(), 0600), 0);

  EXPECT_THAT(doctor(service).output,
              names("socket", "has mode 0600, and the configuration says 0666", "chmod 0666 " + service.socket()));
}

TEST(KsctlDoctor, SaysThatOthersMayWriteTheSocketsFolder) {
  const ServiceProcess service(with_files());
  ASSERT_EQ(chmod(service.folder().c_str(), 0777), 0);

  EXPECT_THAT(doctor(service).output, names("socket folder", "others may write", "chmod go-w " + service.folder()));
}

TEST(KsctlDoctor, SaysThatTheLockIsHeldByWhoServesNothing) {
  ServiceProcess service(with_files());
  service.kill();
  const int lock = open((service.socket() + ".lock").c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_EQ(flock(lock, LOCK_EX | LOCK_NB), 0);

  EXPECT_THAT(doctor(service).output,
              names("lock", "holds .*s.lock and serves nothing", "kill " + number(static_cast<uint64_t>(getpid()))));
  close(lock);
}

TEST(KsctlDoctor, SaysThatTheLockIsNotOfOneUserAlone) {
  ServiceProcess service(with_files());
  service.kill();
  ASSERT_EQ(chmod((service.socket() + ".lock").c_str(), 0644), 0);

  EXPECT_THAT(doctor(service).output, names("lock", "mode 0644", "rm " + service.socket() + ".lock"));
}

TEST(KsctlDoctor, SaysThatTheStatePageIsMissing) {
  const ServiceProcess service(with_files());
  unlink(service.state_page().c_str());

  EXPECT_THAT(doctor(service).output, names("state page", "isn't there", "systemctl restart ksd"));
}

TEST(KsctlDoctor, SaysThatTheServiceMayOpenTooFewFiles) {
  ServiceSetup setup = with_files();
  setup.wrapper = {"/usr/bin/prlimit", "--nofile=64:64"};
  const ServiceProcess service(setup);

  EXPECT_THAT(doctor(service).output, names("limits", "may open 64 files", "LimitNOFILE=1224"));
}

TEST(KsctlDoctor, SaysWhatIsWrongWithTheConfiguration) {
  const ServiceProcess service(with_files());
  std::ofstream(service.folder() + "/ksd.toml", std::ios::app) << "[nonsense]\n";

  EXPECT_THAT(doctor(service).output, names("configuration", "unknown key nonsense", "ksd --check --config"));
}

TEST(KsctlDoctor, SaysThatOthersMayWriteTheConfiguration) {
  const ServiceProcess service(with_files());
  const std::string config = service.folder() + "/ksd.toml";
  ASSERT_EQ(chmod(config.c_str(), 0666), 0);

  EXPECT_THAT(doctor(service).output, names("configuration", "others may write", "chmod go-w " + config));
}

TEST(KsctlDoctor, SaysThatOthersMayWriteTheVault) {
  const ServiceProcess service(with_files());
  ASSERT_EQ(chmod(service.vault().c_str(), 0606), 0);

  EXPECT_THAT(doctor(service).output, names("vault", "others may write", "chmod go-w " + service.vault()));
}

TEST(KsctlDoctor, SaysThatTheVaultIsGone) {
  ServiceProcess service(with_files());
  store_something(service);
  service.kill();
  unlink(service.vault().c_str());

  EXPECT_THAT(doctor(service).output, names("vault", "the vault is gone, but its wal is there", "put the vault back"));
}

TEST(KsctlDoctor, SaysThatTheVaultsFolderIsMissing) {
  const ServiceProcess service(with_files());

  const ProgramRun run = ksctl(service.socket(), {"doctor", "--vault", "/nowhere/vault.db"});

  EXPECT_THAT(run.output, names("vault", "/nowhere: the vault's folder isn't there", "install -d -m 0700"));
}

TEST(KsctlDoctor, SaysThatOthersMayReadTheKey) {
  const ServiceProcess service(with_files());
  ASSERT_EQ(chmod(service.master_key_file().c_str(), 0644), 0);

  EXPECT_THAT(doctor(service).output, names("master key", "has mode 0644", "chmod 0600"));
}

TEST(KsctlDoctor, SaysThatTheKeyIsMissing) {
  const ServiceProcess service(with_files());
  unlink(service.master_key_file().c_str());

  EXPECT_THAT(doctor(service).output, names("master key", "isn't there, but the vault", "put the key back"));
}

TEST(KsctlDoctor, SaysThatTheVaultIsOfAnotherKey) {
  ServiceProcess service(with_files());
  store_something(service);
  service.stop();
  std::ofstream(service.master_key_file(), std::ios::binary) << std::string(32, 'k');

  EXPECT_THAT(doctor(service).output, names("vault key", "belongs to another master key", "put back the key"));
}

TEST(KsctlDoctor, SaysThatTheLogIsMissingAfterAKill) {
  ServiceProcess service(with_files());
  store_something(service);
  service.kill();
  unlink((service.vault() + "-wal").c_str());

  EXPECT_THAT(doctor(service).output, names("vault log", "log is missing or empty", "ksd --accept-loss"));
}

TEST(KsctlDoctor, SaysThatTheClockIsBehindWhatWasStored) {
  ServiceProcess service(with_files());
  store_something(service);
  service.stop();
  const timespec ahead[2] = {{time(nullptr) + 86400, 0}, {time(nullptr) + 86400, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, service.vault().c_str(), ahead, 0), 0);

  EXPECT_THAT(doctor(service).output, names("clock", "behind the last change of " + service.vault(), "timedatectl"));
}

TEST(KsctlDoctor, SaysThatTheDiskIsFull) {
  const TemporaryFolder folder;
  if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      mount("tmpfs", folder.path().c_str(), "tmpfs", 0, "size=64k,mode=0700") != 0) {
    GTEST_SKIP() << "only root can mount a small disk";
  }

  const ProgramRun run = ksctl(folder.path() + "/s", {"doctor", "--vault", folder.path() + "/vault.db"});

  umount2(folder.path().c_str(), MNT_DETACH);
  EXPECT_THAT(run.output, names("disk", "the disk of the vault is full, 64 KiB are left", "make room"));
}

TEST(KsctlDoctor, SaysThatTheUserHasNoVdc) {
  if (getuid() != 0) GTEST_SKIP() << "only root can run it as another user";
  ServiceSetup setup = with_files();
  const ServiceProcess service(setup);

  const ProgramRun run = doctor(service, {"/usr/bin/setpriv", "--reuid=12345", "--regid=12345", "--clear-groups"});

  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.output, names("user", "user 12345 has no VDC", "add 12345 to users of a \\[\\[vdc\\]\\]"));
  // What is the service's own is said to be out of sight, and isn't called a fault.
  EXPECT_THAT(run.output, HasSubstr("vault key\tnot looked at\t"));
}

TEST(KsctlDoctor, SaysThatNoHistoryCanBeKept) {
  if (getuid() != 0) GTEST_SKIP() << "only root can run it as another user";
  const ServiceProcess service(with_files());

  const ProgramRun run = doctor(service, {"/usr/bin/setpriv", "--reuid=12345", "--regid=12345", "--clear-groups",
                                          "/usr/bin/env", "XDG_RUNTIME_DIR=/nowhere"});

  EXPECT_THAT(run.output, names("history", "/nowhere: No such file or directory", "install -d -m 0700 -o 12345"));
}

// ---- The cache.

class KsctlDoctorOfCache : public testing::Test {
 protected:
  KsctlDoctorOfCache() { mkdir(service_.cache_folder().c_str(), 0700); }
  std::string database(int width) const {
    return service_.cache_folder() + "/sksd_ks_cache_data-" + std::to_string(width) + ".mdb";
  }
  void mark(int width) const {
    std::string run;
    std::getline(std::ifstream("/proc/sys/kernel/random/boot_id"), run);
    std::ofstream(database(width) + "-gate") << "2 " << run << "\n";
  }
  // A head as 64-bit programs write it, in a file as long as they make it, of this run of the machine.
  void write_head(int width, size_t at, off_t size) const {
    mark(width);
    std::string head(128, '\0');
    head.replace(at, 4, "\xde\xc0\xef\xbe");
    std::ofstream(database(width), std::ios::binary) << head;
    ASSERT_EQ(truncate(database(width).c_str(), size), 0);
  }

  const ServiceProcess service_{with_files()};
};

TEST_F(KsctlDoctorOfCache, FindsWholeOnesGood) {
  write_head(64, 16, off_t{128} << 20);
  write_head(32, 12, off_t{48} << 20);

  const ProgramRun run = doctor(service_);

  EXPECT_EQ(run.status, 0) << run.output;
}

TEST_F(KsctlDoctorOfCache, SaysThatItIsOfTheOtherWidth) {
  write_head(64, 12, off_t{128} << 20);

  EXPECT_THAT(doctor(service_).output, names("cache", "written by programs of the other width", "rm " + database(64)));
}

TEST_F(KsctlDoctorOfCache, SaysThatItIsDamaged) {
  mark(64);
  std::ofstream(database(64)) << std::string(4096, 'x');
  write_head(32, 12, 8192);

  const ProgramRun run = doctor(service_);

  EXPECT_THAT(run.output, names("cache", "is damaged: it has no head", "rm " + database(64)));
  EXPECT_THAT(run.output, names("cache", "8192 bytes of 50331648 are there", "rm " + database(32)));
}

TEST_F(KsctlDoctorOfCache, FindsNothingWrongWithOnesOfAnotherRunOfTheMachine) {
  write_head(64, 12, 8192);
  std::ofstream(database(64) + "-gate") << "2 01234567-89ab-cdef-0123-456789abcdef\n";
  std::ofstream(database(32)) << std::string(4096, 'x');

  const ProgramRun run = doctor(service_);

  EXPECT_EQ(run.status, 0) << run.output;
}

TEST_F(KsctlDoctorOfCache, SaysThatOthersMayUseIt) {
  ASSERT_EQ(chmod(service_.cache_folder().c_str(), 0755), 0);

  EXPECT_THAT(doctor(service_).output, names("cache", "mode 0755", "chmod 0700 " + service_.cache_folder()));
}

TEST(KsctlDoctor, TellsTheSameInJson) {
  const ServiceProcess service(with_files());

  const ProgramRun run = ksctl(service.socket(), {"doctor", "--json", "--vault", service.vault()});

  EXPECT_THAT(run.output,
              ContainsRegex("^\\{\"checks\":\\[\\{\"check\":\"socket folder\",\"verdict\":\"good\",\"finding\":"
                            "\"only its owner may write the socket's folder\",\"repair\":\"\"\\},.*\\]\\}\n$"));
}

}  // namespace
