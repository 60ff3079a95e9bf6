// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// What libsdb asks of the system and of LMDB, and what callers are told when the answer is no: the reason, once.
// Nothing stays open or mapped of an attempt that failed, and the next one succeeds.
#include <fcntl.h>
#include <lmdb.h>
#include <sys/mman.h>

#include <cerrno>
#include <fstream>
#include <functional>
#include <memory>
#include <thread>

#include "library_calls.h"
#include "sdb_fixture.h"

namespace {

using ks_test::fail_call;
using ks_test::LibraryCalls;
using ks_test::see_calls;
using testing::HasSubstr;

// Failure makes one call fail for as long as what it gives lives.
using Failure = std::function<std::shared_ptr<void>()>;

template <auto kFunction, typename Answer>
Failure answering(Answer answer) {
  return [=] { return std::make_shared<LibraryCalls<kFunction>>(kLibrary, answer); };
}

// The call of that number gives `result`, with that errno.
template <auto kFunction, typename Result>
Failure failing(int number, Result result, int error = 0) {
  return answering<kFunction>(fail_call(number, result, error));
}

class SdbCalls : public Sdb {
 protected:
  static size_t descriptors() {
    size_t count = 0;
    for ([[maybe_unused]] const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) ++count;
    return count;
  }

  // How many pieces of the database's files the process has mapped.
  size_t mappings() const {
    std::ifstream maps("/proc/self/maps");
    size_t count = 0;
    for (std::string line; std::getline(maps, line);) count += line.find(folder) != std::string::npos;
    return count;
  }

  void fails_to_open(const Failure &failure, uint32_t code, const std::string &reason) {
    SCOPED_TRACE(reason);
    const size_t before = descriptors();
    {
      const std::shared_ptr<void> lasting = failure();
      EXPECT_EQ(open(), code);
    }
    EXPECT_THAT(syserr2str(code), HasSubstr(reason));
    EXPECT_EQ(descriptors(), before);
    EXPECT_EQ(mappings(), 0u);
  }

  void fails_to_put(const Failure &failure, uint32_t code, const std::string &reason) {
    SCOPED_TRACE(reason);
    {
      const std::shared_ptr<void> lasting = failure();
      EXPECT_EQ(put("key", "new"), code);
    }
    EXPECT_THAT(syserr2str(code), HasSubstr(reason));
    EXPECT_EQ(value_of("key"), "value");
    EXPECT_EQ(put("key", "newer"), 0u);
    EXPECT_EQ(put("key", "value"), 0u);
  }

