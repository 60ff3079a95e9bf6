// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// The trace service: gates that change while a program runs, a ring that can be read at any time, debug lines. A
// process keeps its page and its ring, so each test uses the library in a child of its own.
#include "sdwrap.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/mman.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <optional>
#include <string>
#include <thread>

#include "checks.h"
#include "fake_service/fake_service.h"
#include "library_calls.h"
#include "start_time.h"

namespace {

constexpr uint32_t kEvent = 0x730000;

struct Record {
  uint16_t kind;
  uint32_t thread;
  uint64_t time_ns;
  Octets data;

  std::string text() const { return {data.begin() + 4, data.end() - 1}; }
};

// Reads a ring as host_wire.h says, from the file: the writer's memory isn't touched.
class RingFile {
 public:
  explicit RingFile(const std::string &path) : ring_(1) {
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    valid_ = file >= 0 && read(file, ring_.data(), sizeof(HostRing)) == sizeof(HostRing);
    if (file >= 0) close(file);
  }

  bool valid() const { return valid_ && head().magic == 0x3172736b && head().version == 1; }
  const HostRing &head() const { return ring_[0]; }

  std::vector<Record> records() const {
    std::vector<Record> found;
    const uint64_t next = head().next;
    for (uint64_t at = next > 1024 ? next - 1024 : 0; at < next; at++) {
      if (const auto record = record_at(at)) found.push_back(*record);
    }
    return found;
  }

 private:
  const HostRingSlot *complete(uint64_t position) const {
    const HostRingSlot &slot = head().slots[position % 1024];
    return slot.sequence == position + 1 ? &slot : nullptr;
  }

  std::optional<Record> record_at(uint64_t position) const {
    const HostRingSlot *slot = complete(position);
    if (slot == nullptr || slot->kind == 3) return std::nullopt;
    Record record = {.kind = slot->kind, .thread = slot->thread, .time_ns = slot->time_ns, .data = {}};
    size_t left = slot->length;
    for (;;) {
      const size_t here = std::min<size_t>(left, 104);
      record.data.insert(record.data.end(), slot->data, slot->data + here);
      left -= here;
      if (left == 0) return record;
      slot = complete(++position);
      if (slot == nullptr || slot->kind != 3 || slot->length != left) return std::nullopt;
    }
  }

  std::vector<HostRing> ring_;
  bool valid_ = false;
};

int report(const std::string &text, uint32_t subtype = 100) {
  KsHistRecord record = {};
  record.subtype = subtype;
  strncpy(record.text, text.c_str(), sizeof record.text - 1);
  return sdwrap_hist_event(kEvent, static_cast<uint32_t>(strlen(record.text) + 5), &record);
}

class Sdwrap : public testing::Test {
 protected:
  Sdwrap() {
    setenv("KS_SOCKET", socket_path().c_str(), 1);
    setenv("XDG_RUNTIME_DIR", (folder() + "/none").c_str(), 1);
  }

  const std::string &folder() const { return folder_.path(); }
  std::string socket_path() const { return folder() + "/ksd.sock"; }
  std::string history() const { return folder() + "/history"; }

  std::vector<std::string> rings() const { return rings_in(history()); }
  static std::vector<std::string> rings_in(const std::string &path) {
    std::vector<std::string> found;
    std::error_code none;
    for (const auto &entry : std::filesystem::directory_iterator(path, none)) {
      if (entry.path().extension() == ".ring") found.push_back(entry.path());
    }
    std::sort(found.begin(), found.end());
    return found;
  }
  // The newest, where the process has had several.
  std::string ring_of(pid_t pid) const {
    for (const std::string &path : rings()) {
      const RingFile file(path);
      if (file.valid() && file.head().pid == static_cast<uint32_t>(pid)) return path;
    }
    return "";
  }

