// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// ks-session from outside, by what it prints, leaves behind and ends with. Tests named DISABLED_ run inside a session.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "service/raw_client.h"
#include "service/service_process.h"

namespace {

using ks_test::ProgramRun;
using ks_test::RawClient;
using ks_test::run_program;
using ks_test::TemporaryFolder;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr char kProgram[] = KS_SERVICE_DIR "/ks-session";

ProgramRun session(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), kProgram);
  return run_program(arguments);
}

// The arguments that run one of this program's own tests, which is compiled in but disabled.
std::vector<std::string> inside(const std::string &test, std::vector<std::string> options = {}) {
  options.insert(options.end(), {"--", std::filesystem::read_symlink("/proc/self/exe"),
                                 "--gtest_also_run_disabled_tests", "--gtest_filter=InsideSession.DISABLED_" + test});
  return options;
}

std::string first_line(const std::string &text) {
  return text.substr(0, text.find('\n'));
}

pid_t service_of(const std::string &folder) {
  pid_t pid = 0;
  std::ifstream(folder + "/ksd.pid") >> pid;
  return pid;
}

// Whether the process is there and not merely waiting for whoever inherited it to take its status.
bool runs(pid_t pid) {
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string number;
  std::string name;
  std::string state;
  return stat >> number >> name >> state && state != "Z" && state != "X";
}

TEST(InsideSession, DISABLED_IsGreetedInVdc12) {
  RawClient client(std::getenv("KS_SOCKET"));
  EXPECT_EQ(client.hello().vdc_id, 12u);
}

TEST(InsideSession, DISABLED_IsServedAfterTheServiceWasKilled) {
  const std::string folder = std::getenv("KS_SESSION_DIR");
  ASSERT_EQ(kill(service_of(folder), SIGKILL), 0);
  RawClient client(std::getenv("KS_SOCKET"));
  EXPECT_EQ(client.hello().vdc_id, 1u);
}

TEST(KsSession, PutsItsUserIntoTheVdcThatIsNamed) {
  const ProgramRun run = session(inside("IsGreetedInVdc12", {"--vdc", "12"}));
  EXPECT_EQ(run.status, 0) << run.output << run.errors;
  EXPECT_THAT(run.output, HasSubstr("[  PASSED  ] 1 test."));
}

TEST(KsSession, PassesTheExitStatusOn) {
  EXPECT_EQ(session({"--", "sh", "-c", "exit 7"}).status, 7);
}

TEST(KsSession, DiesOfTheSignalThatItsCommandDiedOf) {
  EXPECT_EQ(session({"--", "sh", "-c", "kill -KILL $$"}).status, -SIGKILL);
  EXPECT_EQ(session({"--", "sh", "-c", "kill -USR2 $$"}).status, -SIGUSR2);
}

TEST(KsSession, KeepsOthersOutOfItsFolder) {
  EXPECT_EQ(session({"--", "sh", "-c", "stat -c %a $KS_SESSION_DIR"}).output, "700\n");
}

TEST(KsSession, LeavesNeitherFolderNorService) {
  const ProgramRun run = session({"--", "sh", "-c", "echo $KS_SESSION_DIR; cat $KS_SESSION_DIR/ksd.pid"});
  const std::string folder = first_line(run.output);
  ASSERT_THAT(folder, testing::StartsWith("/"));
  EXPECT_FALSE(std::filesystem::exists(folder));
  EXPECT_EQ(kill(std::stoi(run.output.substr(folder.size() + 1)), 0), -1);
}

TEST(KsSession, LeavesTheFolderThatIsToBeKept) {
  const TemporaryFolder folder;  // for --keep
  EXPECT_EQ(session({"--keep", folder.path(), "--", "true"}).status, 0);
  EXPECT_TRUE(std::filesystem::exists(folder.path() + "/ksd.log"));
  EXPECT_FALSE(std::filesystem::exists(folder.path() + "/ksd.sock"));
  EXPECT_EQ(session({"--keep", folder.path(), "--", "true"}).status, 0);  // and takes it up again
}

TEST(KsSession, TakesEverythingDownOnASignal) {
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    pid_t service = 0;
    std::string folder;
    const ProgramRun run = run_program({kProgram, "--", "sh", "-c", "echo $KS_SESSION_DIR; exec sleep 1000"},
                                       [&](pid_t pid, const std::string &line) {
                                         folder = line;
                                         service = service_of(folder);
                                         kill(pid, signal);
                                       });
    EXPECT_EQ(run.status, -signal);
    EXPECT_FALSE(std::filesystem::exists(folder));
    ASSERT_GT(service, 0);
    EXPECT_EQ(kill(service, 0), -1);
  }
}