  void opens_all_the_same(const Failure &answer) {
    EXPECT_EQ(in_child([&] {
                const std::shared_ptr<void> lasting = answer();
                return open() == 0 ? 0 : 1;
              }),
              0);
    std::filesystem::remove_all(folder);
  }
};

TEST_F(SdbCalls, OfFilesEndAnOpeningWithTheirReason) {
  fails_to_open(failing<open64>(1, -1, EACCES), kSystemCode, "cannot open folder " + folder + ": Permission denied");
  fails_to_open(failing<mkdir>(1, -1, EACCES), kSystemCode, "cannot open folder " + folder + ": Permission denied");
  fails_to_open(failing<open64>(2, -1, EMFILE), kSystemCode, "cannot open folder " + folder + ": Too many open files");
  fails_to_open(failing<library_fstat>(1, -1, EIO), kSystemCode, "cannot examine folder " + folder + ": Input/output");
  fails_to_open(failing<library_fstat>(2, -1, EIO), kSystemCode, "cannot examine " + data_file + "-gate: Input/output");
  fails_to_open(failing<openat64>(1, -1, EMFILE), kSystemCode, "cannot open " + data_file + "-gate: Too many open");
  std::filesystem::remove(data_file + "-gate");
  fails_to_open(failing<openat64>(2, -1, ENOSPC), kSystemCode, "cannot open " + data_file + "-gate: No space left");
  fails_to_open(failing<fchmod>(1, -1, EPERM), kSystemCode, data_file + "-gate: Operation not permitted");
  fails_to_open(failing<linkat>(1, -1, EPERM), kSystemCode, data_file + "-gate: Operation not permitted");
  for (const auto &entry : std::filesystem::directory_iterator(folder)) ADD_FAILURE() << entry << " is left behind";
  fails_to_open(failing<library_fcntl>(1, -1, ENOLCK), kSystemCode,
                "cannot lock " + data_file + "-gate: No locks available");
  fails_to_open(failing<library_fstat>(3, -1, EIO), kSystemCode, "cannot examine " + data_file + "-lock: Input/output");
  fails_to_open(failing<library_fstat>(4, -1, EIO), kSystemCode, "cannot examine " + data_file + ": Input/output");
  fails_to_open(failing<library_fstat>(6, -1, EIO), kSystemCode, data_file + ": Input/output error");
  std::filesystem::resize_file(data_file, 0);
  fails_to_open(failing<ftruncate64>(1, -1, EIO), kSystemCode, data_file + ": Input/output error");
  std::filesystem::resize_file(data_file, 0);
  fails_to_open(failing<ftruncate64>(1, -1, ENOSPC), kFullCode, data_file + ": No space left on device");
  std::filesystem::resize_file(data_file, 0);
  fails_to_open(failing<posix_fallocate64>(1, EIO), kSystemCode, "-gate: Input/output error");
  fails_to_open(failing<posix_fallocate64>(1, ENOSPC), kFullCode, "-gate: No space left on device");
  EXPECT_EQ(open(), 0u);
}

TEST_F(SdbCalls, OfMappingsEndAnOpeningWithTheirReason) {
  EXPECT_EQ(put("key", "value"), kNotOpenCode);  // a thread's first call maps what the thread keeps
  for (const int number : {1, 2}) {
    if (sizeof(void *) == 4 && number == 2) break;  // LMDB's own mapping serves for the file
    fails_to_open(failing<mmap64>(number, MAP_FAILED, ENOMEM), kNoMemoryCode, data_file + ": Cannot allocate memory");
    fails_to_open(failing<mmap64>(number, MAP_FAILED, EPERM), kSystemCode, data_file + ": Operation not permitted");
  }
  EXPECT_EQ(open(), 0u);
}

TEST_F(SdbCalls, OfLmdbEndAnOpeningWithTheirReason) {
  fails_to_open(failing<mdb_env_create>(1, ENOMEM), kNoMemoryCode, data_file + ": Cannot allocate memory");
  fails_to_open(failing<mdb_env_set_mapsize>(1, EINVAL), kSystemCode, data_file + ": Invalid argument");
  fails_to_open(failing<mdb_env_set_maxreaders>(1, EINVAL), kSystemCode, data_file + ": Invalid argument");
  fails_to_open(failing<mdb_env_set_assert>(1, EINVAL), kSystemCode, data_file + ": Invalid argument");
  fails_to_open(failing<mdb_env_open>(1, EIO), kSystemCode, data_file + ": Input/output error");
  fails_to_open(failing<mdb_env_get_fd>(1, EINVAL), kUnsafeCode, "its file was deleted or closed under the process");
  fails_to_open(failing<mdb_txn_begin>(1, MDB_READERS_FULL), kRetryCode, "");
  fails_to_open(failing<mdb_dbi_open>(1, MDB_CORRUPTED), kDamagedCode, "");
  fails_to_open(failing<library_mutex_clocklock>(1, ETIMEDOUT), kRetryCode, "another thread is opening a database");
  EXPECT_EQ(open(), 0u);
}

// A reader's snapshot is found in the file by its number.
TEST_F(SdbCalls, OfASnapshotThatIsNotInTheFileEndAnOpening) {
  const auto number = [](size_t id) { return [id](MDB_txn *) { return std::optional(id); }; };
  ASSERT_EQ(in_child([&] { return static_cast<int>(open() | put("key", "1") | put("key", "2")); }), 0);
  fails_to_open(answering<mdb_txn_id>(number(1000)), kDamagedCode, data_file + ": it was exchanged while in use;");
  fails_to_open(answering<mdb_txn_id>(number(0)), kRetryCode, data_file + " changes too fast to be examined");
  EXPECT_EQ(open(), 0u);
}

// Another process does the same at the same time.
TEST_F(SdbCalls, ThatAnotherProcessWasQuickerWithAreNoFailures) {
  opens_all_the_same(answering<mkdir>([](const char *path, mode_t mode) -> std::optional<int> {
    ::mkdir(path, mode);
    errno = EEXIST;
    return -1;
  }));
  opens_all_the_same(answering<linkat>([](int from, const char *old, int to, const char *name, int) {
    ::linkat(from, old, to, name, 0);
    errno = EEXIST;
    return std::optional(-1);
  }));
  for (const int error : {EAGAIN, EACCES, EINTR}) opens_all_the_same(failing<library_fcntl>(1, -1, error));
}

TEST_F(SdbCalls, ThatASignalInterruptedAreMadeAgain) {
  for (int number = 1; number <= 4; ++number) {  // the gate's mark, and pages
    ASSERT_EQ(in_child([&] { return static_cast<int>(put("none", "") != kNotOpenCode || open() != 0); }), 0);
    opens_all_the_same(failing<pread64>(number, ssize_t{-1}, EINTR));
  }
}

TEST_F(SdbCalls, OpenNothingThatAProgramWouldInheritOrThatIsALink) {
  int opened = 0;
  const LibraryCalls<open64> folders(kLibrary, [&](const char *, int flags) -> std::optional<int> {
    ++opened;
    EXPECT_TRUE(flags & O_CLOEXEC);
    return std::nullopt;
  });
  const LibraryCalls<openat64> files(kLibrary, [&](int, const char *, int flags) -> std::optional<int> {
    ++opened;
    EXPECT_TRUE(flags & O_CLOEXEC);
    EXPECT_TRUE(flags & O_NOFOLLOW);
    return std::nullopt;
  });
  EXPECT_EQ(open(), 0u);
  EXPECT_GT(opened, 4);
}

TEST_F(SdbCalls, EndACommitWithTheirReasonAndChangeNothing) {
  ASSERT_EQ(open(), 0u);
  ASSERT_EQ(put("key", "value"), 0u);
  const std::string begin = "cannot begin to write: ";
  for (const int lock : {1, 2}) {
    fails_to_put(failing<pthread_mutex_trylock>(lock, ENOTRECOVERABLE), kSystemCode,
                 "cannot lock the gate of " + uri + ": State not recoverable");
  }
  // Behind one that died, LMDB's locks are freed inside the gate of the table of readers.
  for (const auto &[failure, reason] :
       {std::pair{failing<library_fcntl>(1, -1, ENOLCK), "cannot lock the gate of " + uri + ": No locks"},
        std::pair{failing<library_fcntl>(2, -1, ENOLCK), "cannot lock the gate of " + uri + ": No locks"},
        std::pair{failing<mdb_txn_begin>(1, EIO), begin + "Input/output error"}}) {
    ASSERT_EQ(in_child([this] {
                at_head_write = [] { raise(SIGKILL); };
                return static_cast<int>(put("key", "of the killed one"));
              }),
              1000 + SIGKILL);
    fails_to_put(failure, kSystemCode, reason);
  }
  fails_to_put(failing<mdb_env_get_fd>(1, EINVAL), kUnsafeCode, "its file was deleted or closed under the process");
  fails_to_put(failing<mdb_txn_begin>(1, EIO), kSystemCode, begin + "Input/output error");
  fails_to_put(failing<mdb_cursor_open>(1, ENOMEM), kNoMemoryCode, uri + ": Cannot allocate memory");
  fails_to_put(failing<mdb_cursor_put>(1, EIO), kSystemCode, uri + ": Input/output error");
  fails_to_put(failing<mdb_cursor_put>(1, MDB_MAP_FULL), kFullCode, uri + ": MDB_MAP_FULL");
  fails_to_put(failing<mdb_stat>(1, EIO), kSystemCode, uri + ": Input/output error");
  const auto no_space = [](MDB_txn *txn) {
    mdb_txn_abort(txn);
    return std::optional(ENOSPC);
  };
  fails_to_put(answering<mdb_txn_commit>(no_space), kFullCode, uri + ": No space left on device");
  {
    const LibraryCalls<mdb_cursor_del> calls(kLibrary, fail_call(1, EIO, 0));
    EXPECT_EQ(remove("key"), kSystemCode);
  }
  {
    const LibraryCalls<mdb_cursor_get> calls(kLibrary, fail_call(1, EIO, 0));
    EXPECT_EQ(remove("key"), kSystemCode);
  }
  EXPECT_EQ(value_of("key"), "value");
}

TEST_F(SdbCalls, OfSandboxesWithoutStatxAreMadeUpFor) {
  ASSERT_EQ(open(), 0u);
  const LibraryCalls<statx> calls(kLibrary, [](int, const char *, int, unsigned, struct statx *) {
    errno = ENOSYS;
    return std::optional(-1);
  });
  EXPECT_EQ(put("key", "value"), 0u);
  EXPECT_EQ(value_of("key"), "value");
  ASSERT_EQ(truncate(data_file.c_str(), 4096), 0);
  EXPECT_EQ(put("key", "new"), kDamagedCode);
}

// The slot of a reader that was taken for dead goes to somebody else.
TEST_F(SdbCalls, ThatLoseAReadersSlotTakeAnother) {
  ASSERT_EQ(open(), 0u);
  ASSERT_EQ(put("key", "value"), 0u);
  std::thread([&] {
    EXPECT_EQ(read("none"), kNoKeyCode);
    {
      const LibraryCalls<mdb_txn_renew> calls(kLibrary, [](MDB_txn *txn) {
        mdb_txn_abort(txn);  // nobody touches it again
        return std::optional(MDB_BAD_RSLOT);
      });
      EXPECT_EQ(value_of("key"), "value");
    }
    const LibraryCalls<mdb_txn_renew> calls(kLibrary, fail_call(1, EIO, 0));
    EXPECT_EQ(read("other"), kSystemCode);
    EXPECT_STREQ(syserr2str(kSystemCode), "A system call failed: cannot begin to read: Input/output error");
    EXPECT_EQ(value_of("key"), "value");
  }).join();
}

// A quarter of a second is waited for an opening.
TEST_F(SdbCalls, WaitAsLongAcrossTheEndOfASecond) {
  const struct {
    Time64 now, end;
  } kCases[] = {{{100, 900'000'000}, {101, 150'000'000}},
                {{100, 750'000'000}, {101, 0}},
                {{100, 749'999'999}, {100, 999'999'999}}};
  for (const auto &row : kCases) {
    EXPECT_EQ(in_child([&] {
                const LibraryCalls<library_clock_gettime> clock(kLibrary, [&](int, Time64 *out) {
                  *out = row.now;
                  return std::optional(0);
                });
                int other_ends = 0;
                const LibraryCalls<library_mutex_clocklock> locks(
                    kLibrary, see_calls<int>([&](void *, int, const Time64 *until) {
                      other_ends += until->seconds != row.end.seconds || until->nanoseconds != row.end.nanoseconds;
                    }));
                return open() == 0 && other_ends == 0 ? 0 : 1;
              }),
              0)
        << row.now.nanoseconds;
  }
}

// Each time it begins to read, others have replaced what it began with.
TEST_F(SdbCalls, ThatOthersChangesOutrunEndARead) {
  ASSERT_EQ(open(), 0u);
  ASSERT_EQ(put("key", "value"), 0u);
  int attempts = 0;
  {
    const LibraryCalls<mdb_txn_id> others(kLibrary, see_calls<size_t>([&](MDB_txn *) {
                                            ++attempts;
                                            std::thread([&] {
                                              for (const char *value : {"1", "2", "3"}) put("other", value);
                                            }).join();
                                          }));
    EXPECT_EQ(read("key"), kRetryCode);
  }
  EXPECT_THAT(syserr2str(kRetryCode), HasSubstr("changes too fast to be read"));
  EXPECT_EQ(attempts, 100);
  EXPECT_EQ(value_of("key"), "value");
}

}  // namespace