  void write_page(const HostStatePage &page) const {
    const int file = open((socket_path() + ".state").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (pwrite(file, &page, sizeof page, 0) != sizeof page) abort();
    close(file);
  }
  static HostStatePage page_with(std::initializer_list<uint32_t> recorded, std::initializer_list<uint32_t> debugged) {
    HostStatePage page = {};
    page.magic = 0x3173736b;
    page.version = 1;
    for (const uint32_t n : recorded) page.history_open[n / 32] |= UINT32_C(1) << n % 32;
    for (const uint32_t n : debugged) page.debug_open[n / 32] |= UINT32_C(1) << n % 32;
    return page;
  }

 private:
  TemporaryFolder folder_;
};

TEST_F(Sdwrap, RecordsSubtype100AloneWithoutAStatePage) {
  EXPECT_TRUE(passes_in_child([] {
    return recorded(100) && !recorded(103) && !recorded(0) && !recorded(356) && !debugged(100) && !debugged(103) &&
           !recorded(UINT32_MAX) && !debugged(UINT32_MAX);
  }));
}

TEST_F(Sdwrap, TakesItsGatesFromTheStatePageFromTheFirstCall) {
  write_page(page_with({103, 255}, {0, 100}));
  EXPECT_TRUE(passes_in_child([] {
    return recorded(103) && recorded(255) && !recorded(100) && !recorded(359) && debugged(0) && debugged(100) &&
           !debugged(103) && !debugged(256) && !debugged(356);
  }));
}

TEST_F(Sdwrap, SeesGatesChangeWhileItRuns) {
  write_page(page_with({100}, {}));
  EXPECT_TRUE(passes_in_child([this] {
    const bool before = recorded(100) && !recorded(103) && !debugged(103);
    write_page(page_with({103}, {103}));
    return before && !recorded(100) && recorded(103) && debugged(103);
  }));
}

TEST_F(Sdwrap, FindsAPageThatComesLaterWithTheNextMessage) {
  EXPECT_TRUE(passes_in_child([this] {
    const bool before = !recorded(103) && !debugged(103);
    write_page(page_with({103}, {103}));
    const bool not_yet = !recorded(103);
    sdwrap_hist_mts_event(4, nullptr, 0, 0);
    return before && not_yet && recorded(103) && debugged(103);
  }));
}

TEST_F(Sdwrap, LooksForAPageOnceASecondAtMost) {
  const auto now = [] {
    timespec time;
    clock_gettime(CLOCK_REALTIME_COARSE, &time);
    return int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
  };
  constexpr int kTooSlow = 2;  // the second was over before it could be seen
  int result;
  do {
    std::filesystem::remove(socket_path() + ".state");
    const pid_t child = fork();
    if (child == 0) {
      const int64_t start = now();
      recorded(100);
      sdwrap_hist_mts_event(4, nullptr, 0, 0);
      write_page(page_with({103}, {}));
      sdwrap_hist_mts_event(4, nullptr, 0, 0);
      const bool found = recorded(103);
      ks_test::leave(now() - start >= 1'000'000'000 ? kTooSlow : found ? 1 : 0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    result = WEXITSTATUS(status);
  } while (result == kTooSlow);
  EXPECT_EQ(result, 0);
}

TEST_F(Sdwrap, WritesAReportToTheRing) {
  EXPECT_TRUE(passes_in_child([this] {
    timespec before;
    clock_gettime(CLOCK_REALTIME, &before);
    if (report("ks(1): No URI exists. \n") != 0) return false;
    const RingFile file(ring_of(getpid()));
    const auto records = file.records();
    struct stat status;
    return file.valid() && records.size() == 1 && records[0].kind == 1 && records[0].data[0] == 100 &&
           records[0].text() == "ks(1): No URI exists. \n" && records[0].thread == static_cast<uint32_t>(gettid()) &&
           records[0].time_ns >= static_cast<uint64_t>(before.tv_sec) * 1000000000 &&
           file.head().pid == static_cast<uint32_t>(getpid()) &&
           std::string(file.head().program).starts_with("host_sdwrap") &&
           stat(ring_of(getpid()).c_str(), &status) == 0 && (status.st_mode & 07777) == 0600;
  }));
}

TEST_F(Sdwrap, MakesNoRingBeforeTheFirstRecord) {
  EXPECT_TRUE(passes_in_child([this] { return !recorded(103) && rings().empty(); }));
}

TEST_F(Sdwrap, TellsPidAndStartTimeInTheRing) {
  EXPECT_TRUE(passes_in_child([this] {
    report("x");
    const std::vector<std::string> files = rings();
    if (files.size() != 1 || files[0] != history() + "/00.ring") return false;
    const RingFile file(files[0]);
    return file.head().pid == static_cast<uint32_t>(getpid()) && std::to_string(file.head().start) == start_time();
  }));
}

TEST_F(Sdwrap, KeepsLongReportsWhole) {
  EXPECT_TRUE(passes_in_child([this] {
    for (const size_t length : {0UL, 99UL, 100UL, 203UL, 204UL, 511UL}) report(std::string(length, 'r'));
    const auto records = RingFile(ring_of(getpid())).records();
    return records.size() == 6 && records[0].text().empty() && records[1].text().size() == 99 &&
           records[2].text().size() == 100 && records[3].text().size() == 203 && records[4].text().size() == 204 &&
           records[5].text() == std::string(511, 'r');
  }));
}

TEST_F(Sdwrap, CutsWhatNoReportCanBe) {
  EXPECT_TRUE(passes_in_child([this] {
    const std::string vast(100'000, 'v');
    sdwrap_hist_event(kEvent, 100'000, vast.data());
    const auto records = RingFile(ring_of(getpid())).records();
    return records.size() == 1 && records[0].data.size() == 516;
  }));
}

TEST_F(Sdwrap, RecordsMessagesUngated) {
  write_page(page_with({}, {}));
  EXPECT_TRUE(passes_in_child([this] {
    sdwrap_hist_mts_event(4, nullptr, 0, 0);
    sdwrap_hist_mts_event(3, nullptr, 0xffffffff, 0);
    const auto records = RingFile(ring_of(getpid())).records();
    return records.size() == 2 && records[0].kind == 2 &&
           records[0].data == Octets{4, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0} &&
           records[1].data == Octets{3, 0, 0, 0, 0xff, 0xff, 0xff, 0xff, 0, 0, 0, 0, 0, 0, 0, 0};
  }));
}

TEST_F(Sdwrap, TellsWhichMessageWasSent) {
  write_page(page_with({}, {}));
  EXPECT_TRUE(passes_in_child([this] {
    // As libmts fills it in: kind, token, size, opcode.
    KsMtsMessage sent = {{0x31, 0x6d, 0x74, 0x73, 0, 0x10, 0, 0, 0, 0, 0, 0, 0x05, 0x04, 0x01, 0}};
    sdwrap_hist_mts_event(4, &sent, 0, 0);
    sdwrap_hist_mts_event(4, &sent, 0xffffffff, 0);
    sent.bytes[0] = 0x32;  // of another message service
    sdwrap_hist_mts_event(4, &sent, 0, 0);
    const auto records = RingFile(ring_of(getpid())).records();
    return records.size() == 3 && records[0].data == Octets{4, 0, 0, 0, 0, 0, 0, 0, 5, 4, 1, 0, 0, 0, 0, 0} &&
           records[1].data == Octets{4, 0, 0, 0, 0xff, 0xff, 0xff, 0xff, 0, 0, 0, 0, 0, 0, 0, 0} &&
           records[2].data == Octets{4, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
  }));
}

TEST_F(Sdwrap, TellsTheExactTimeOfAMessageWhereAllReportsAreRecorded) {
  write_page(page_with({103}, {}));
  EXPECT_TRUE(passes_in_child([this] {
    if (!recorded(103)) return false;  // finds the page
    timespec before;
    clock_gettime(CLOCK_REALTIME, &before);
    sdwrap_hist_mts_event(4, nullptr, 0, 0);
    const auto records = RingFile(ring_of(getpid())).records();
    return records.size() == 1 && records[0].data == Octets{4, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0} &&
           records[0].time_ns >=
               static_cast<uint64_t>(before.tv_sec) * 1000000000 + static_cast<uint64_t>(before.tv_nsec);
  }));
}

TEST_F(Sdwrap, KeepsTheNewest) {
  EXPECT_TRUE(passes_in_child([this] {
    for (int i = 0; i < 3000; i++) report(std::to_string(i));
    const auto records = RingFile(ring_of(getpid())).records();
    return records.size() == 1024 && records.front().text() == "1976" && records.back().text() == "2999";
  }));
}

// Each thread's text tells its length and is of one letter: a record mixed of two would show.
TEST_F(Sdwrap, IsReadableWhileThreadsWrite) {
  EXPECT_TRUE(passes_in_child([this] {
    report("first");
    std::atomic<int> running = 4;
    std::vector<std::thread> threads;
    for (int n = 0; n < 4; n++) {
      threads.emplace_back([n, &running] {
        for (size_t i = 0; i < 5000; i++) report(std::string(i * 7 % 500 + 1, static_cast<char>('a' + n)));
        running--;
      });
    }
    bool right = true;
    const std::string path = ring_of(getpid());
    do {
      for (const Record &record : RingFile(path).records()) {
        const std::string text = record.text();
        right = right && (text == "first" || text.find_first_not_of(text[0]) == std::string::npos);
      }
    } while (running > 0);
    for (std::thread &thread : threads) thread.join();
    return right;
  }));
}

TEST_F(Sdwrap, SurvivesAKill) {
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const pid_t child = fork();
  if (child == 0) {
    report("the last words");
    const char byte = 1;
    if (write(ready[1], &byte, 1) != 1) _exit(1);
    for (;;) report("more");
  }
  char byte;
  ASSERT_EQ(read(ready[0], &byte, 1), 1);
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  const RingFile file(ring_of(child));

  EXPECT_TRUE(file.valid());
  const auto records = file.records();
  EXPECT_GE(records.size() + 1, std::min<uint64_t>(file.head().next, 1024)) << "all but the one it was killed in";
  close(ready[0]);
  close(ready[1]);
}

TEST_F(Sdwrap, GivesAChildARingOfItsOwn) {
  EXPECT_TRUE(passes_in_child([this] {
    const pid_t parent = getpid();
    report("parent");
    const bool child_right = passes_in_child([this, parent] {
      report("child");
      const auto own = RingFile(ring_of(getpid())).records();
      return getpid() != parent && own.size() == 1 && own[0].text() == "child" &&
             own[0].thread == static_cast<uint32_t>(getpid());
    });
    return child_right && RingFile(ring_of(parent)).records().size() == 1;
  }));
}

TEST_F(Sdwrap, WritesThroughNoLink) {
  ASSERT_EQ(mkdir(history().c_str(), 0700), 0);
  EXPECT_TRUE(passes_in_child([this] {
    const std::string target = folder() + "/precious";
    close(open(target.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
    if (symlink(target.c_str(), (history() + "/00.ring").c_str()) != 0) return false;
    if (link(target.c_str(), (history() + "/01.ring").c_str()) != 0) return false;
    report("x");
    struct stat status;
    return stat(target.c_str(), &status) == 0 && status.st_size == 0 && ring_of(getpid()) == history() + "/02.ring";
  }));
}

TEST_F(Sdwrap, KeepsTheRingInAFolderOfTheUsersAlone) {
  EXPECT_TRUE(passes_in_child([this] {
    umask(0);
    report("x");
    struct stat status;
    return stat(history().c_str(), &status) == 0 && (status.st_mode & 07777) == 0700;
  }));
}

TEST_F(Sdwrap, TakesNoFolderThatOthersMayUseAndLeavesItsMode) {
  for (const mode_t mode : {01777U, 0770U, 0755U, 0701U}) {
    mkdir(history().c_str(), 0700);
    ASSERT_EQ(chmod(history().c_str(), mode), 0);
    EXPECT_TRUE(passes_in_child([this, mode] {
      struct stat status;
      return report("x") == 0 && rings().empty() && stat(history().c_str(), &status) == 0 &&
             (status.st_mode & 07777) == mode;
    })) << std::oct
        << mode;
  }
}

TEST_F(Sdwrap, TakesNoFolderThroughALink) {
  const std::string elsewhere = folder() + "/elsewhere";
  ASSERT_EQ(mkdir(elsewhere.c_str(), 0700), 0);
  ASSERT_EQ(symlink(elsewhere.c_str(), history().c_str()), 0);
  EXPECT_TRUE(passes_in_child([] { return report("x") == 0; }));
  EXPECT_TRUE(std::filesystem::is_empty(elsewhere));
}

TEST_F(Sdwrap, TakesNoFolderOfAnother) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  ASSERT_EQ(mkdir(history().c_str(), 0700), 0);
  ASSERT_EQ(chown(history().c_str(), 12345, 12345), 0);
  EXPECT_TRUE(passes_in_child([] { return report("x") == 0; }));
  EXPECT_TRUE(rings().empty());
}

TEST_F(Sdwrap, KeepsTheRingInTheRuntimeFolderWhereTheSocketsIsAnothers) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  const std::string runtime = folder() + "/of-user";
  ASSERT_EQ(mkdir(runtime.c_str(), 0700), 0);
  ASSERT_EQ(chown(runtime.c_str(), 12345, 12345), 0);
  ASSERT_EQ(chmod(folder().c_str(), 0755), 0);
  setenv("XDG_RUNTIME_DIR", runtime.c_str(), 1);
  EXPECT_TRUE(passes_in_child([&] {
    return setresuid(12345, 12345, 12345) == 0 && report("x") == 0 && rings_in(runtime + "/ks").size() == 1;
  }));
  EXPECT_FALSE(std::filesystem::exists(history()));
}

TEST_F(Sdwrap, NeverFailsItsCallerWithoutAFolder) {
  setenv("KS_SOCKET", (folder() + "/none/ksd.sock").c_str(), 1);
  EXPECT_TRUE(passes_in_child([] {
    errno = 77;
    const bool quiet = report("nowhere") == 0 && sdwrap_hist_mts_event(4, nullptr, 0, 0) == 0;
    return quiet && errno == 77 && recorded(100) && errno == 77;
  }));
}

TEST_F(Sdwrap, MakesTheRingAgainWhenItsFolderWasMadeAnew) {
  EXPECT_TRUE(passes_in_child([this] {
    report("before");
    std::filesystem::remove_all(history());
    sdwrap_hist_mts_event(4, nullptr, 0, 0);
    report("after");
    const auto records = RingFile(ring_of(getpid())).records();
    return records.size() == 3 && records[0].text() == "before" && records[2].text() == "after";
  }));
}

TEST_F(Sdwrap, KeepsTheNewestSixtyFourRingsOfAUser) {
  for (int i = 0; i < 70; i++) {
    ASSERT_TRUE(passes_in_child([i] { return report(std::to_string(i)) == 0; }));
  }
  const std::vector<std::string> files = rings();
  ASSERT_EQ(files.size(), 64U);
  for (size_t i = 0; i < files.size(); i++) {
    const auto records = RingFile(files[i]).records();
    ASSERT_EQ(records.size(), 1U) << files[i];
    EXPECT_EQ(records[0].text(), std::to_string(i < 6 ? 64 + i : i));
  }
}

TEST_F(Sdwrap, TakesNoRingOfAProcessThatLives) {
  EXPECT_TRUE(passes_in_child([this] {
    report("I live");
    for (int i = 0; i < 70; i++) {
      if (!passes_in_child([] { return report("short life") == 0; })) return false;
    }
    const auto records = RingFile(history() + "/00.ring").records();
    return records.size() == 1 && records[0].text() == "I live" && rings().size() == 64;
  }));
}

TEST_F(Sdwrap, GoesOnWithoutARingWhenAllBelongToTheLiving) {
  ASSERT_EQ(mkdir(history().c_str(), 0700), 0);
  for (int i = 0; i < 64; i++) {
    const std::string name = (i < 10 ? "/0" : "/") + std::to_string(i) + ".ring";
    const int file = open((history() + name).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_EQ(flock(file, LOCK_EX), 0);  // held by this process until it ends
  }
  EXPECT_TRUE(passes_in_child([this] { return report("x") == 0 && rings().size() == 64; }));
}

TEST_F(Sdwrap, LeavesOtherFilesAlone) {
  ASSERT_EQ(mkdir(history().c_str(), 0700), 0);
  for (const char *name : {"notes", "1-2.ring.save", "x-1.ring"}) {
    close(open((history() + "/" + name).c_str(), O_CREAT | O_WRONLY, 0600));
  }
  for (int i = 0; i < 70; i++) {
    ASSERT_TRUE(passes_in_child([] { return report("x") == 0; }));
  }
  EXPECT_EQ(rings().size(), 64U + 1);
  for (const char *name : {"notes", "1-2.ring.save", "x-1.ring"}) {
    EXPECT_EQ(std::filesystem::file_size(history() + "/" + name), 0U);
  }
}

// ---- Debug lines.

class DebugLines : public Sdwrap {
 protected:
  // Runs `body` with standard error in a packet pipe, where each write is one packet, and returns the packets.
  static std::vector<std::string> packets(const std::function<bool()> &body) {
    int ends[2];
    if (pipe2(ends, O_DIRECT | O_NONBLOCK) != 0) abort();
    EXPECT_TRUE(passes_in_child([&] {
      dup2(ends[1], STDERR_FILENO);
      return body();
    }));
    close(ends[1]);
    std::vector<std::string> found;
    std::string packet(4096, '\0');
    ssize_t size;
    while ((size = read(ends[0], packet.data(), packet.size())) > 0) {
      found.push_back(packet.substr(0, static_cast<size_t>(size)));
    }
    close(ends[0]);
    return found;
  }

  static std::string after_prefix(const std::string &line) { return line.substr(line.find("]: ") + 3); }
};

TEST_F(DebugLines, AreOneWriteEachWithTheModulesName) {
  const auto lines = packets([] {
    buginf(1, sdwrap_dbg_modname, 0, "%s(%d):Return.\n", "ks_sdb_init", 42);
    buginf(1, sdwrap_dbg_modname, 0, "no end of line");
    return true;
  });
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_TRUE(lines[0].starts_with("ks[")) << lines[0];
  EXPECT_EQ(after_prefix(lines[0]), "ks_sdb_init(42):Return.\n");
  EXPECT_EQ(after_prefix(lines[1]), "no end of line\n");
}

TEST_F(DebugLines, AreNotCut) {
  // Among these the one whose line, with what stands in front, just fits into the usual buffer or just doesn't.
  std::vector<size_t> lengths = {3000};
  for (size_t length = 1000; length < 1030; length++) lengths.push_back(length);
  for (const size_t length : lengths) {
    const std::string text(length, 't');
    const auto lines = packets([&] { return buginf(1, sdwrap_dbg_modname, 0, "%s", text.c_str()) == 0; });
    ASSERT_EQ(lines.size(), 1U) << length;
    EXPECT_EQ(after_prefix(lines[0]), text + "\n");
  }
}

TEST_F(DebugLines, AreCutOnlyWhereThereIsNoMemory) {
  const auto lines = packets([] {
    const ks_test::LibraryCalls<malloc> calls("libsdwrap.so", ks_test::fail_call<void *>(1, nullptr, ENOMEM));
    const std::string text(3000, 't');
    buginf(1, sdwrap_dbg_modname, 0, "%s", text.c_str());
    return true;
  });
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_EQ(lines[0].size(), 1024U);
  EXPECT_TRUE(lines[0].ends_with("ttt\n"));
}

TEST_F(DebugLines, RaiseNoSignalWhenNobodyReads) {
  EXPECT_TRUE(passes_in_child([] {
    int ends[2];
    if (pipe(ends) != 0) return false;
    dup2(ends[1], STDERR_FILENO);
    close(ends[0]);
    close(ends[1]);
    buginf(1, sdwrap_dbg_modname, 0, "to nobody\n");
    sigset_t blocked;
    pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    return sigismember(&blocked, SIGPIPE) == 0;
  }));
}

TEST_F(DebugLines, AreNotPrintedUnlessAsked) {
  EXPECT_TRUE(packets([] {
                recorded(103);
                debugged(103);
                report("x");
                return sdwrap_hist_mts_event(4, nullptr, 0, 0) == 0;
              }).empty());
}

}  // namespace
