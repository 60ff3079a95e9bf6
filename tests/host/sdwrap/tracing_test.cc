// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// Gates that the environment opens, and the file that lines go to. A process reads its environment once, so each test
// uses the library in a child of its own.
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <cerrno>
#include <fstream>
#include <string>

#include "checks.h"
#include "content_of.h"
#include "fake_service/fake_service.h"
#include "sdwrap.h"

using ks_test::content_of;

namespace {

// As the library's reporting step does it.
void report_as_library(const std::string &text, uint32_t subtype = 103) {
  if (recorded(subtype)) {
    KsHistRecord record = {};
    record.subtype = subtype;
    strncpy(record.text, text.c_str(), sizeof record.text - 1);
    sdwrap_hist_event(0x730000, static_cast<uint32_t>(strlen(record.text) + 5), &record);
  }
  if (debugged(subtype)) buginf(1, sdwrap_dbg_modname, 0, "%s", text.c_str());
}

class Tracing : public testing::Test {
 protected:
  Tracing() {
    setenv("KS_SOCKET", (folder() + "/ksd.sock").c_str(), 1);
    setenv("XDG_RUNTIME_DIR", (folder() + "/none").c_str(), 1);
    unsetenv("KS_TRACE");
    unsetenv("KS_TRACE_FILE");
  }
  ~Tracing() override {
    unsetenv("KS_TRACE");
    unsetenv("KS_TRACE_FILE");
  }

  const std::string &folder() const { return folder_.path(); }
  std::string file() const { return folder() + "/trace"; }

  static void ask(const std::string &gates) { setenv("KS_TRACE", gates.c_str(), 1); }
  void ask_for_file() const { setenv("KS_TRACE_FILE", file().c_str(), 1); }

  // What `body` writes to standard error in a child, whose number it appends as "[PID]" is spelt "[]".
  std::string said_by(const std::function<void()> &body) const {
    const std::string errors = folder() + "/errors";
    EXPECT_TRUE(passes_in_child([&] {
      const int to = open(errors.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0600);
      dup2(to, STDERR_FILENO);
      errno = 77;
      body();
      return true;
    }));
    return without_pids(content_of(errors));
  }
  static std::string without_pids(std::string text) {
    for (size_t at = text.find('['); at != std::string::npos; at = text.find('[', at + 1)) {
      const size_t end = text.find_first_not_of("0123456789", at + 1);
      if (end != std::string::npos && text[end] == ']') text.erase(at + 1, end - at - 1);
    }
    return text;
  }

