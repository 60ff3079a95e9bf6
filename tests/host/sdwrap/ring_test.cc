// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// Which file becomes a process's ring, in which folder, and what becomes of those of the dead.
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <cerrno>
#include <string>

#include "fake_service/fake_service.h"
#include "library_calls.h"
#include "own_run.h"
#include "sdwrap.h"
#include "sdwrap_hooks.h"
#include "start_time.h"

namespace {

using ks_test::fail_call;
using ks_test::LibraryCalls;

constexpr const char *kLibrary = "libsdwrap.so";
constexpr uid_t kSomebody = 12345;

#define NEEDS_ROOT() \
  if (geteuid() != 0) GTEST_SKIP() << "needs root"

// Each test uses the library in a child of its own: a process keeps its ring.
class Ring : public testing::Test {
 protected:
  Ring() {
    setenv("KS_SOCKET", (folder() + "/ksd.sock").c_str(), 1);
    setenv("XDG_RUNTIME_DIR", (folder() + "/none").c_str(), 1);
    mkdir(history().c_str(), 0700);
  }

  const std::string &folder() const { return folder_.path(); }
  std::string history() const { return folder() + "/history"; }
  std::string ring(int number) const {
    return history() + (number < 10 ? "/0" : "/") + std::to_string(number) + ".ring";
  }

  static int report() {
    const uint8_t record[] = {100, 0, 0, 0, 'x', 0};
    return sdwrap_hist_event(0x730000, sizeof record, record);
  }

  static HostRing ring_at(const std::string &path) {
    HostRing ring = {};
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (file < 0 || read(file, &ring, sizeof ring) != sizeof ring) ring = {};
    close(file);
    return ring;
  }

  // Whether the calling process's ring is there.
  static bool is_own(const std::string &path) {
    const HostRing ring = ring_at(path);
    return ring.magic == 0x3172736b && ring.pid == static_cast<uint32_t>(getpid()) && ring.next > 0;
  }

  static off_t size_of(const std::string &path) {
    struct stat status;
    return stat(path.c_str(), &status) == 0 ? status.st_size : -1;
  }

