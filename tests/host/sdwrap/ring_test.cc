// Whose file the ring may be, and which rings of the dead go.
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <cerrno>
#include <string>

#include "fake_service/fake_service.h"
#include "sdwrap.h"
#include "sdwrap_hooks.h"
#include "start_time.h"

namespace {

constexpr uid_t kSomebody = 12345;

#define NEEDS_ROOT() \
  if (geteuid() != 0) GTEST_SKIP() << "needs root"

// Each test uses the library in a child of its own: a process keeps its ring.
class Ring : public testing::Test {
 protected:
  Ring() {
    setenv("KS_SOCKET", (folder_.path() + "/ksd.sock").c_str(), 1);
    mkdir(history().c_str(), 01777);
  }

  std::string history() const { return folder_.path() + "/history"; }

  // The path that the calling process's ring has.
  std::string own_path() const { return history() + "/" + std::to_string(getpid()) + "-" + start_time() + ".ring"; }

  static int report() {
    const uint8_t record[] = {100, 0, 0, 0, 'x', 0};
    return sdwrap_hist_event(0x730000, sizeof record, record);
  }

  static HostRing ring_at(const std::string &path) {
    HostRing ring = {};
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (read(file, &ring, sizeof ring) != sizeof ring) ring = {};
    close(file);
    return ring;
  }

  // Leaves a ring as if this process had made it before.
  void lay_down(const HostRing &ring) const {
    make(own_path());
    const int file = open(own_path().c_str(), O_WRONLY | O_CLOEXEC);
    if (write(file, &ring, sizeof ring) != sizeof ring) abort();
    close(file);
  }

  static off_t size_of(const std::string &path) {
    struct stat status;
    return stat(path.c_str(), &status) == 0 ? status.st_size : -1;
  }

  // Lays a file with that content under the ring's name, and tells whether a report took it for the ring.
  bool takes(const std::function<void(const std::string &path)> &prepare) const {
    return passes_in_child([&] {
      prepare(own_path());
      report();
      return size_of(own_path()) == sizeof(HostRing);
    });
  }

