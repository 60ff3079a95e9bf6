// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// sdb_fixture.h: a fresh folder, and short ways to say what is asked of libsdb.
#ifndef SDB_FIXTURE_H
#define SDB_FIXTURE_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <string_view>

#include "leave.h"
#include "sdb.h"
#include "temporary_folder.h"

// The codes again, as numbers: what callers see.
constexpr uint32_t kRetryCode = 0x411a0008;
constexpr uint32_t kNotOpenCode = 0x411a000f;
constexpr uint32_t kBadUriCode = 0x411a0011;
constexpr uint32_t kNoKeyCode = 0x40480003;
constexpr uint32_t kUnsafeCode = 0x411a0001;
constexpr uint32_t kDamagedCode = 0x411a0002;
constexpr uint32_t kValueDamagedCode = 0x411a0003;
constexpr uint32_t kFullCode = 0x411a0004;
constexpr uint32_t kBusyCode = 0x411a0005;
constexpr uint32_t kBadArgumentCode = 0x411a0006;
constexpr uint32_t kNoMemoryCode = 0x411a0007;
constexpr uint32_t kSystemCode = 0x411a0009;
constexpr uint32_t kNoIterationCode = 0x411a000a;
constexpr uint32_t kNoMoreKeysCode = 0x40480004;

constexpr const char *kLibrary = "libsdb.so";  // whose calls are stood in for

inline KsSdbDatum datum(std::string_view bytes) {
  return {bytes.data(), static_cast<uint32_t>(bytes.size())};
}

inline std::string text(const KsSdbDatum *value) {
  return value == nullptr ? "(none)" : std::string(static_cast<const char *>(value->data), value->size);
}

// Called where libsdb begins a transaction, and where LMDB has written a commit's pages but not yet its head.
extern void (*at_txn_begin)();
extern void (*at_head_write)();
// What beginning a transaction comes to, unless it is 0.
extern int txn_begin_result;
// The allocation of libsdb that fails, counted down; below 1 none does. Not under sanitizers, whose heap is theirs.
extern int failing_allocation;

// The exit status of a child, or 1000 and the signal that ended it.
inline int status_of(pid_t child) {
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFSIGNALED(status) ? 1000 + WTERMSIG(status) : WEXITSTATUS(status);
}

inline pid_t start_child(const std::function<int()> &work) {
  fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) ks_test::leave(work());
  return child;
}

// Runs `work` in a child and returns its status_of.
inline int in_child(const std::function<int()> &work) {
  return status_of(start_child(work));
}

// Sdb has a folder of its own for each test, and so a database that no other test has opened in this process.
class Sdb : public testing::Test {
 protected:
  Sdb() {
    folder = root + "/cache";
    uri = "lmdb://" + folder + "/entries";
    const std::string ending = sizeof(void *) == 8 ? "-64.mdb" : "-32.mdb";
    data_file = folder + "/entries" + ending;
  }

  uint32_t open() { return sdb_open(uri.c_str(), 1, 77, 0, 0); }

  // The mark of a run of the machine, which the gate's file begins with.
  static std::string mark_of(const std::string &run) { return "2 " + run + "\n"; }
  static std::string this_run() {
    std::string run;
    std::getline(std::ifstream("/proc/sys/kernel/random/boot_id"), run);
    return run;
  }
  std::string mark() {
    std::string line;
    std::getline(std::ifstream(data_file + "-gate"), line);
    return line + "\n";
  }
  void mark_as(const std::string &mark) { std::fstream(data_file + "-gate", std::ios::in | std::ios::out) << mark; }

  // Leaves a folder of this run whose database and table of readers are missing.
  void make_gate() {
    ASSERT_EQ(in_child([this] { return static_cast<int>(open()); }), 0);
    std::filesystem::remove(data_file);
    std::filesystem::remove(data_file + "-lock");
  }

  uint32_t stage(const std::string &key, const std::string &value) {
    const KsSdbDatum k = datum(key);
    const KsSdbDatum v = datum(value);
    return sdb_write(uri.c_str(), &k, &v);
  }

  uint32_t stage_delete(const std::string &key) {
    const KsSdbDatum k = datum(key);
    return sdb_delete(uri.c_str(), &k);
  }

  uint32_t done() { return sdb_write_done(uri.c_str()); }

  uint32_t put(const std::string &key, const std::string &value) {
    const uint32_t code = stage(key, value);
    return code != 0 ? code : done();
  }

  uint32_t remove(const std::string &key) {
    const uint32_t code = stage_delete(key);
    return code != 0 ? code : done();
  }

  uint32_t read(const std::string &key, std::string *out_value = nullptr) {
    const KsSdbDatum k = datum(key);
    uint32_t code = 0xdead;
    const KsSdbDatum *value = sdb_read(uri.c_str(), &k, &code);
    EXPECT_EQ(value != nullptr, code == 0);
    if (out_value != nullptr) *out_value = text(value);
    return code;
  }

  std::string value_of(const std::string &key) {
    std::string value;
    read(key, &value);
    return value;
  }

  const ks_test::TemporaryFolder own_folder;
  const std::string root = own_folder.path();
  std::string folder;
  std::string uri;
  std::string data_file;
};

#endif