  static void make(const std::string &path, mode_t mode = 0600) {
    close(open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
    chmod(path.c_str(), mode);
  }

  static void write_bytes(const std::string &path, const void *bytes, size_t size) {
    const int file = open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
    if (write(file, bytes, size) != static_cast<ssize_t>(size)) abort();
    close(file);
  }

  void set_next(uint32_t number) const { write_bytes(history() + "/next", &number, sizeof number); }
  uint32_t next() const {
    uint32_t number = UINT32_MAX;
    const int file = open((history() + "/next").c_str(), O_RDONLY | O_CLOEXEC);
    if (size_of(history() + "/next") != 4 || read(file, &number, sizeof number) != sizeof number) abort();
    close(file);
    return number;
  }

  // Whether a process passes over the first name after `prepare` has put something there, and changes nothing of it.
  bool passes_over(const std::function<void(const std::string &path)> &prepare) const {
    return passes_in_child([&] {
      prepare(ring(0));
      struct stat before;
      struct stat after;
      return lstat(ring(0).c_str(), &before) == 0 && report() == 0 && is_own(ring(1)) &&
             lstat(ring(0).c_str(), &after) == 0 && after.st_ino == before.st_ino && after.st_mode == before.st_mode &&
             after.st_size == before.st_size && next() == 2 && unlink(ring(0).c_str()) == 0 &&
             unlink((history() + "/next").c_str()) == 0;
    });
  }

 private:
  TemporaryFolder folder_;
};

// ---- The file.

TEST_F(Ring, TakesAFileOfItsOwnThatNobodyElseMayUse) {
  make(ring(0));
  EXPECT_TRUE(passes_in_child([this] { return report() == 0 && is_own(ring(0)); }));
  EXPECT_EQ(size_of(ring(0)), 131200);
}

TEST_F(Ring, LeavesAFileAloneThatOthersMayUse) {
  for (const mode_t mode : {0640u, 0620u, 0604u, 0602u, 0610u, 0601u}) {
    EXPECT_TRUE(passes_over([mode](const std::string &path) { make(path, mode); })) << std::oct << mode;
  }
}

TEST_F(Ring, LeavesAFileAloneThatHasAnotherName) {
  EXPECT_TRUE(passes_over([](const std::string &path) {
    make(path);
    if (link(path.c_str(), (path + ".too").c_str()) != 0) abort();
  }));
}

TEST_F(Ring, LeavesAFileOfSomebodyElseAlone) {
  NEEDS_ROOT();
  EXPECT_TRUE(passes_over([](const std::string &path) {
    make(path);
    if (chown(path.c_str(), kSomebody, kSomebody) != 0) abort();
  }));
}

TEST_F(Ring, WaitsForNobodyAtAPipeAndLeavesItAlone) {
  EXPECT_TRUE(passes_over([](const std::string &path) {
    if (mkfifo(path.c_str(), 0600) != 0) abort();
  }));
}

TEST_F(Ring, LeavesALinkToAFileOfItsOwnAlone) {
  EXPECT_TRUE(passes_over([this](const std::string &path) {
    make(folder() + "/mine");
    if (symlink((folder() + "/mine").c_str(), path.c_str()) != 0) abort();
  }));
  EXPECT_EQ(size_of(folder() + "/mine"), 0);
}

TEST_F(Ring, LeavesAFileAloneThatSomebodyHasLocked) {
  EXPECT_TRUE(passes_over([](const std::string &path) {
    make(path);
    if (flock(open(path.c_str(), O_RDONLY | O_CLOEXEC), LOCK_SH) != 0) abort();
  }));
}

TEST_F(Ring, KeepsNothingOfTheProcessBefore) {
  std::vector<HostRing> full(1);
  memset(full.data(), 0xff, sizeof(HostRing));
  write_bytes(ring(0), full.data(), sizeof(HostRing));
  EXPECT_TRUE(passes_in_child([this] {
    report();
    const HostRing ring = ring_at(this->ring(0));
    const HostRingSlot unused = {};
    return ring.magic == 0x3172736b && ring.version == 1 && ring.slot_count == 1024 && ring.next == 1 &&
           ring.pid == static_cast<uint32_t>(getpid()) && std::to_string(ring.start) == start_time() &&
           std::string(ring.program, 11) == "host_sdwrap" && ring.program[63] == 0 && ring.slots[0].sequence == 1 &&
           memcmp(&ring.slots[1], &unused, sizeof unused) == 0 &&
           memcmp(&ring.slots[1023], &unused, sizeof unused) == 0;
  }));
}

TEST_F(Ring, IsRefusedWhereThereIsNoRoomForAllOfIt) {
  EXPECT_TRUE(passes_in_child([this] {
    struct sigaction ignore = {};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGXFSZ, &ignore, nullptr);
    const rlimit limit = {.rlim_cur = sizeof(HostRing) - 1, .rlim_max = sizeof(HostRing) - 1};
    if (setrlimit(RLIMIT_FSIZE, &limit) != 0) return false;
    return report() == 0 && size_of(ring(0)) == -1 && size_of(ring(63)) == -1;
  }));
}

// ---- Which of the names.

TEST_F(Ring, IsTheOneThatIsNext) {
  const struct {
    uint32_t said, taken, then;
  } kCases[] = {{5, 5, 6}, {62, 62, 63}, {63, 63, 0}, {64, 0, 1}, {UINT32_MAX, 63, 0}};
  for (const auto &is : kCases) {
    set_next(is.said);
    EXPECT_TRUE(passes_in_child([&] { return report() == 0 && is_own(ring(static_cast<int>(is.taken))); })) << is.said;
    EXPECT_EQ(next(), is.then) << is.said;
  }
}

TEST_F(Ring, IsTheFirstWhereTheNextCannotBeRead) {
  for (const size_t size : {0u, 1u, 3u}) {
    write_bytes(history() + "/next", "\7\7\7", size);
    EXPECT_TRUE(passes_in_child([this] { return report() == 0 && is_own(ring(0)); })) << size;
    EXPECT_EQ(next(), 1U);
    ASSERT_EQ(unlink((history() + "/next").c_str()), 0);
  }
}

TEST_F(Ring, IsNoneWhereTheNextIsALinkOrAFolder) {
  make(folder() + "/mine");
  ASSERT_EQ(symlink((folder() + "/mine").c_str(), (history() + "/next").c_str()), 0);
  EXPECT_TRUE(passes_in_child([] { return report() == 0; }));
  EXPECT_EQ(size_of(folder() + "/mine"), 0);
  EXPECT_EQ(size_of(ring(0)), -1);
  ASSERT_EQ(unlink((history() + "/next").c_str()), 0);
  ASSERT_EQ(mkdir((history() + "/next").c_str(), 0700), 0);
  EXPECT_TRUE(passes_in_child([] { return report() == 0; }));
  EXPECT_EQ(size_of(ring(0)), -1);
}

TEST_F(Ring, IsTheLastThatIsFreeOfAll) {
  for (int i = 0; i < 64; i++) {
    if (i != 2) make(ring(i), 0640);  // as good as taken
  }
  set_next(3);
  EXPECT_TRUE(passes_in_child([this] { return report() == 0 && is_own(ring(2)); }));
  EXPECT_EQ(next(), 3U);
}

TEST_F(Ring, KeepsTheNextAsItIsWhenNoneIsFree) {
  for (int i = 0; i < 64; i++) make(ring(i), 0640);
  set_next(7);
  EXPECT_TRUE(passes_in_child([] { return report() == 0; }));
  EXPECT_EQ(next(), 7U);
  EXPECT_EQ(size_of(history() + "/64.ring"), -1);
}

// A child that reports nothing has nothing of its parent's ring, the lock included.
TEST_F(Ring, IsFreeWhenItsProcessHasEndedThoughAChildLives) {
  int ended[2];
  ASSERT_EQ(pipe(ended), 0);
  EXPECT_TRUE(passes_in_child([&] {
    report();
    const pid_t child = fork();
    if (child == 0) {
      close(ended[1]);
      char byte;
      _exit(read(ended[0], &byte, 1) == 0 ? 0 : 1);
    }
    return child > 0 && is_own(ring(0));
  }));
  set_next(0);
  EXPECT_TRUE(passes_in_child([this] { return report() == 0 && is_own(ring(0)); }));
  close(ended[0]);
  close(ended[1]);
}

TEST_F(Ring, IsAnotherOneInAChild) {
  set_next(9);
  EXPECT_TRUE(passes_in_child([this] {
    report();
    const pid_t child = fork();
    if (child == 0) _exit(report() == 0 && is_own(ring(10)) ? 0 : 1);
    int status = 1;
    return waitpid(child, &status, 0) == child && status == 0 && is_own(ring(9));
  }));
}

// ---- The folder.

TEST_F(Ring, LiesInTheRuntimeFolderWhereOthersMayWriteBesideTheSocket) {
  const std::string runtime = folder() + "/runtime";
  ASSERT_EQ(mkdir(runtime.c_str(), 0755), 0);
  setenv("XDG_RUNTIME_DIR", runtime.c_str(), 1);
  for (const mode_t mode : {0770u, 0720u, 0702u, 01777u}) {
    ASSERT_EQ(chmod(folder().c_str(), mode), 0);
    std::filesystem::remove_all(runtime + "/ks");
    EXPECT_TRUE(passes_in_child([&] { return report() == 0 && is_own(runtime + "/ks/00.ring"); })) << std::oct << mode;
    EXPECT_EQ(size_of(ring(0)), -1);
  }
  ASSERT_EQ(chmod(folder().c_str(), 0755), 0);
  EXPECT_TRUE(passes_in_child([&] { return report() == 0 && is_own(ring(0)); }));
}

TEST_F(Ring, LiesInNoRuntimeFolderThatOthersMayWrite) {
  const std::string runtime = folder() + "/runtime";
  ASSERT_EQ(mkdir(runtime.c_str(), 0700), 0);
  setenv("XDG_RUNTIME_DIR", runtime.c_str(), 1);
  ASSERT_EQ(chmod(folder().c_str(), 0770), 0);
  for (const mode_t mode : {0770u, 0702u}) {
    ASSERT_EQ(chmod(runtime.c_str(), mode), 0);
    EXPECT_TRUE(passes_in_child([] { return report() == 0; }));
    EXPECT_EQ(size_of(runtime + "/ks"), -1) << std::oct << mode;
  }
}

TEST_F(Ring, IsNoneWhereAFileHasTheFoldersName) {
  ASSERT_EQ(rmdir(history().c_str()), 0);
  make(history());
  EXPECT_TRUE(passes_in_child([] { return report() == 0; }));
  EXPECT_EQ(size_of(history()), 0);
}

TEST_F(Ring, IsNoneInARuntimeFolderOfAPathThatIsTooLong) {
  ASSERT_EQ(chmod(folder().c_str(), 0770), 0);
  // What leads to one and the same place, in paths round the longest that the library keeps.
  const std::string runtime = folder() + "/runtime";
  ASSERT_EQ(mkdir(runtime.c_str(), 0700), 0);
  const auto takes = [&](size_t length) {
    std::filesystem::remove_all(runtime + "/ks");
    setenv("XDG_RUNTIME_DIR", (runtime + std::string(length - runtime.size(), '/')).c_str(), 1);
    return passes_in_child([&] { return report() == 0 && is_own(runtime + "/ks/00.ring"); });
  };
  EXPECT_TRUE(takes(4000));
  EXPECT_TRUE(takes(4076)) << "with \"/ks\" behind it and its NUL the 4,080 bytes that there are";
  EXPECT_FALSE(takes(4077));
  EXPECT_FALSE(takes(10'000));
}

// Where the socket's folder is none and the environment names no runtime folder either.
TEST_F(Ring, LiesBelowRunUserByDefault) {
  if (!passes_in_child(gives_own_run)) GTEST_SKIP() << "needs a mount namespace";
  setenv("KS_SOCKET", (folder() + "/none/ksd.sock").c_str(), 1);
  unsetenv("XDG_RUNTIME_DIR");
  EXPECT_TRUE(passes_in_child([] {
    constexpr uid_t kLast = 4294967294;  // the longest number that a user can have
    const std::string runtime = "/run/user/" + std::to_string(kLast);
    if (!gives_own_run() || mkdir("/run/user", 0755) != 0) return false;
    if (mkdir(runtime.c_str(), 0700) != 0 || chown(runtime.c_str(), kLast, kLast) != 0) return false;
    return setresuid(kLast, kLast, kLast) == 0 && report() == 0 && is_own(runtime + "/ks/00.ring");
  }));
}

// The folder of a socket without one is the working directory.
TEST_F(Ring, StandsBesideASocketWithoutAFolder) {
  EXPECT_TRUE(passes_in_child([this] {
    if (chdir(folder().c_str()) != 0) return false;
    setenv("KS_SOCKET", "ksd.sock", 1);
    return report() == 0 && is_own(ring(0));
  }));
}

// ---- What its process has of it.

TEST_F(Ring, IsTriedForAgainAfterASecond) {
  EXPECT_TRUE(passes_in_child([this] {
    std::filesystem::remove_all(history());
    make(history());  // where the folder should be
    report();
    if (unlink(history().c_str()) != 0) return false;
    report();
    const bool at_once = size_of(ring(0)) != -1;
    clock_ahead = 2;
    report();
    return !at_once && is_own(ring(0));
  }));
}

TEST_F(Ring, IsNotMappedInAChild) {
  EXPECT_TRUE(passes_in_child([this] {
    const auto is_mapped = [path = ring(0)] {
      std::string maps(1024 * 1024, '\0');
      const int file = open("/proc/self/maps", O_RDONLY | O_CLOEXEC);
      size_t used = 0;
      for (ssize_t size = 1; size > 0; used += static_cast<size_t>(size)) {
        size = read(file, maps.data() + used, maps.size() - used);
        if (size < 0) abort();
      }
      close(file);
      return maps.find(path) != std::string::npos;
    };
    report();
    return is_mapped() && passes_in_child([&] { return !is_mapped(); });
  }));
}

TEST_F(Ring, LeavesNoDescriptorOpenAndErrnoAsItWas) {
  const auto leaves_nothing = [] {
    const size_t before = open_descriptors();
    errno = 77;
    report();
    return errno == 77 && open_descriptors() == before;
  };
  EXPECT_TRUE(passes_in_child(leaves_nothing));
  for (int i = 0; i < 64; i++) make(ring(i), 0640);
  EXPECT_TRUE(passes_in_child(leaves_nothing)) << "no ring is free";
  ASSERT_EQ(chmod(history().c_str(), 0755), 0);
  EXPECT_TRUE(passes_in_child(leaves_nothing)) << "no folder";
}

TEST_F(Ring, TakesARecordOfAnyLength) {
  EXPECT_TRUE(passes_in_child([this] {
    std::string bytes(516, 'b');
    uint64_t slots = 0;
    for (const uint32_t length : {0u, 1u, 104u, 105u, 208u, 209u, 515u, 516u}) {
      if (length > 0) bytes[length - 1] = 'z';
      sdwrap_hist_event(0x730000, length, bytes.data());
      slots += length == 0 ? 1 : (length + 103) / 104;
      const HostRing ring = ring_at(this->ring(0));
      const HostRingSlot &last = ring.slots[slots - 1];
      if (ring.next != slots || last.length != (length == 0 ? 0 : (length - 1) % 104 + 1)) return false;
      if (length > 0 && last.data[(length - 1) % 104] != 'z') return false;
      bytes.assign(516, 'b');
    }
    return sdwrap_hist_event(0x730000, 5, nullptr) == 1 && ring_at(ring(0)).next == slots;
  }));
}

// Whoever was overtaken by a whole lap finds another in its place, or one who came later.
TEST_F(Ring, LeavesOutARecordWhoseSlotIsAnothers) {
  EXPECT_TRUE(passes_in_child([this] {
    report();
    for (const uint64_t sequence : {UINT64_C(1) << 63 | 1, UINT64_C(1026), UINT64_C(3)}) {
      const uint64_t position = ring_at(ring(0)).next;
      const auto at = static_cast<off_t>(offsetof(HostRing, slots) + position * sizeof(HostRingSlot));
      const int file = open(ring(0).c_str(), O_RDWR | O_CLOEXEC);
      if (pwrite(file, &sequence, sizeof sequence, at) != sizeof sequence) return false;
      close(file);
      report();
      const HostRing after = ring_at(ring(0));
      // What has its own place, or an earlier lap's, is no other's.
      const bool others = sequence > position;
      const HostRingSlot &slot = after.slots[position];
      if (slot.sequence != (others ? sequence : position + 1) || slot.length != (others ? 0 : 6)) return false;
      if (after.next != position + 1) return false;
    }
    return true;
  }));
}

// ---- What the system refuses.

TEST_F(Ring, OpensNothingThatAProgramWouldInherit) {
  EXPECT_TRUE(passes_in_child([this] {
    int opened = 0;
    bool all_close = true;
    const LibraryCalls<open64> opens(kLibrary, [&](const char *, int flags) -> std::optional<int> {
      ++opened;
      all_close = all_close && (flags & O_CLOEXEC) != 0;
      return std::nullopt;
    });
    const LibraryCalls<openat64> below(kLibrary, [&](int, const char *, int flags) -> std::optional<int> {
      ++opened;
      all_close = all_close && (flags & O_CLOEXEC) != 0 && (flags & O_NOFOLLOW) != 0;
      return std::nullopt;
    });
    return report() == 0 && is_own(ring(0)) && all_close && opened > 4;
  }));
}

TEST_F(Ring, IsNoneForASecondWhereItCannotBeMapped) {
  EXPECT_TRUE(passes_in_child([this] {
    bool fails = true;
    const LibraryCalls<mmap64> calls(kLibrary,
                                     [&](void *, size_t size, int, int, int, off64_t) -> std::optional<void *> {
                                       if (size != sizeof(HostRing) || !fails) return std::nullopt;
                                       fails = false;
                                       errno = ENOMEM;
                                       return MAP_FAILED;
                                     });
    if (report() != 0 || is_own(ring(0))) return false;
    clock_ahead = 2;
    return report() == 0 && is_own(ring(1));
  }));
}

TEST_F(Ring, IsNoneInAFolderThatCannotBeLookedAt) {
  for (const int number : {1, 2, 3, 4}) {  // the socket's folder, the history's, a ring's file twice
    EXPECT_TRUE(passes_in_child([&] {
      const LibraryCalls<library_fstat> calls(kLibrary, fail_call(number, -1, EIO));
      return report() == 0 && !is_own(ring(0)) && is_own(ring(1)) == (number > 2);
    })) << number;
    std::filesystem::remove_all(history());
    mkdir(history().c_str(), 0700);
  }
}

TEST_F(Ring, TellsNoStartWhereTheSystemDoesNot) {
  const auto no_start = [](const char *path, int) -> std::optional<int> {
    if (std::string(path) != "/proc/self/stat") return std::nullopt;
    errno = ENOENT;
    return -1;
  };
  EXPECT_TRUE(passes_in_child([&] {
    const LibraryCalls<open64> calls(kLibrary, no_start);
    return report() == 0 && is_own(ring(0)) && ring_at(ring(0)).start == 0 && ring_at(ring(0)).program[0] != 0;
  }));
  for (const int number : {1, 2}) {
    EXPECT_TRUE(passes_in_child([&] {
      const LibraryCalls<::read> calls(kLibrary, fail_call(number, ssize_t{-1}, EIO));
      if (report() != 0 || !is_own(ring(number))) return false;
      const HostRing ring = ring_at(this->ring(number));
      return (ring.start == 0) == (number == 1) && (ring.program[0] == 0) == (number == 2);
    })) << number;
  }
}

// The library asks for the thread's number in the midst of its first record.
TEST_F(Ring, MarksASlotForAsLongAsItIsWritten) {
  EXPECT_TRUE(passes_in_child([this] {
    uint64_t marked = 0;
    const LibraryCalls<gettid> calls(kLibrary, [&]() -> std::optional<pid_t> {
      marked = ring_at(ring(0)).slots[0].sequence;
      return std::nullopt;
    });
    return report() == 0 && marked == (UINT64_C(1) << 63 | 1) && ring_at(ring(0)).slots[0].sequence == 1;
  }));
}

// A ring that was deleted is put back. While that fails, the process goes on to look for the one it had.
TEST_F(Ring, IsPutBackOnceThereIsRoom) {
  EXPECT_TRUE(passes_in_child([this] {
    const auto pass_by = [] { sdwrap_hist_mts_event(4, nullptr, 0, 0); };
    const auto full = [](int, const void *, size_t size, off64_t) -> std::optional<ssize_t> {
      if (size != sizeof(HostRing)) return std::nullopt;
      errno = ENOSPC;
      return -1;
    };
    pass_by();
    if (!is_own(ring(0)) || unlink(ring(0).c_str()) != 0) return false;
    {
      const LibraryCalls<pwrite64> calls(kLibrary, full);
      clock_ahead = 2;
      pass_by();
      if (size_of(ring(1)) != -1) return false;
    }
    make(ring(1), 0640);  // somebody else's meanwhile
    clock_ahead = 4;
    pass_by();
    return is_own(ring(2)) && ring_at(ring(2)).next == 3;
  }));
}

}  // namespace