  static void make(const std::string &path, mode_t mode = 0600) {
    close(open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
    chmod(path.c_str(), mode);
  }

  // A ring that nobody has any more, last written so many seconds after 1970.
  std::string make_dead(pid_t pid, int n, time_t seconds, long nanoseconds = 0) const {
    std::string path = history() + "/" + std::to_string(pid) + "-" + std::to_string(n) + ".ring";
    make(path);
    const timespec times[] = {{seconds, nanoseconds}, {seconds, nanoseconds}};
    utimensat(AT_FDCWD, path.c_str(), times, 0);
    return path;
  }

  // The number of a process that has ended.
  static pid_t dead_pid() {
    const pid_t child = fork();
    if (child == 0) _exit(0);
    waitpid(child, nullptr, 0);
    return child;
  }

 private:
  TemporaryFolder folder_;
};

TEST_F(Ring, TakesAFileOfItsOwnThatNobodyElseMayUse) {
  EXPECT_TRUE(takes([](const std::string &path) { make(path); }));
}

TEST_F(Ring, LeavesAFileAloneThatOthersMayReadOrWrite) {
  for (const mode_t mode : {0640u, 0620u, 0604u, 0602u, 0610u, 0601u}) {
    EXPECT_FALSE(takes([mode](const std::string &path) { make(path, mode); })) << std::oct << mode;
  }
}

TEST_F(Ring, LeavesAFileAloneThatHasAnotherName) {
  EXPECT_FALSE(takes([](const std::string &path) {
    make(path);
    if (link(path.c_str(), (path + ".too").c_str()) != 0) abort();
  }));
}

TEST_F(Ring, LeavesAFileOfSomebodyElseAlone) {
  NEEDS_ROOT();
  EXPECT_FALSE(takes([](const std::string &path) {
    make(path);
    if (chown(path.c_str(), kSomebody, kSomebody) != 0) abort();
  }));
}

TEST_F(Ring, WaitsForNobodyAtAPipeAndLeavesItAlone) {
  EXPECT_TRUE(passes_in_child([this] {
    if (mkfifo(own_path().c_str(), 0600) != 0) return false;
    report();
    struct stat status;
    return stat(own_path().c_str(), &status) == 0 && S_ISFIFO(status.st_mode);
  }));
}

TEST_F(Ring, KeepsWhatAProgramBeforeExecRecorded) {
  EXPECT_TRUE(passes_in_child([this] {
    HostRing ring = {};
    ring.magic = 0x3172736b;
    ring.version = 1;
    ring.slot_count = 1024;
    ring.next = 3;
    ring.slots[0].sequence = 1;
    ring.slots[1].sequence = 2 | UINT64_C(1) << 63;  // it was ended while it wrote this one
    ring.slots[2].sequence = 3;
    lay_down(ring);
    report();
    const HostRing after = ring_at(own_path());
    return after.next == 4 && after.slots[0].sequence == 1 && after.slots[1].sequence == 0 &&
           after.slots[2].sequence == 3 && after.slots[3].sequence == 4;
  }));
}

TEST_F(Ring, BeginsAnewInAFileOfAnotherForm) {
  for (const size_t field : {offsetof(HostRing, magic), offsetof(HostRing, version), offsetof(HostRing, slot_count)}) {
    EXPECT_TRUE(passes_in_child([&] {
      HostRing ring = {};
      ring.magic = 0x3172736b;
      ring.version = 1;
      ring.slot_count = 1024;
      ring.next = 700;
      reinterpret_cast<uint8_t *>(&ring)[field] ^= 8;
      lay_down(ring);
      report();
      const HostRing after = ring_at(own_path());
      return after.next == 1 && after.magic == 0x3172736b && after.version == 1 && after.slot_count == 1024;
    })) << field;
  }
}

TEST_F(Ring, IsRefusedWhereThereIsNoRoomForAllOfIt) {
  EXPECT_TRUE(passes_in_child([this] {
    struct sigaction ignore = {};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGXFSZ, &ignore, nullptr);
    const rlimit limit = {.rlim_cur = sizeof(HostRing) - 1, .rlim_max = sizeof(HostRing) - 1};
    if (setrlimit(RLIMIT_FSIZE, &limit) != 0) return false;
    return report() == 0 && size_of(own_path()) == -1;
  }));
}

TEST_F(Ring, RemovesTheOldestOfTheDead) {
  const pid_t dead = dead_pid();
  std::vector<std::string> paths;
  for (int i = 0; i < 19; i++) paths.push_back(make_dead(dead, i, 1000 + (i * 7) % 19));
  ASSERT_TRUE(passes_in_child([] { return report() == 0; }));
  for (int i = 0; i < 19; i++) EXPECT_EQ(size_of(paths[static_cast<size_t>(i)]) == 0, (i * 7) % 19 >= 3) << i;
}

TEST_F(Ring, TellsTheDeadApartByTheNanosecond) {
  const pid_t dead = dead_pid();
  std::vector<std::string> paths;
  for (int i = 0; i < 17; i++) paths.push_back(make_dead(dead, i, 1000, (i * 5) % 17));
  ASSERT_TRUE(passes_in_child([] { return report() == 0; }));
  for (int i = 0; i < 17; i++) EXPECT_EQ(size_of(paths[static_cast<size_t>(i)]) == 0, (i * 5) % 17 != 0) << i;
}

TEST_F(Ring, KeepsThoseOfTheLivingAndOfOthers) {
  const pid_t dead = dead_pid();
  const std::string living = make_dead(getpid(), 1, 1);
  const std::string odd[] = {history() + "/0-1.ring", history() + "/4294967295-1.ring",
                             history() + "/" + std::to_string(dead) + "-1.rings"};
  for (const std::string &path : odd) make(path);
  std::string others;
  if (geteuid() == 0) {
    others = make_dead(dead, 99, 1);
    ASSERT_EQ(chown(others.c_str(), kSomebody, kSomebody), 0);
  }
  std::vector<std::string> paths;
  for (int i = 0; i < 20; i++) paths.push_back(make_dead(dead, 100 + i, 1000 + i));
  // In a folder's own order, odd names come before all others or behind them.
  for (const char *name : {"/0-2.ring", "/4294967295-2.ring"}) make(history() + name);
  ASSERT_TRUE(passes_in_child([] { return report() == 0; }));
  for (int i = 0; i < 20; i++) EXPECT_EQ(size_of(paths[static_cast<size_t>(i)]) == 0, i >= 4) << i;
  EXPECT_EQ(size_of(living), 0);
  for (const std::string &path : odd) EXPECT_EQ(size_of(path), 0) << path;
  if (!others.empty()) {
    EXPECT_EQ(size_of(others), 0);
  }
}

TEST_F(Ring, IsTriedForAgainAfterASecond) {
  EXPECT_TRUE(passes_in_child([this] {
    rmdir(history().c_str());
    report();
    mkdir(history().c_str(), 01777);
    report();
    const bool at_once = size_of(own_path()) != -1;
    clock_ahead = 2;
    report();
    return !at_once && size_of(own_path()) == sizeof(HostRing) && ring_at(own_path()).next == 1;
  }));
}

// A name has up to 63 bytes: what is longer is none that this library gave.
TEST_F(Ring, RemovesTheDeadOfTheLongestNames) {
  const std::string dead = history() + "/" + std::to_string(dead_pid()) + "-";
  const size_t other_bytes = dead.size() - history().size() - 1 + strlen("1.ring");
  const std::string longest = dead + std::string(63 - other_bytes, '0') + "1.ring";
  const std::string longer = dead + std::string(64 - other_bytes, '0') + "1.ring";
  make(longest);
  make(longer);
  const timespec long_ago[] = {{1, 0}, {1, 0}};
  utimensat(AT_FDCWD, longest.c_str(), long_ago, 0);
  utimensat(AT_FDCWD, longer.c_str(), long_ago, 0);
  const pid_t another = dead_pid();
  for (int i = 0; i < 16; i++) make_dead(another, i, 1000 + i);
  ASSERT_TRUE(passes_in_child([] { return report() == 0; }));
  EXPECT_EQ(size_of(longest), -1);
  EXPECT_EQ(size_of(longer), 0);
}

TEST_F(Ring, IsNotMappedInAChild) {
  EXPECT_TRUE(passes_in_child([this] {
    const auto is_mapped = [path = own_path()] {
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
  EXPECT_TRUE(passes_in_child([] {
    const size_t before = open_descriptors();
    errno = 77;
    report();
    return errno == 77 && open_descriptors() == before;
  }));
}

// In a folder that can't be found the ring has no place: the folder of the socket is the working directory.
TEST_F(Ring, StandsBesideASocketWithoutAFolder) {
  EXPECT_TRUE(passes_in_child([this] {
    if (chdir((history() + "/..").c_str()) != 0) return false;
    setenv("KS_SOCKET", "ksd.sock", 1);
    report();
    return size_of(own_path()) == sizeof(HostRing);
  }));
}

TEST_F(Ring, TakesARecordOfAnyLength) {
  EXPECT_TRUE(passes_in_child([this] {
    const std::string bytes(516, 'b');
    uint64_t slots = 0;
    for (const uint32_t length : {0u, 1u, 104u, 105u, 208u, 209u, 515u, 516u}) {
      sdwrap_hist_event(0x730000, length, bytes.data());
      slots += length == 0 ? 1 : (length + 103) / 104;
      if (ring_at(own_path()).next != slots) return false;
    }
    return sdwrap_hist_event(0x730000, 5, nullptr) == 1 && ring_at(own_path()).next == slots;
  }));
}

}  // namespace
