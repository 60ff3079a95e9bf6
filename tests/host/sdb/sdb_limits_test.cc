// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// What other processes rely on: which bytes of the gate's file are locked when, and how many may read.
#include <fcntl.h>
#include <lmdb.h>
#include <malloc.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "sdb_fixture.h"

namespace {

class SdbLimits : public Sdb {
 protected:
  ~SdbLimits() override {
    at_txn_begin = nullptr;
    at_head_write = nullptr;
    txn_begin_result = 0;
  }

  uint32_t put_anew(const std::string &key) {
    const uint32_t code = open();
    return code != 0 ? code : put(key, "value");
  }

  // The bytes of the gate's file that this process holds, as another process sees them.
  static std::string held_bytes() {
    int ends[2];
    if (pipe(ends) != 0) abort();
    in_child([&] {
      const int file = ::open(gate_file.c_str(), O_RDWR | O_CLOEXEC);
      std::string held;
      for (int byte = 0; byte < 6; ++byte) {
        struct flock lock {};
        lock.l_type = F_WRLCK;
        lock.l_whence = SEEK_SET;
        lock.l_start = byte;
        lock.l_len = 1;
        if (fcntl(file, F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK) held += static_cast<char>('0' + byte);
      }
      held += ' ';
      return write(ends[1], held.data(), held.size()) < 0 ? 1 : 0;
    });
    char held[16];
    const ssize_t size = ::read(ends[0], held, sizeof held);
    close(ends[0]);
    close(ends[1]);
    return std::string(held, static_cast<size_t>(size));
  }

  static std::string gate_file;
  static std::string seen;
};

std::string SdbLimits::gate_file;
std::string SdbLimits::seen;

// Processes of another version of this library take the same bytes.
TEST_F(SdbLimits, OfTheTablesGateAreBytes0And1) {
  gate_file = data_file + "-gate";
  seen.clear();
  at_txn_begin = [] { seen += "begin " + held_bytes(); };
  at_head_write = [] { seen += "head " + held_bytes(); };
  ASSERT_EQ(open(), 0u);
  EXPECT_EQ(seen.substr(seen.rfind("begin")), "begin 1 ") << "opening, inside the gate of the table of readers";

  seen.clear();
  EXPECT_EQ(put("key", "value"), 0u);
  EXPECT_EQ(seen, "begin  head  ") << "writing, inside the other gate alone";
  EXPECT_EQ(in_child([this] {
              at_head_write = [] { raise(SIGKILL); };
              return static_cast<int>(put("key", "of the killed one"));
            }),
            1000 + SIGKILL);
  seen.clear();
  EXPECT_EQ(put("key", "value"), 0u);
  EXPECT_EQ(seen, "begin 1 begin  head  ") << "after one that died: first to free LMDB's locks, inside both gates";

  seen.clear();
  std::thread([this] { EXPECT_EQ(value_of("key"), "value"); }).join();
  EXPECT_EQ(seen, "begin 1 ") << "a thread's first read";
  EXPECT_EQ(held_bytes(), " ");
}

TEST_F(SdbLimits, OfReadersAreAboveTwoHundredThreads) {
  ASSERT_EQ(open(), 0u);
  ASSERT_EQ(put("key", "value"), 0u);
  constexpr unsigned kThreads = 200;
  pthread_barrier_t all;
  pthread_barrier_init(&all, nullptr, kThreads);
  std::atomic<unsigned> right{0};
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      uint32_t code = read("key");
      while (code == kRetryCode) code = read("key");  // so many wait for one gate
      if (code == 0) ++right;
      pthread_barrier_wait(&all);
    });
  }
  for (std::thread &thread : threads) thread.join();
  pthread_barrier_destroy(&all);
  EXPECT_EQ(right, kThreads);
}

TEST_F(SdbLimits, OfAFilesSizeAreTold) {
  EXPECT_EQ(in_child([&] {
              signal(SIGXFSZ, SIG_IGN);
              const rlimit limit = {.rlim_cur = 1 << 20, .rlim_max = 1 << 20};
              if (setrlimit(RLIMIT_FSIZE, &limit) != 0) return 1;
              if (open() != kSystemCode) return 2;
              return std::string(syserr2str(kSystemCode)) == "A system call failed: " + data_file + ": File too large"
                         ? 0
                         : 3;
            }),
            0);
}

TEST_F(SdbLimits, OfLmdbAreTold) {
  ASSERT_EQ(open(), 0u);
  ASSERT_EQ(put("key", "value"), 0u);
  for (const auto &[result, code, text] : {
           std::tuple{ENOSPC, 0x411a0004, "The database is full: cannot begin to write: No space left on device"},
           std::tuple{EDQUOT, 0x411a0004, "The database is full: cannot begin to write: Disk quota exceeded"},
           std::tuple{EFBIG, 0x411a0004, "The database is full: cannot begin to write: File too large"},
           std::tuple{ENOMEM, 0x411a0007, "Out of memory: cannot begin to write: Cannot allocate memory"},
           std::tuple{EIO, 0x411a0009, "A system call failed: cannot begin to write: Input/output error"},
       }) {
    txn_begin_result = result;
    EXPECT_EQ(put("key", "new"), static_cast<uint32_t>(code)) << result;
    EXPECT_STREQ(syserr2str(static_cast<uint32_t>(code)), text);
  }
  for (const auto &[result, code] : {std::pair{MDB_MAP_RESIZED, 0x411a000c}, std::pair{MDB_MAP_FULL, 0x411a0004},
                                     std::pair{MDB_TXN_FULL, 0x411a0004}, std::pair{MDB_CORRUPTED, 0x411a0002},
                                     std::pair{MDB_PANIC, 0x411a0002}, std::pair{MDB_VERSION_MISMATCH, 0x411a000b}}) {
    txn_begin_result = result;
    std::thread([&, given = result, expected = static_cast<uint32_t>(code)] {
      EXPECT_EQ(read("key"), expected) << given;
    }).join();
  }
  txn_begin_result = 0;
  EXPECT_EQ(value_of("key"), "value");
  EXPECT_EQ(put("key", "new"), 0u);
}

