// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// The command line of ksd: what it says, and with which status it ends.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "service/service_process.h"
#include "temporary_folder.h"

namespace {

using ks_test::run_ksd;
using testing::HasSubstr;

// The configuration that ships, with its places below a folder of the test's.
class Sample : public testing::Test {
 protected:
  Sample() {
    std::ifstream shipped(KS_SOURCE_DIR "/service/ksd.toml");
    std::ofstream copy(config());
    for (std::string line; std::getline(shipped, line);) {
      for (const char *place : {"\"/run", "\"/var/lib"}) {
        if (const size_t at = line.find(place); at != std::string::npos) line.insert(at + 1, folder_.path());
      }
      copy << line << '\n';
    }
    for (const char *above : {"/run", "/var", "/var/lib"}) {
      std::filesystem::create_directory(folder_.path() + above);
    }
  }

  std::string config() const { return folder_.path() + "/ksd.toml"; }
  std::string path(const std::string &name) const { return folder_.path() + name; }

 private:
  const ks_test::TemporaryFolder folder_;
};

TEST_F(Sample, IsValid) {
  const auto run = run_ksd({"--check", "--config", config()});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.output, config() + ": valid\n");
  EXPECT_EQ(run.errors, "");
}

TEST_F(Sample, IsCheckedForThePlacesThatItNames) {
  std::filesystem::create_directory(path("/var/lib/ks-key"));
  std::ofstream(path("/var/lib/ks-key/master.key")) << "";
  const auto run = run_ksd({"--check", "--config", config()});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.output, "");
  EXPECT_EQ(run.errors, config() + ": vault: folder " + path("/var/lib/ks") +
                            ": No such file or directory; make it, with mode 0700, for user " +
                            std::to_string(geteuid()) + "\n");
}

TEST_F(Sample, StartsAsItStands) {
  const std::string script =
      "timeout -s TERM 30 \"$0\" --allow-root --config \"$1\" 2>&1 & service=$!; "
      "while [ ! -S \"$2\" ] && kill -0 $service; do :; done; kill $service; wait $service";
  const auto run =
      ks_test::run_program({"sh", "-c", script, KS_SERVICE_DIR "/ksd", config(), path("/run/ks/ksd.sock")});
  EXPECT_THAT(run.output, HasSubstr(path("/var/lib/ks") + ": made the folder\n"));
  EXPECT_THAT(run.output, HasSubstr(path("/var/lib/ks-key") + ": made the folder\n"));
  EXPECT_THAT(run.output, HasSubstr(" serves " + path("/run/ks/ksd.sock") + "\n"));
  EXPECT_THAT(run.output, HasSubstr("ended\n"));
  struct stat status {};
  EXPECT_EQ(stat(path("/var/lib/ks").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0700u);
}

TEST_F(Sample, MakesNoFolderForAVaultThatIsElsewhere) {
  std::filesystem::create_directory(path("/var/lib/ks-key"));
  std::ofstream(path("/var/lib/ks-key/master.key")) << std::string(32, 'k');
  std::filesystem::permissions(path("/var/lib/ks-key/master.key"), std::filesystem::perms(0600));
  const auto run = run_ksd({"--config", config()});
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.errors, HasSubstr("the vault can't be opened or made: folder " + path("/var/lib/ks") +
                                    ": No such file or directory; make the folder for user"));
  EXPECT_FALSE(std::filesystem::exists(path("/var/lib/ks")));
}

TEST_F(Sample, TellsAPlainUserWhatIsMissing) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to become another user";
  std::filesystem::permissions(path(""), std::filesystem::perms(0755));
  const auto run = ks_test::run_program({"setpriv", "--reuid", "23456", "--regid", "23456", "--clear-groups",
                                         KS_SERVICE_DIR "/ksd", "--config", config()});
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.errors, HasSubstr(path("/run/ks") +
                                    ": can't make the folder of the socket: Permission denied; make it for user 23456, "
                                    "or name another socket with --socket (ks-session gives any user a service of "
                                    "their own)"));
}

TEST(KsdCheck, LooksForNoKeyFileWhereThereAreCredentials) {
  const ks_test::TemporaryFolder folder;
  const std::string config = folder.path() + "/ksd.toml";
  std::ofstream(config) << "[service]\nsocket = \"" << folder.path() << "/s\"\nvault = \"" << folder.path() << "/v\"\n";
  const auto run = ks_test::run_program(
      {"env", "CREDENTIALS_DIRECTORY=" + folder.path(), KS_SERVICE_DIR "/ksd", "--check", "--config", config});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.output, config + ": valid\n");
  EXPECT_EQ(run.errors, "");
}

TEST(KsdCheck, NamesFileLineAndColumn) {
  const std::string path = testing::TempDir() + "ks-bad-" + std::to_string(getpid()) + ".toml";
  std::ofstream(path) << "[service]\nport = 1\n";
  const auto run = run_ksd({"--check", "--config", path});
  std::filesystem::remove(path);
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.errors, testing::StartsWith(path + ":2:1: unknown key service.port"));
}

TEST(KsdCheck, SaysThatThereIsNoFile) {
  const auto run = run_ksd({"--check", "--config", "/nonexistent/ksd.toml"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.errors, "/nonexistent/ksd.toml: No such file or directory\n");
}

TEST(KsdCommandLine, TellsItsVersionAndItsUse) {
  EXPECT_EQ(run_ksd({"--version"}).output, "ksd 1.0.0\n");
  EXPECT_THAT(run_ksd({"--help"}).output, HasSubstr("--master-key-file"));
  EXPECT_EQ(run_ksd({"--help"}).status, 0);
}

TEST(KsdCommandLine, ShowsNothingOfItsProgramsInside) {
  for (const char *program : {KS_SERVICE_DIR "/ksd", KS_SERVICE_DIR "/ks-session"}) {
    const std::string help = ks_test::run_program({program, "--help"}).output;
    for (const char *raw : {"ENUM", "->", "TEXT", "UINT", "INT in"}) EXPECT_THAT(help, testing::Not(HasSubstr(raw)));
  }
  EXPECT_THAT(run_ksd({"--help"}).output, HasSubstr("--log-format {auto,plain,journal}"));
  EXPECT_THAT(run_ksd({"--help"}).output, HasSubstr("--config FILE"));
}

TEST(KsdCommandLine, RefusesWrongUseWithStatus2) {
  EXPECT_EQ(run_ksd({"--chek"}).status, 2);
  EXPECT_EQ(run_ksd({"--log-level", "loud"}).status, 2);
  EXPECT_EQ(run_ksd({"--passphrase-fd", "-1"}).status, 2);
  EXPECT_EQ(run_ksd({"--passphrase-fd", "1048577"}).status, 2);
}

}  // namespace