// A session that is killed can't tidy up itself.
TEST(KsSession, LeavesNothingWhenItIsKilled) {
  for (const bool stopped : {false, true}) {
    pid_t service = 0;
    std::string folder;
    run_program({kProgram, "--", "sh", "-c", "echo $KS_SESSION_DIR; exec sleep 1000"},
                [&](pid_t pid, const std::string &line) {
                  folder = line;
                  service = service_of(folder);
                  if (stopped) kill(service, SIGSTOP);
                  kill(pid, SIGKILL);
                });
    ASSERT_GT(service, 0);
    // The remover is nobody's child here; the end of its watch shows in the folder, and comes soon or never.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    const auto is_left = [&] { return std::filesystem::exists(folder) || runs(service); };  // it ends beside the folder
    while (is_left() && std::chrono::steady_clock::now() < deadline) sched_yield();
    EXPECT_FALSE(std::filesystem::exists(folder));
    EXPECT_FALSE(runs(service));
  }
}

TEST(KsSession, KeepsItsFilesToItselfUnderAnyUmaskAndGivesItToTheCommand) {
  const mode_t old = umask(0);
  const ProgramRun run = session({"--", "sh", "-c", "umask; stat -c %a $KS_SESSION_DIR/ksd.toml"});
  umask(old);
  EXPECT_EQ(run.status, 0) << run.errors;
  EXPECT_EQ(run.output, "0000\n600\n");
}

TEST(KsSession, BringsAKilledServiceBackWithoutRefusingAnybody) {
  const ProgramRun run = session(inside("IsServedAfterTheServiceWasKilled"));
  EXPECT_EQ(run.status, 0) << run.output << run.errors;
  EXPECT_THAT(run.output, HasSubstr("[  PASSED  ] 1 test."));
}

TEST(KsSession, SaysWhenTheCommandCantBeRun) {
  const ProgramRun missing = session({"--", "/nonexistent/command"});
  EXPECT_EQ(missing.status, 127);
  EXPECT_EQ(missing.errors, "ks-session: can't run /nonexistent/command: No such file or directory\n");
  EXPECT_EQ(session({"--", "/etc"}).status, 126);
}

TEST(KsSession, RefusesAFolderThatOthersMayEnter) {
  const TemporaryFolder folder;  // for --keep
  chmod(folder.path().c_str(), 0755);
  const ProgramRun run = session({"--keep", folder.path(), "--", "true"});
  EXPECT_EQ(run.status, 125);
  EXPECT_EQ(run.errors, "ks-session: " + folder.path() +
                            ": isn't a folder of this user alone; run chmod 700 on it or name another\n");
}

TEST(KsSession, RefusesAFolderTooLongForASocket) {
  const TemporaryFolder folder;  // for --keep
  const ProgramRun run = session({"--keep", folder.path() + "/" + std::string(100, 'x'), "--", "true"});
  EXPECT_EQ(run.status, 125);
  EXPECT_THAT(run.errors, HasSubstr("too long for the socket in it; 98 bytes are possible"));
}

TEST(KsSession, ShowsTheLogOfAServiceThatDoesntStart) {
  const TemporaryFolder folder;                                          // for --keep
  std::filesystem::create_directory(folder.path() + "/ksd.sock.state");  // stands in the way
  chmod((folder.path() + "/ksd.sock.state").c_str(), 0700);
  const ProgramRun run = session({"--keep", folder.path(), "--", "true"});
  EXPECT_EQ(run.status, 125);
  EXPECT_THAT(run.errors, HasSubstr("the service ended at its start; its log:"));
  EXPECT_THAT(run.errors, HasSubstr("can't open the state page"));
}

TEST(KsSession, RefusesWrongUse) {
  EXPECT_EQ(session({}).status, 125);
  EXPECT_EQ(session({"--vdc", "65535", "--", "true"}).status, 125);
}

TEST(KsSession, WorksForAnyUser) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to become another user";
  const int status = ks_test::run_as(23456, 23456, [] {
    return session({"--", "sh", "-c", "test -S $KS_SOCKET"}).status;
  });
  EXPECT_EQ(status, 0);
}

}  // namespace
