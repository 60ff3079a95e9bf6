// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// What becomes of a database that another run of the machine has left: nothing of it is read.
#include <fcntl.h>
#include <lmdb.h>
#include <sched.h>
#include <sys/mount.h>

#include <cerrno>
#include <fstream>
#include <thread>

#include "library_calls.h"
#include "sdb_fixture.h"

using ks_test::fail_call;
using ks_test::LibraryCalls;
using testing::HasSubstr;

namespace {

const std::string kOtherRun = "01234567-89ab-cdef-0123-456789abcdef";

class SdbRun : public Sdb {
 protected:
  void leave_by_another_run() {
    ASSERT_EQ(in_child([&] { return static_cast<int>(open() | put("key", "of another run")); }), 0);
    mark_as(mark_of(kOtherRun));
  }

  ino_t inode(const std::string &ending) {
    struct stat status {};
    EXPECT_EQ(stat((data_file + ending).c_str(), &status), 0);
    return status.st_ino;
  }

  // A child opens and puts, if it gets that far.
  int starts_anew() {
    return in_child([&] {
      if (open() != 0) return 1;
      if (read("key") != kNoKeyCode) return 2;
      return put("mine", "1") == 0 && value_of("mine") == "1" ? 0 : 3;
    });
  }
};

TEST_F(SdbRun, IsTheOneThatTheKernelNames) {
  ASSERT_EQ(open(), 0u);
  EXPECT_EQ(mark(), mark_of(this_run()));
}

TEST_F(SdbRun, KeepsWhatItWrote) {
  ASSERT_EQ(in_child([&] { return static_cast<int>(open() | put("key", "value")); }), 0);
  ASSERT_EQ(open(), 0u);
  EXPECT_EQ(value_of("key"), "value");
}

TEST_F(SdbRun, ReadsNothingOfAnother) {
  for (const std::string &other : {mark_of(kOtherRun), "1 " + this_run() + "\n", "3 " + this_run() + "\n",
                                   std::string(39, '\0'), "2 " + this_run() + " "}) {
    leave_by_another_run();
    mark_as(other);
    const ino_t before = inode("");
    const int held = ::open(data_file.c_str(), O_RDONLY | O_CLOEXEC);  // so that its number isn't given again
    EXPECT_EQ(starts_anew(), 0) << other;
    EXPECT_NE(inode(""), before) << other;
    EXPECT_EQ(mark(), mark_of(this_run()));
    close(held);
    EXPECT_EQ(in_child([&] { return open() == 0 && value_of("mine") == "1" ? 0 : 1; }), 0) << "it stays from then on";
    std::filesystem::remove_all(folder);
  }
}

TEST_F(SdbRun, ReadsNothingOfAGateThatIsMissingOrCut) {
  for (const off_t size : {0, 1, 38}) {
    leave_by_another_run();
    mark_as(mark_of(this_run()));
    ASSERT_EQ(truncate((data_file + "-gate").c_str(), size), 0);
    EXPECT_EQ(starts_anew(), 0) << size;
  }
  mark_as(mark_of(kOtherRun));
  std::filesystem::remove(data_file + "-gate");
  ASSERT_EQ(in_child([&] { return open() == 0 && read("mine") == kNoKeyCode ? 0 : 1; }), 0);
}

TEST_F(SdbRun, DoesNotEvenLookAtDamageOfAnother) {
  leave_by_another_run();
  for (const char *ending : {"", "-lock"}) std::ofstream(data_file + ending) << std::string(100'000, 'x');
  EXPECT_EQ(starts_anew(), 0);
}

// As a restart does: the kernel has another id.
TEST_F(SdbRun, BeginsWithTheMachine) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can put another id in the kernel's place";
  const std::string other = root + "/boot_id";
  std::ofstream(other) << kOtherRun << "\n";
  const int status = in_child([&] {
    const char *const id = "/proc/sys/kernel/random/boot_id";
    if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return 77;
    if (mount(other.c_str(), id, nullptr, MS_BIND, nullptr) != 0) return 77;
    return static_cast<int>(open() | put("key", "of another run"));
  });
  if (status == 77) GTEST_SKIP() << "no file system may be mounted here";
  ASSERT_EQ(status, 0);
  EXPECT_EQ(mark(), mark_of(kOtherRun));
  EXPECT_EQ(starts_anew(), 0);
}

TEST_F(SdbRun, IsBegunByOneOfThoseWhoOpenAtOnce) {
  constexpr int kProcesses = 6;
  for (int round = 0; round < 4; ++round) {
    leave_by_another_run();
    int start[2];
    ASSERT_EQ(pipe2(start, O_CLOEXEC), 0);
    std::vector<pid_t> children;
    for (int i = 0; i < kProcesses; ++i) {
      children.push_back(start_child([&, i] {
        close(start[1]);
        char byte;
        if (::read(start[0], &byte, 1) != 0) return 1;
        uint32_t code = kRetryCode;
        while (code == kRetryCode) code = open();
        return static_cast<int>(code | put("key " + std::to_string(i), "value"));
      }));
    }
    close(start[0]);
    close(start[1]);
    for (const pid_t child : children) EXPECT_EQ(status_of(child), 0);
    EXPECT_EQ(in_child([&] {
                if (open() != 0 || read("key") != kNoKeyCode) return 1;
                for (int i = 0; i < kProcesses; ++i) {
                  if (value_of("key " + std::to_string(i)) != "value") return 2 + i;
                }
                return 0;
              }),
              0);
    std::filesystem::remove_all(folder);
  }
}

// It can't be of another run, but may be of another version: it keeps what it has mapped and harms nobody.
TEST_F(SdbRun, LeavesAStoppedProcessWithTheOldFiles) {
  const pid_t stopped = start_child([&] {
    if (open() != 0 || put("key", "old") != 0 || stage("key", "late") != 0) return 1;
    at_head_write = [] { raise(SIGSTOP); };
    if (done() != 0) return 2;  // into the file that it has
    at_head_write = nullptr;
    if (value_of("key") != "late") return 3;
    return put("key", "later") == kUnsafeCode ? 0 : 4;
  });
  int status = 0;
  ASSERT_EQ(waitpid(stopped, &status, WUNTRACED), stopped);
  ASSERT_TRUE(WIFSTOPPED(status));
  mark_as(mark_of(kOtherRun));

  ASSERT_EQ(starts_anew(), 0);
  kill(stopped, SIGCONT);
  EXPECT_EQ(status_of(stopped), 0);
  EXPECT_EQ(in_child([&] { return open() == 0 && read("key") == kNoKeyCode && value_of("mine") == "1" ? 0 : 1; }), 0);
}

TEST_F(SdbRun, IsBegunByTheNextAfterAKillOnTheWay) {
  const auto killed = [](auto &&...) {
    raise(SIGKILL);
    return std::optional<int>();
  };
  const std::function<void()> steps[] = {
      [&] {
        const LibraryCalls<unlinkat> calls(kLibrary, killed);
        open();
      },
      [&] {
        int number = 0;
        const LibraryCalls<unlinkat> calls(kLibrary, [&](int, const char *, int) -> std::optional<int> {
          if (++number == 2) raise(SIGKILL);
          return std::nullopt;
        });
        open();
      },
      [&] {
        const LibraryCalls<linkat> calls(kLibrary, killed);
        open();
      },
      [&] {
        const LibraryCalls<mdb_env_open> calls(kLibrary, killed);
        open();
      },
      [&] {
        const LibraryCalls<ftruncate64> calls(kLibrary, killed);
        open();
      },
      [&] {
        at_txn_begin = [] { raise(SIGKILL); };
        open();
      },
  };
  for (const auto &step : steps) {
    leave_by_another_run();
    EXPECT_EQ(in_child([&] {
                step();
                return 0;
              }),
              1000 + SIGKILL)
        << &step - steps;
    EXPECT_EQ(mark(), mark_of(kOtherRun)) << &step - steps;
    EXPECT_EQ(starts_anew(), 0) << &step - steps;
    std::filesystem::remove_all(folder);
  }
}

class SdbRunRefusal : public SdbRun {
 protected:
  template <auto kFunction>
  void refuses(int number, int error, uint32_t code, const std::string &reason) {
    SCOPED_TRACE(reason);
    leave_by_another_run();
    EXPECT_EQ(in_child([&] {
                const LibraryCalls<kFunction> calls(kLibrary, fail_call(number, -1, error));
                if (open() != code) return 1;
                return std::string(syserr2str(code)).find(reason) == std::string::npos ? 2 : 0;
              }),
              0);
    EXPECT_EQ(starts_anew(), 0) << "with the next attempt";
    std::filesystem::remove_all(folder);
  }
};

TEST_F(SdbRunRefusal, SaysWhatIsInTheWay) {
  const std::string another = ", which is of another run of the machine: ";
  refuses<unlinkat>(1, EPERM, kSystemCode, data_file + "-lock" + another + "Operation not permitted");
  refuses<unlinkat>(2, EROFS, kSystemCode, data_file + another + "Read-only file system");
  refuses<linkat>(1, ENOSPC, kSystemCode, "cannot open " + data_file + "-lock: No space left on device");
  refuses<ftruncate64>(1, ENOSPC, kFullCode, data_file + ": No space left on device");
}

TEST_F(SdbRunRefusal, IsThatOfFilesOfSomebodyElse) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  for (const char *ending : {"", "-lock", "-gate"}) {
    leave_by_another_run();
    ASSERT_EQ(chown((data_file + ending).c_str(), 12345, 12345), 0);
    EXPECT_EQ(open(), kUnsafeCode) << ending;
    EXPECT_THAT(syserr2str(kUnsafeCode), HasSubstr("belongs to user 12345"));
    std::filesystem::remove_all(folder);
  }
}

TEST_F(SdbRunRefusal, IsThatOfAKernelThatDoesNotTellItsRun) {
  const auto hidden = [](const char *path, int) -> std::optional<int> {
    if (strstr(path, "boot_id") == nullptr) return std::nullopt;
    errno = ENOENT;
    return -1;
  };
  const LibraryCalls<open64> calls(kLibrary, hidden);
  EXPECT_EQ(open(), kSystemCode);
  EXPECT_STREQ(syserr2str(kSystemCode),
               "A system call failed: cannot read which run of the machine this is: No such file or directory");
}

}  // namespace