  void write_page(uint32_t recorded_word3, uint32_t debugged_word3) const {
    HostStatePage page = {};
    page.magic = 0x3173736b;
    page.version = 1;
    page.history_open[3] = recorded_word3;
    page.debug_open[3] = debugged_word3;
    const int to = open((folder() + "/ksd.sock.state").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (pwrite(to, &page, sizeof page, 0) != sizeof page) abort();
    close(to);
  }

 private:
  TemporaryFolder folder_;
};

constexpr char kKnown[] =
    "\" isn't known, and nothing is traced. It takes family+level[,...]: the families are record and debug, the levels "
    "alert (100), normal (103), all and numbers from 0 to 255\n";

TEST_F(Tracing, OpensTheGatesThatItNames) {
  ask("debug+normal,record+7,record+255");
  EXPECT_TRUE(passes_in_child([] {
    return debugged(103) && !debugged(100) && !debugged(7) && recorded(7) && recorded(255) && recorded(100) &&
           !recorded(103) && !recorded(256 + 7) && !debugged(UINT32_MAX);
  }));
  ask("debug+alert,record+all");
  EXPECT_TRUE(passes_in_child([] {
    return debugged(100) && !debugged(103) && recorded(0) && recorded(103) && recorded(255) && !recorded(256);
  }));
}

TEST_F(Tracing, OpensGatesBesideThoseOfTheService) {
  write_page(1U << 4, 1U << 5);  // 100 recorded, 101 debugged
  ask("debug+normal");
  EXPECT_TRUE(passes_in_child([this] {
    const bool first = recorded(100) && !recorded(103) && debugged(101) && debugged(103) && !debugged(100);
    write_page(0, 0);
    return first && !recorded(100) && !debugged(101) && debugged(103);
  }));
}

TEST_F(Tracing, StaysOpenWhenTheServiceComesLater) {
  ask("debug+normal");
  EXPECT_TRUE(passes_in_child([this] {
    write_page(0, 0);
    sdwrap_hist_mts_event(4, nullptr, 0, 0);
    return debugged(103) && !recorded(100);
  }));
}

TEST_F(Tracing, PrintsReportsAndDebugLines) {
  ask("record+normal,debug+alert");
  EXPECT_EQ(said_by([] {
              report_as_library("mts_bind failed \n");
              report_as_library("No URI exists. \n", 100);
              report_as_library("first\nsecond\n");
              EXPECT_EQ(errno, 77);
            }),
            "ks[] report 103: mts_bind failed \nks[]: No URI exists. \nks[] report 103: first\n");
}

TEST_F(Tracing, PrintsTheLongestReportWholeAndNoOther) {
  ask("record+103");
  EXPECT_EQ(said_by([] {
              report_as_library(std::string(511, 'r'));
              const uint8_t short_ones[4] = {103, 0, 0, 0};
              sdwrap_hist_event(0x730000, 4, short_ones);
              sdwrap_hist_event(0x730000, 0, short_ones);
              const std::string vast(2000, 'v');
              sdwrap_hist_event(0x730000, 2000, vast.data());
              report_as_library("recorded by default", 100);
            }),
            "ks[] report 103: " + std::string(511, 'r') + "\n");
}

TEST_F(Tracing, SaysNothingWhereNothingIsAskedFor) {
  for (const char *gates : {"", static_cast<const char *>(nullptr)}) {
    if (gates != nullptr) ask(gates);
    EXPECT_EQ(said_by([] {
                report_as_library("a");
                report_as_library("b", 100);
              }),
              "");
    unsetenv("KS_TRACE");
  }
}

TEST_F(Tracing, SaysOnceWhatItDoesNotKnowAndOpensNothing) {
  for (const auto &[value, wrong] : {std::pair("debug", "debug"),
                                     {"debug+", "debug+"},
                                     {"debug+normal,", ""},
                                     {"+normal", "+normal"},
                                     {"pac+normal", "pac+normal"},
                                     {"debug+normal,record+256", "record+256"},
                                     {"debug+-1", "debug+-1"},
                                     {"debug+ 3", "debug+ 3"},
                                     {"debug+1000", "debug+1000"},
                                     {"Debug+normal", "Debug+normal"},
                                     {"record+alerts", "record+alerts"},
                                     {"\033[2Jx\x7f", "?[2Jx?"}}) {
    ask(value);
    EXPECT_EQ(said_by([] {
                for (int i = 0; i < 3; i++) report_as_library("unseen");
                if (debugged(103) || recorded(103)) fputs("open", stderr);
              }),
              std::string("ks[]: KS_TRACE: \"") + wrong + kKnown)
        << value;
  }
  ask(std::string(5000, 'x'));
  EXPECT_EQ(said_by([] { report_as_library("unseen"); }), "ks[]: KS_TRACE: \"" + std::string(40, 'x') + kKnown);
}

TEST_F(Tracing, WritesToTheFile) {
  ask("debug+all");
  ask_for_file();
  umask(0);
  EXPECT_EQ(said_by([this] {
              report_as_library("first\n");
              struct stat status;
              EXPECT_EQ(stat(file().c_str(), &status), 0);
              EXPECT_EQ(status.st_mode & 07777, 0600U);
              if (fork() == 0) {
                report_as_library("child\n");
                _exit(0);
              }
              wait(nullptr);
              report_as_library("last\n");
            }),
            "");
  EXPECT_EQ(said_by([] { report_as_library("another process\n"); }), "") << "behind what is there";
  EXPECT_EQ(without_pids(content_of(file())), "ks[]: first\nks[]: child\nks[]: last\nks[]: another process\n");
}

TEST_F(Tracing, WritesDebugLinesThatTheServiceOpensToTheFileToo) {
  write_page(0, 1U << 7);
  ask_for_file();
  EXPECT_EQ(said_by([] { report_as_library("text\n"); }), "");
  EXPECT_EQ(without_pids(content_of(file())), "ks[]: text\n");
}

TEST_F(Tracing, LetsNoDescriptorThroughExec) {
  ask("debug+all");
  ask_for_file();
  EXPECT_TRUE(passes_in_child([this] {
    report_as_library("x");
    struct stat wanted;
    if (stat(file().c_str(), &wanted) != 0) return false;
    for (int number = 0; number < 256; number++) {
      struct stat status;
      if (fstat(number, &status) != 0 || status.st_ino != wanted.st_ino || status.st_dev != wanted.st_dev) continue;
      return (fcntl(number, F_GETFD) & FD_CLOEXEC) != 0 && (fcntl(number, F_GETFL) & O_APPEND) != 0;
    }
    return false;
  }));
}

TEST_F(Tracing, KeepsTheFileOpenFromLineToLine) {
  ask("debug+all");
  ask_for_file();
  EXPECT_TRUE(passes_in_child([] {
    report_as_library("one\n");
    const int next = dup(STDERR_FILENO);
    close(next);
    for (int i = 0; i < 20; i++) report_as_library("more\n");
    return dup(STDERR_FILENO) == next;
  }));
}

TEST_F(Tracing, OpensTheFileAgainWhenItsNumberBecameAnothers) {
  ask("debug+all");
  ask_for_file();
  EXPECT_TRUE(passes_in_child([this] {
    report_as_library("one\n");
    const std::string other = folder() + "/other";
    for (int number = 3; number < 256; number++) close(number);
    for (int number = 3; number < 256; number++) open(other.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    report_as_library("two\n");
    report_as_library("three\n");
    return content_of(other).empty() && without_pids(content_of(file())) == "ks[]: one\nks[]: two\nks[]: three\n";
  }));
}

TEST_F(Tracing, TakesOnlyARegularFileOfItsUser) {
  ask("debug+all");
  ask_for_file();
  const auto refusal = [this](const std::string &why) {
    return "ks[]: KS_TRACE_FILE: " + file() + ": " + why + "; lines go to standard error\nks[]: text\nks[]: again\n";
  };
  const auto said = [this] {
    return said_by([] {
      report_as_library("text\n");
      report_as_library("again\n");
      EXPECT_EQ(errno, 77);
    });
  };
  const std::string precious = folder() + "/precious";
  std::ofstream(precious) << "precious";

  ASSERT_EQ(symlink(precious.c_str(), file().c_str()), 0);
  EXPECT_EQ(said(), refusal("Too many levels of symbolic links"));
  ASSERT_EQ(unlink(file().c_str()), 0);
  ASSERT_EQ(link(precious.c_str(), file().c_str()), 0);
  EXPECT_EQ(said(), refusal("has other names too"));
  ASSERT_EQ(unlink(file().c_str()), 0);
  EXPECT_EQ(content_of(precious), "precious");

  ASSERT_EQ(mkfifo(file().c_str(), 0600), 0);
  EXPECT_EQ(said(), refusal("No such device or address")) << "nobody reads it";
  const int reader = open(file().c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  EXPECT_EQ(said(), refusal("isn't a regular file"));
  close(reader);
  ASSERT_EQ(unlink(file().c_str()), 0);
  ASSERT_EQ(mkdir(file().c_str(), 0700), 0);
  EXPECT_EQ(said(), refusal("Is a directory"));
  ASSERT_EQ(rmdir(file().c_str()), 0);

  if (geteuid() != 0) return;
  close(open(file().c_str(), O_CREAT | O_WRONLY, 0666));
  ASSERT_EQ(chown(file().c_str(), 12345, 12345), 0);
  EXPECT_EQ(said(), refusal("belongs to another user"));
}

TEST_F(Tracing, IsNoReasonToDieWhereTheFileMayNotGrow) {
  ask("debug+all");
  ask_for_file();
  EXPECT_TRUE(passes_in_child([this] {
    const rlimit little = {.rlim_cur = 10, .rlim_max = 10};
    setrlimit(RLIMIT_FSIZE, &little);
    errno = 77;
    for (int i = 0; i < 3; i++) report_as_library("more than there is room for\n");
    sigset_t pending;
    sigpending(&pending);
    return errno == 77 && content_of(file()).size() == 10 && sigismember(&pending, SIGXFSZ) == 0;
  }));
}

TEST_F(Tracing, IsOutOfTheQuestionForAProgramWithCapabilities) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  ask("debug+all");
  EXPECT_TRUE(passes_in_child([] { return setresuid(12345, 12345, 12345) == 0 && debugged(103); }));
  EXPECT_TRUE(passes_in_child([] {
    return prctl(PR_SET_KEEPCAPS, 1) == 0 && setresuid(12345, 12345, 12345) == 0 && !debugged(103) && recorded(100);
  }));
}

// Run by the test below as another user, with root's rights.
TEST(TracingInside, DISABLED_WithTheRightsOfAnotherUser) {
  EXPECT_NE(getuid(), geteuid());
  report_as_library("by the caller's wish\n");
  EXPECT_FALSE(debugged(103));
}

TEST_F(Tracing, IsOutOfTheQuestionForAProgramThatRunsAsAnotherUser) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the sanitizer's run-time library doesn't start so";
#endif
  ask("debug+all,record+all");
  ask_for_file();
  ASSERT_EQ(chmod(folder().c_str(), 0711), 0);
  const std::string program = folder() + "/program";
  std::filesystem::copy_file("/proc/self/exe", program);
  ASSERT_EQ(chmod(program.c_str(), 04755), 0);
  EXPECT_TRUE(passes_in_child([&program] {
    if (setresuid(12345, 12345, 12345) != 0) return false;
    const pid_t child = fork();
    if (child == 0) {
      execl(program.c_str(), program.c_str(), "--gtest_also_run_disabled_tests", "--gtest_filter=TracingInside.*",
            nullptr);
      _exit(127);
    }
    int status = -1;
    waitpid(child, &status, 0);
    return status == 0;
  }));
  EXPECT_FALSE(std::filesystem::exists(file()));
}

}  // namespace
