// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// A kill at every write, sync and change of a name that a restore or a change of the master key makes: before it, after
// it, and half-way through what it writes. What is there afterwards is the old vault or the new one, whole.
#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>

#include "random_input.h"
#include "vault_files/backup_files.h"

namespace {

enum class When { kBefore, kHalfWay, kAfter };

// The calls are counted in the one process that is to be killed, and the `number`th is its last.
struct {
  int number = 0;  // 0: nothing is counted
  When when = When::kBefore;
  int made = 0;
} kill_point;

template <typename Function>
Function *real(const char *name) {
  return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

[[noreturn]] void die() {
  kill(getpid(), SIGKILL);
  std::abort();
}

template <typename Call, typename Half>
auto at_kill_point(Call call, Half half) {
  const bool here = kill_point.number != 0 && ++kill_point.made == kill_point.number;
  if (here && kill_point.when == When::kBefore) die();
  if (here && kill_point.when == When::kHalfWay) {
    half();
    die();
  }
  const auto result = call();
  if (here) die();
  return result;
}

// A kill ends a write between two pages of the kernel's: within one the kernel copies all or nothing.
size_t half_of(size_t size, off_t at) {
  constexpr size_t kPage = 4096;
  const size_t begin = static_cast<size_t>(at), middle = (begin + size / 2) / kPage * kPage;
  const size_t end = middle > begin ? middle : (begin / kPage + 1) * kPage;
  return end < begin + size ? end - begin : 0;
}

template <typename Call>
auto at_kill_point(Call call) {
  return at_kill_point(call, [] {});
}

}  // namespace

// Stand-ins in front of the C library's, for this program and the libraries that it loads.
#define EXPORTED extern "C" __attribute__((visibility("default")))

EXPORTED ssize_t write(int fd, const void *from, size_t size) {
  static auto *const next = real<ssize_t(int, const void *, size_t)>("write");
  if (kill_point.number == 0 || fd <= STDERR_FILENO) return next(fd, from, size);
  return at_kill_point([&] { return next(fd, from, size); },
                       [&] { next(fd, from, half_of(size, lseek(fd, 0, SEEK_CUR))); });
}
EXPORTED ssize_t pwrite(int fd, const void *from, size_t size, off_t at) {
  static auto *const next = real<ssize_t(int, const void *, size_t, off_t)>("pwrite");
  return at_kill_point([&] { return next(fd, from, size, at); }, [&] { next(fd, from, half_of(size, at), at); });
}
EXPORTED ssize_t pwrite64(int fd, const void *from, size_t size, off64_t at) {
  return pwrite(fd, from, size, at);
}
EXPORTED int ftruncate(int fd, off_t size) {
  static auto *const next = real<int(int, off_t)>("ftruncate");
  return at_kill_point([&] { return next(fd, size); });
}
EXPORTED int ftruncate64(int fd, off64_t size) {
  return ftruncate(fd, size);
}
// Nothing is really brought to the disk: a kill takes nothing from what the kernel has.
EXPORTED int fsync(int) {
  return at_kill_point([] { return 0; });
}
EXPORTED int fdatasync(int) {
  return at_kill_point([] { return 0; });
}
EXPORTED int rename(const char *from, const char *to) noexcept {
  static auto *const next = real<int(const char *, const char *)>("rename");
  return at_kill_point([&] { return next(from, to); });
}
EXPORTED int link(const char *from, const char *to) noexcept {
  static auto *const next = real<int(const char *, const char *)>("link");
  return at_kill_point([&] { return next(from, to); });
}
EXPORTED int unlink(const char *path) noexcept {
  static auto *const next = real<int(const char *)>("unlink");
  return at_kill_point([&] { return next(path); });
}
EXPORTED int mkdir(const char *path, mode_t mode) noexcept {
  static auto *const next = real<int(const char *, mode_t)>("mkdir");
  return at_kill_point([&] { return next(path, mode); });
}
EXPORTED int rmdir(const char *path) noexcept {
  static auto *const next = real<int(const char *)>("rmdir");
  return at_kill_point([&] { return next(path); });
}

namespace ksd::vault {
namespace {

using testing::AnyOf;
using testing::ElementsAre;

constexpr When kAll[] = {When::kBefore, When::kHalfWay, When::kAfter};

// KS_KILL_STEP=1 takes every point, which is the long run; by default one of so many, each run others.
int step() {
  const char *wanted = std::getenv("KS_KILL_STEP");
  return wanted == nullptr ? 7 : std::max(1, std::atoi(wanted));
}

// run_until_killed has a child do the work, and tells whether it was killed at that point before the end.
bool run_until_killed(int number, When when, const std::function<void()> &work) {
  const pid_t child = fork();
  if (child == 0) {
    kill_point.when = when;
    kill_point.number = number;
    try {
      work();
    } catch (const std::exception &error) {
      std::fprintf(stderr, "%s\n", error.what());
      _exit(1);
    }
    _exit(0);
  }
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_TRUE(WIFSIGNALED(status) || WEXITSTATUS(status) == 0);
  return WIFSIGNALED(status);
}

// at_each_point runs `work` in a folder that `prepare` makes anew, with a kill at one point after the other, and has
// `check` look at what is there. Gives how many points there are.
int at_each_point(const std::function<void(const Folder &)> &prepare, const std::function<void(const Folder &)> &work,
                  const std::function<void(const Folder &)> &check) {
  int points = 0;
  std::mt19937 random = ks_test::random_input();
  for (const When when : kAll) {
    bool killed = true;
    int number = 1 + static_cast<int>(random() % static_cast<unsigned>(step()));
    for (; killed; number += step()) {
      SCOPED_TRACE("kill point " + std::to_string(number) + ", " + std::to_string(static_cast<int>(when)));
      const Folder folder;
      prepare(folder);
      killed = run_until_killed(number, when, [&] { work(folder); });
      check(folder);
      if (testing::Test::HasFailure()) return 0;
    }
    points = number - step();
  }
  return points;
}

class KillPoints : public testing::Test {
 protected:
  // An old vault with "old" in it that wasn't closed in order, and so has a log.
  static void make_old(const Folder &folder) {
    const pid_t child = fork();
    if (child == 0) {
      const auto vault = folder.open();
      _exit(put(*vault, "old", "secret of old") != KS_SUCCESS);
    }
    int status = -1;
    waitpid(child, &status, 0);
    ASSERT_EQ(status, 0);
  }

