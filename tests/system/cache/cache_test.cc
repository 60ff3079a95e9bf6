// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// The cache between processes: the library over the real shared database. The service is only there to say where the
// cache is; no test here sends it a request.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <functional>

#include "ks_api.h"
#include "service/library_suite.h"

// The library's pauses between two attempts to open the cache come here.
static std::function<void()> at_pause = [] {};
static int pauses;

extern "C" int usleep(useconds_t) {
  ++pauses;
  at_pause();
  return 0;
}

namespace {

using Bytes = std::vector<uint8_t>;

Bytes operator+(Bytes left, const Bytes &right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

const Bytes kAid = {'a', 'i', 'd'};
const Bytes kWire = {0x31, 0, 0, 7, 'a', 'i', 'd'};
const Bytes kMeta = {0, 2, 0, 1, 0xaa, 0, 9, 0, 0};

pid_t start_child(const std::function<bool()> &body) {
  fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) _exit(body() ? 0 : 1);
  return child;
}

bool succeeds(pid_t child) {
  int status = 0;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// Runs a body in a process of its own, which starts the library for itself.
bool in_another_process(const std::function<bool()> &body) {
  return succeeds(start_child([&] { return ks_init(0, 2, 0) == KS_SUCCESS && ks_cache_present == 1 && body(); }));
}

class Cache : public ks_test::LibrarySuite {
 protected:
  void TearDown() override { EXPECT_EQ(ks_cache_purge_all(), KS_SUCCESS); }

  static uint32_t size(const Bytes &bytes) { return static_cast<uint32_t>(bytes.size()); }
  static KsResult write(const Bytes &meta, const Bytes &wire = kWire) {
    return ks_cache_pac_write(wire.data(), size(wire), meta.data(), static_cast<uint16_t>(meta.size()));
  }
  static KsResult write_tprf(const std::string &label, const Bytes &output) {
    return ks_cache_pac_write_tprf(kWire.data(), size(kWire), label.data(), static_cast<uint16_t>(label.size()),
                                   nullptr, 0, output.data(), static_cast<uint16_t>(output.size()));
  }
  static KsResult find() {
    uint32_t found = 0;
    return ks_cache_find_pac(kAid.data(), size(kAid), &found);
  }
  static KsResult read(Bytes *meta) {
    uint8_t *block = nullptr;
    uint16_t len = 0;
    const KsResult result = ks_cache_read_pac(kWire.data(), size(kWire), &block, &len);
    if (result == KS_SUCCESS) meta->assign(block, block + len);
    free(block);
    return result;
  }
  static KsResult read_tprf(const std::string &label, Bytes *output) {
    uint8_t *block = nullptr;
    uint16_t len = 0;
    const KsResult result = ks_cache_read_tprf(kWire.data(), size(kWire), label.data(),
                                               static_cast<uint16_t>(label.size()), nullptr, 0, &block, &len);
    if (result == KS_SUCCESS) output->assign(block, block + len);
    if (result == KS_SUCCESS) free(block);
    return result;
  }
};

TEST_F(Cache, IsReadInOneProcessAsItWasWrittenInAnother) {
  EXPECT_EQ(find(), KS_NOT_FOUND);
  ASSERT_TRUE(in_another_process([] { return write(kMeta) == KS_SUCCESS; }));
  EXPECT_EQ(find(), KS_SUCCESS);
  Bytes meta;
  EXPECT_EQ(read(&meta), KS_SUCCESS);
  EXPECT_EQ(meta, kMeta);

  ASSERT_TRUE(in_another_process([] { return write_tprf("label", {1, 2, 3}) == KS_SUCCESS; }));
  Bytes output;
  EXPECT_EQ(read_tprf("label", &output), KS_SUCCESS);
  EXPECT_EQ(output, (Bytes{1, 2, 3}));
  EXPECT_EQ(read_tprf("Label", &output), KS_FAILURE);
  EXPECT_EQ(read(&meta), KS_SUCCESS);
  EXPECT_EQ(meta, kMeta);

  ASSERT_TRUE(in_another_process([] { return ks_cache_pac_clear(kWire.data(), size(kWire)) == KS_SUCCESS; }));
  EXPECT_EQ(find(), KS_NOT_FOUND);
}

TEST_F(Cache, KeepsAnEntryForEachVdc) {
  ASSERT_EQ(write(kMeta), KS_SUCCESS);
  EXPECT_TRUE(in_another_process([] {
    vdc_id = 8;
    return find() == KS_NOT_FOUND;
  }));
}

TEST_F(Cache, IsEmptiedForAllByAPurgeOfOne) {
  for (KsResult (*purge)() : {ks_cache_purge_all, ks_cache_purge_vdc_keys}) {
    for (uint8_t i = 0; i < 100; ++i) ASSERT_EQ(write(kMeta, {0x31, 0, 0, 9, i}), KS_SUCCESS);
    ASSERT_EQ(write(kMeta), KS_SUCCESS);
    EXPECT_TRUE(in_another_process([purge] { return purge() == KS_SUCCESS; }));

    EXPECT_EQ(find(), KS_NOT_FOUND);
    for (uint8_t i = 0; i < 100; ++i) {
      const Bytes wire = {0x31, 0, 0, 9, i};
      EXPECT_EQ(ks_cache_read_pac(wire.data(), size(wire), nullptr, nullptr), KS_NOT_FOUND);
    }
  }
}

TEST_F(Cache, SparesForeignKeysOfOtherKindsInAPurgeOfAVdc) {
  ASSERT_EQ(write(kMeta, {0x51, 0, 0, 9, 'a'}), KS_SUCCESS);
  ASSERT_EQ(write(kMeta, {0x51, 0, 0, 7, 'a'}), KS_SUCCESS);
  EXPECT_EQ(ks_cache_purge_vdc_keys(), KS_SUCCESS);

  const Bytes foreign = {0x51, 0, 0, 9, 'a'}, own = {0x51, 0, 0, 7, 'a'};
  EXPECT_EQ(ks_cache_read_pac(foreign.data(), size(foreign), nullptr, nullptr), KS_SUCCESS);
  EXPECT_EQ(ks_cache_read_pac(own.data(), size(own), nullptr, nullptr), KS_NOT_FOUND);
}

// Every writer's metadata and output are of one byte, in a length that the byte tells.
TEST_F(Cache, ShowsEightProcessesAtOnceNoTornEntry) {
  constexpr int kRounds = 25;
  std::vector<pid_t> children;
  for (uint8_t self = 1; self <= 8; ++self) {
    children.push_back(start_child([self] {
      if (ks_init(0, self, 0) != KS_SUCCESS || ks_cache_present != 1) return false;
      const auto whole = [](const Bytes &bytes) { return bytes == Bytes(bytes.at(0) * 100u, bytes.at(0)); };
      for (int round = 0; round < kRounds; ++round) {
        if (write(Bytes(self * 100u, self)) != KS_SUCCESS) return false;
        const KsResult added = write_tprf("label", Bytes(self * 100u, self));
        if (added != KS_SUCCESS && added != KS_NOT_FOUND) return false;  // others delete in between
        for (int i = 0; i < 20; ++i) {
          Bytes meta, output;
          const KsResult result = read(&meta);
          if (result != KS_NOT_FOUND && (result != KS_SUCCESS || !whole(meta))) return false;
          if (read_tprf("label", &output) == KS_SUCCESS && !whole(output)) return false;
        }
      }
      return true;
    }));
  }
  for (const pid_t child : children) EXPECT_TRUE(succeeds(child));
}

// Alters every copy of `bytes` in the database's files, as a fault of the disk would. Returns how many there were.
int alter_in_files(const std::string &folder, const Bytes &bytes, const Bytes &altered) {
  int found = 0;
  for (const auto &entry : std::filesystem::directory_iterator(folder)) {
    if (entry.path().extension() != ".mdb") continue;
    const int fd = open(entry.path().c_str(), O_RDWR | O_CLOEXEC);
    // The file is as large as the database may grow, and a hole for the most part.
    off_t end = 0;
    for (off_t begin = 0; (begin = lseek(fd, end, SEEK_DATA)) >= 0;) {
      end = lseek(fd, begin, SEEK_HOLE);
      Bytes content(static_cast<size_t>(end - begin));
      if (pread(fd, content.data(), content.size(), begin) != end - begin) abort();
      for (auto at = content.begin();; ++at) {
        at = std::search(at, content.end(), bytes.begin(), bytes.end());
        if (at == content.end()) break;
        const off_t place = begin + (at - content.begin());
        if (pwrite(fd, altered.data(), altered.size(), place) != static_cast<ssize_t>(altered.size())) abort();
        ++found;
      }
    }
    close(fd);
  }
  return found;
}

// The library believes the lengths and offsets of a value. What was altered behind the library's back must not get
// that far.
TEST_F(Cache, ReadsAnEntryThatWasAlteredInItsFileAsAFailureUntilItIsWrittenAgain) {
  struct Alteration {
    const char *what;
    size_t at;
    Bytes bytes;
  };
  const Bytes meta = {0, 2, 0, 1, 0xaa, 0, 9, 0, 3, 0xd1, 0xd2, 0xd3};
  const Bytes entry = Bytes{12, 0, 0, 0, 12, 0, 0, 0, 5, 0, 0, 0, 0, 0, 0, 0, 17, 0, 0, 0, 3, 0} + meta +
                      Bytes{'l', 'a', 'b', 'e', 'l', 7, 8, 9};
  for (const auto &[what, at, bytes] : {Alteration{"longer metadata", 0, {0x2c, 1, 0, 0}},
                                        {"metadata of 4 GiB", 0, {0xff, 0xff, 0xff, 0xff}},
                                        {"a label elsewhere", 4, {0, 0, 0, 0x80}},
                                        {"a longer label", 8, {5, 1}},
                                        {"an output elsewhere", 16, {0xff, 0xff, 0xff, 0xff}},
                                        {"a longer output", 20, {0xff, 0xff}},
                                        {"another byte of the metadata", 33, {0xd4}}}) {
    SCOPED_TRACE(what);
    ASSERT_EQ(write(meta), KS_SUCCESS);
    ASSERT_EQ(write_tprf("label", {7, 8, 9}), KS_SUCCESS);
    Bytes altered = entry;
    std::copy(bytes.begin(), bytes.end(), altered.begin() + static_cast<ptrdiff_t>(at));
    ASSERT_GE(alter_in_files(service->cache_folder(), entry, altered), 1);

    Bytes found;
    EXPECT_EQ(read(&found), KS_FAILURE);
    EXPECT_EQ(read_tprf("label", &found), KS_FAILURE);
    EXPECT_EQ(write_tprf("label", {7}), KS_FAILURE);
    EXPECT_EQ(find(), KS_SUCCESS) << "the key is there, and no look at the value was asked for";
    uint8_t *opaque = nullptr;
    uint16_t short_len = 0;
    EXPECT_EQ(ks_cache_get_pac_opaque(kAid.data(), size(kAid), &opaque, &short_len), KS_FAILURE);
    uint32_t len = 0;
    EXPECT_EQ(ks_return_pac_opaque(kAid.data(), size(kAid), &opaque, &len), KS_NOT_FOUND) << "the keystore's answer";

    ASSERT_EQ(write(meta), KS_SUCCESS);
    EXPECT_EQ(read(&found), KS_SUCCESS);
    EXPECT_EQ(found, meta);
  }
}

// Held is a process that keeps all others from opening the database, until the object goes or ends it.
class Held {
 public:
  explicit Held(const std::string &folder) {
    int ready[2];
    if (pipe(ready) != 0) abort();
    holder_ = start_child([&] {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      const int fd = open(gate_in(folder).c_str(), O_RDWR | O_CLOEXEC);
      struct flock all {};
      all.l_type = F_WRLCK;
      all.l_whence = SEEK_SET;
      if (fcntl(fd, F_SETLK, &all) != 0 || ::write(ready[1], "", 1) != 1) return false;
      for (;;) pause();
    });
    close(ready[1]);
    char byte;
    held_ = ::read(ready[0], &byte, 1) == 1;
    close(ready[0]);
  }
  ~Held() { end(); }
  Held(const Held &) = delete;
  Held &operator=(const Held &) = delete;

  bool held() const { return held_; }
  void end() {
    if (holder_ == -1) return;
    kill(holder_, SIGKILL);
    waitpid(holder_, nullptr, 0);
    holder_ = -1;
  }

 private:
  static std::string gate_in(const std::string &folder) {
    const std::string ending = sizeof(void *) == 8 ? "-64.mdb-gate" : "-32.mdb-gate";
    for (const auto &entry : std::filesystem::directory_iterator(folder)) {
      if (entry.path().string().ends_with(ending)) return entry.path();
    }
    return {};
  }

  pid_t holder_;
  bool held_;
};

TEST_F(Cache, OpensAtTheFifthAttemptAfterFourRefusalsForNow) {
  ASSERT_EQ(write(kMeta), KS_SUCCESS);
  EXPECT_TRUE(succeeds(start_child([] {
    Held held(service->cache_folder());
    at_pause = [&] {
      if (pauses == 4) held.end();
    };
    return held.held() && ks_init(0, 2, 0) == KS_SUCCESS && ks_cache_present == 1 && pauses == 4 &&
           find() == KS_SUCCESS;
  })));
}

TEST_F(Cache, IsNoFailureOfTheStartWhenHeldAndIsOpenedByALaterRead) {
  ASSERT_EQ(write({0, 2, 0, 1, 0xaa}), KS_SUCCESS);
  EXPECT_TRUE(succeeds(start_child([] {
    Held held(service->cache_folder());
    if (!held.held() || ks_init(0, 2, 0) != KS_SUCCESS || ks_cache_present != 0 || pauses != 4) return false;
    if (ks_cache_purge_all() != KS_FAILURE) return false;
    held.end();
    uint8_t *opaque = nullptr;
    uint32_t len = 0;
    return ks_return_pac_opaque(kAid.data(), size(kAid), &opaque, &len) == KS_SUCCESS && len == 5 &&
           ks_cache_present == 1;
  })));
}

}  // namespace