// Every allocation fails once, in a process that has made none before: the call that makes it says so, and the same
// call again does its work.
TEST_F(SdbLimits, OfMemoryAreToldAndHarmNothing) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the heap is the sanitizer's";
#endif
  const std::string large(10'000, 'l');
  const KsSdbDatum *key = nullptr;
  const KsSdbDatum *value = nullptr;
  const std::function<uint32_t()> calls[] = {
      [&] { return open(); },
      [&] { return stage("key", large); },
      [&] { return done(); },
      [&] { return read("key"); },
      [&] { return stage_delete("none"); },
      [&] { return sdb_iterator_init(uri.c_str(), 1); },
      [&] { return sdb_getkey(uri.c_str(), &key, &value); },
  };
  int failures = 0;
  for (const auto &call : calls) {
    // In a child of its own, and in a thread of its own besides, so that nothing is there yet.
    for (int n = 1;; ++n) {
      const int status = in_child([&] {
        int result = 2;
        std::thread([&] {
          for (const auto &before : calls) {
            if (&before == &call) break;
            if (before() != 0) return;
          }
          failing_allocation = n;
          const uint32_t code = call();
          const bool failed = failing_allocation == 0;
          failing_allocation = 0;
          if (code != (failed ? kNoMemoryCode : 0)) return;
          if (failed && call() != 0) return;
          result = failed ? 1 : 0;
        }).join();
        return result;
      });
      ASSERT_LT(status, 2) << "call " << &call - calls << ", allocation " << n;
      if (status == 0) break;
      ++failures;
    }
  }
  EXPECT_GT(failures, 6);
  for (const auto &call : calls) {  // the first call of a thread, where others have opened
    ASSERT_EQ(open(), 0u);
    if (&call == &calls[2] || &call == &calls[6]) continue;
    std::thread([&] {
      failing_allocation = 1;
      EXPECT_EQ(call(), kNoMemoryCode) << &call - calls;
      failing_allocation = 0;
    }).join();
  }
}

TEST_F(SdbLimits, OfMemoryAreNotReachedByFailing) {
  ASSERT_EQ(in_child([&] { return static_cast<int>(put_anew("key")); }), 0);
  ASSERT_EQ(chmod(data_file.c_str(), 0666), 0);
  EXPECT_EQ(open(), kUnsafeCode);
  const size_t before_opening = mallinfo2().uordblks;
  for (int i = 0; i < 100; ++i) EXPECT_EQ(open(), kUnsafeCode);
  EXPECT_LT(mallinfo2().uordblks, before_opening + 4096);

  ASSERT_EQ(chmod(data_file.c_str(), 0600), 0);
  ASSERT_EQ(open(), 0u);
  ASSERT_EQ(sdb_iterator_init(uri.c_str(), 1), 0u);
  const KsSdbDatum *key = nullptr;
  const KsSdbDatum *value = nullptr;
  ASSERT_EQ(sdb_getkey(uri.c_str(), &key, &value), 0u);
  const size_t before_moving = mallinfo2().uordblks;
  for (int i = 0; i < 100; ++i) EXPECT_EQ(sdb_getkey(uri.c_str(), &key, &value), 0u);
  EXPECT_LT(mallinfo2().uordblks, before_moving + 4096);
}

TEST_F(SdbLimits, OfMemoryAreNotReachedByWritingAndReading) {
  ASSERT_EQ(open(), 0u);
  ASSERT_EQ(put("key", "value"), 0u);
  const size_t before_writing = mallinfo2().uordblks;
  for (int i = 0; i < 200; ++i) EXPECT_EQ(put("key", std::string(1000, 'v')), 0u);
  EXPECT_LT(mallinfo2().uordblks, before_writing + 100'000);

  // What a thread reads into gets larger with what is read.
  for (size_t size = 5'000; size < 100'000; size += 5'000) {
    EXPECT_EQ(put("key", std::string(size, 'v')), 0u);
    EXPECT_EQ(read("key"), 0u);
  }
  EXPECT_LT(mallinfo2().uordblks, before_writing + 200'000);
}

TEST_F(SdbLimits, OfItsMapAreTheFilesSize) {
  ASSERT_EQ(open(), 0u);
  EXPECT_EQ(std::filesystem::file_size(data_file), (sizeof(void *) == 8 ? 128u : 48u) * 1024 * 1024);
}

}  // namespace