  static std::string backup() {
    const Folder source;
    const auto vault = source.open();
    for (const char *name : {"new 1", "new 2"}) put(*vault, name, "secret of new", std::string(9000, 'm'));
    return backup_of(*vault);
  }
};

TEST_F(KillPoints, OfARestoreLeaveTheOldVaultOrTheNewOne) {
  const std::string content = backup();
  bool was_old = false, was_new = false;
  const int points = at_each_point(
      make_old, [&](const Folder &folder) { restore(content, folder); },
      [&](const Folder &folder) {
        const std::vector<std::string> names = names_in(*folder.open());
        EXPECT_THAT(names, AnyOf(ElementsAre("old"), ElementsAre("new 1", "new 2")));
        (names.size() == 1 ? was_old : was_new) = true;
        if (names.size() == 1) restore(content, folder);  // what is left of the first doesn't stand in the way
        EXPECT_THAT(names_in(*folder.open()), ElementsAre("new 1", "new 2"));
        // The old one is kept as it was.
        Folder kept;
        std::filesystem::remove(kept.path());
        std::filesystem::rename(folder.vault() + "-before-restore-1", kept.path());
        std::filesystem::copy_file(folder.key(), kept.key());
        EXPECT_THAT(names_in(*kept.open()), ElementsAre("old"));
      });
  EXPECT_TRUE(was_old && was_new);
  EXPECT_GT(points, 60);
}

TEST_F(KillPoints, OfARestoreWhereNothingWasLeaveNothingOrTheNewVault) {
  const std::string content = backup();
  at_each_point([](const Folder &) {}, [&](const Folder &folder) { restore(content, folder); },
                [&](const Folder &folder) {
                  const bool placed =
                      std::filesystem::exists(folder.vault()) || std::filesystem::exists(folder.vault() + "-restore");
                  if (!placed) restore(content, folder);
                  EXPECT_THAT(names_in(*folder.open()), ElementsAre("new 1", "new 2"));
                });
}

// Entries of such a size that they move in several steps, and changes meanwhile.
TEST_F(KillPoints, OfAChangeOfTheMasterKeyLeaveAVaultThatOpensAndGoesOn) {
  const std::string large(60000, 'm');
  const auto prepare = [&](const Folder &folder) {
    const auto vault = folder.open();
    for (int i = 0; i < 8; ++i) put(*vault, "n" + std::to_string(i), "secret", large);
  };
  const auto change = [](const Folder &folder) {
    const auto vault = folder.open();
    if (vault->change_key(nullptr) != KS_SUCCESS) throw std::runtime_error("the change didn't begin");
    put(*vault, "n3", "changed meanwhile");
    put(*vault, "later", "stored meanwhile");
    while (vault->key_change().state == KeyChangeProgress::State::kMoving) static_cast<void>(vault->snapshot());
  };
  bool was_under_way = false;
  const int points = at_each_point(prepare, change, [&](const Folder &folder) {
    was_under_way |= examine_vault(folder.options()).key_changes;
    {
      const auto vault = folder.open();
      EXPECT_GE(vault->count(), 8u);
      for (int i = 0; i < 8; ++i) {
        if (i == 3) continue;  // which is changed meanwhile
        EXPECT_EQ(metadata_in(*vault, secret_name("n" + std::to_string(i))), large);
      }
      EXPECT_THAT(secret_in(*vault, secret_name("n3")), AnyOf("secret", "changed meanwhile"));
      // A snapshot waits for a turn of the thread that moves them.
      while (vault->key_change().state == KeyChangeProgress::State::kMoving) static_cast<void>(vault->snapshot());
      EXPECT_EQ(vault->key_change().state, KeyChangeProgress::State::kNone);
      if (vault->exists(secret_name("later"))) {
        EXPECT_EQ(secret_in(*vault, secret_name("later")), "stored meanwhile");
      }
    }
    EXPECT_EQ(read_file(folder.key()).size(), 32u);
    EXPECT_GE(folder.open()->count(), 8u);
    VaultOptions options = folder.options();
    EXPECT_FALSE(examine_vault(options).key_changes);
  });
  EXPECT_TRUE(was_under_way);
  EXPECT_GT(points, 60);
}

}  // namespace
}  // namespace ksd::vault
