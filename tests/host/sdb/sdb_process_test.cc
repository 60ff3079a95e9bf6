// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// What several processes see of one database, also when some of them die or stand still.
#include <lmdb.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/syscall.h>

#include <atomic>
#include <chrono>
#include <random>
#include <thread>

#include "library_calls.h"
#include "sdb_fixture.h"

using ks_test::LibraryCalls;
using testing::HasSubstr;

namespace {

using Clock = std::chrono::steady_clock;

constexpr long kDeadlineMs = 2000;  // of a commit that waits for another's

long ms_since(Clock::time_point start) {
  return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
}

void stop_self() {
  raise(SIGSTOP);
}
void kill_self() {
  raise(SIGKILL);
}

// A value that tells when it is made of two: length and content follow from its number.
std::string numbered_value(unsigned number) {
  std::string value = std::to_string(number) + ":";
  value.append(20 + number * 37 % 3000, static_cast<char>('a' + number % 26));
  return value;
}

bool is_whole(const std::string &value) {
  return value == numbered_value(static_cast<unsigned>(strtoul(value.c_str(), nullptr, 10)));
}

class SdbProcesses : public Sdb {
 protected:
  void wait_until_stopped(pid_t child) {
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, WUNTRACED), child);
    ASSERT_TRUE(WIFSTOPPED(status)) << status;
  }

  pid_t start_writer_that_stops_inside_its_commit() {
    const pid_t child = start_child([this] {
      if (stage("key", "of the stopped one") != 0) return 1;
      at_head_write = stop_self;
      return done() == 0 ? 0 : 2;
    });
    wait_until_stopped(child);
    return child;
  }

  void end(pid_t child) {
    kill(child, SIGKILL);
    status_of(child);
  }

  // The number of slots in use, as LMDB tells it to a process of its own.
  unsigned slots_in_use() {
    return static_cast<unsigned>(in_child([this] {
      MDB_env *env = nullptr;
      MDB_envinfo info;
      mdb_env_create(&env);
      if (mdb_env_open(env, data_file.c_str(), MDB_NOSUBDIR | MDB_RDONLY, 0600) != 0) return 255;
      mdb_env_info(env, &info);
      return static_cast<int>(info.me_numreaders);
    }));
  }
};

TEST_F(SdbProcesses, ShareOneDatabase) {
  ASSERT_EQ(open(), 0u);
  ASSERT_EQ(put("parent", "1"), 0u);
  EXPECT_EQ(in_child([&] { return value_of("parent") == "1" && put("child", "2") == 0 ? 0 : 1; }), 0);
  EXPECT_EQ(value_of("child"), "2");
}

TEST_F(SdbProcesses, OpenAgainAfterFork) {
  ASSERT_EQ(open(), 0u);
  ASSERT_EQ(put("key", "1"), 0u);
  const KsSdbDatum key = datum("key");
  uint32_t code = 1;
  const KsSdbDatum *before = sdb_read(uri.c_str(), &key, &code);
  EXPECT_EQ(in_child([&] {
              if (in_child([&] { return put("grandchild", "3") == 0 ? 0 : 1; }) != 0) return 1;
              return open() == 0 && value_of("key") == "1" && value_of("grandchild") == "3" ? 0 : 2;
            }),
            0);
  EXPECT_EQ(text(before), "1");
  EXPECT_EQ(value_of("grandchild"), "3");
}

TEST_F(SdbProcesses, DoNotInheritStagedChanges) {
  ASSERT_EQ(open(), 0u);
  ASSERT_EQ(stage("key", "of the parent"), 0u);
  EXPECT_EQ(in_child([&] { return done() == 0 && read("key") == kNoKeyCode ? 0 : 1; }), 0);
  EXPECT_EQ(done(), 0u);
  EXPECT_EQ(value_of("key"), "of the parent");
}

TEST_F(SdbProcesses, MayForkWhileOtherThreadsReadAndWrite) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "a child may find this sanitizer's allocator locked by a thread that it doesn't have";
#endif
  ASSERT_EQ(open(), 0u);
  std::atomic<bool> stop{false};
  std::thread writer([&] {
    for (unsigned i = 0; !stop; ++i) EXPECT_EQ(put("key", numbered_value(i)), 0u);
  });
  for (int round = 0; round < 20; ++round) {
    EXPECT_EQ(in_child([&] { return put("child", "v") == 0 && value_of("child") == "v" ? 0 : 1; }), 0);
  }
  stop = true;
  writer.join();
}

TEST_F(SdbProcesses, ReadAndWriteAtOnceWithNoTornValue) {
  ASSERT_EQ(open(), 0u);
  ASSERT_EQ(put("key 0", numbered_value(1)), 0u);
  std::vector<pid_t> children;
  for (unsigned process = 0; process < 8; ++process) {
    children.push_back(start_child([&, process] {
      for (unsigned i = 0; i < 60; ++i) {
        const std::string key = "key " + std::to_string(i % 5);
        if (put(key, numbered_value(process * 1000 + i)) != 0) return 1;
        for (unsigned j = 0; j < 20; ++j) {
          std::string value;
          const uint32_t code = read("key " + std::to_string(j % 5), &value);
          if (code != kNoKeyCode && (code != 0 || !is_whole(value))) return 2;
        }
      }
      return 0;
    }));
  }
  for (const pid_t child : children) EXPECT_EQ(status_of(child), 0);
}

TEST_F(SdbProcesses, KilledAtRandomHoldNobodyUp) {
  ASSERT_EQ(open(), 0u);
  std::minstd_rand random(4711);
  std::uniform_int_distribution<useconds_t> life(0, 12000);
  for (unsigned round = 0; round < 200; ++round) {
    const pid_t child = start_child([&] {
      for (unsigned i = 0;; ++i) {
        put("key " + std::to_string(i % 3), numbered_value(i));
        read("key 1");
      }
      return 0;
    });
    usleep(life(random));
    end(child);
    const auto start = Clock::now();
    ASSERT_EQ(put("mine", numbered_value(round)), 0u) << round;
    ASSERT_LT(ms_since(start), kDeadlineMs) << round;
    ASSERT_EQ(value_of("mine"), numbered_value(round));
    for (const char *key : {"key 0", "key 1", "key 2"}) {
      std::string value;
      const uint32_t code = read(key, &value);
      ASSERT_TRUE(code == kNoKeyCode || (code == 0 && is_whole(value))) << round << " " << std::hex << code;
    }
  }
  EXPECT_LT(slots_in_use(), 20u);
}

TEST_F(SdbProcesses, StoppedInsideACommitLetOthersReadAndOpen) {
  ASSERT_EQ(open(), 0u);
  ASSERT_EQ(put("key", "before"), 0u);
  const pid_t stopped = start_writer_that_stops_inside_its_commit();
  const auto start = Clock::now();
  EXPECT_EQ(value_of("key"), "before");
  std::thread([&] { EXPECT_EQ(value_of("key"), "before"); }).join();
  EXPECT_EQ(in_child([&] { return open() == 0 && value_of("key") == "before" ? 0 : 1; }), 0);
  EXPECT_LT(ms_since(start), kDeadlineMs);
  end(stopped);
}

TEST_F(SdbProcesses, StoppedInsideACommitHoldWritersUpUntilTheirDeadlineOnly) {
  ASSERT_EQ(open(), 0u);
  ASSERT_EQ(put("key", "before"), 0u);
  const pid_t stopped = start_writer_that_stops_inside_its_commit();
  const auto start = Clock::now();
  std::thread other([&] { EXPECT_EQ(put("key", "too"), kBusyCode); });
  EXPECT_EQ(put("key", "mine"), kBusyCode);
  EXPECT_THAT(syserr2str(kBusyCode), HasSubstr("waited 2000 ms"));
  other.join();
  EXPECT_GE(ms_since(start), kDeadlineMs - 100);
  EXPECT_LT(ms_since(start), 2 * kDeadlineMs);  // both waited at once
  EXPECT_EQ(done(), 0u);                        // what failed is no longer staged
  EXPECT_EQ(value_of("key"), "before");

  kill(stopped, SIGCONT);
  EXPECT_EQ(status_of(stopped), 0);
  EXPECT_EQ(value_of("key"), "of the stopped one");
  EXPECT_EQ(put("key", "after"), 0u);
}

TEST_F(SdbProcesses, KilledInsideACommitChangeNothing) {
  ASSERT_EQ(open(), 0u);
  ASSERT_EQ(put("key", "before"), 0u);
  for (void (*&hook)() : {std::ref(at_head_write), std::ref(at_txn_begin)}) {
    EXPECT_EQ(in_child([&] {
                read("key");
                hook = kill_self;
                return put("key", "of the killed one") == 0 ? 0 : 1;
              }),
              1000 + SIGKILL);
    const auto start = Clock::now();
    EXPECT_EQ(value_of("key"), "before");
    EXPECT_EQ(put("other", "after"), 0u);
    EXPECT_LT(ms_since(start), kDeadlineMs);
  }
}

TEST_F(SdbProcesses, StoppedWhileTakingASlotKeepNewcomersOutForNow) {
  ASSERT_EQ(open(), 0u);
  ASSERT_EQ(put("key", "value"), 0u);
  const pid_t doomed = start_child([&] {
    if (stage("key", "of the killed one") != 0) return 1;
    raise(SIGSTOP);
    at_head_write = kill_self;
    return static_cast<int>(done());
  });
  wait_until_stopped(doomed);
  const pid_t stopped = start_child([&] {
    at_txn_begin = stop_self;
    return static_cast<int>(read("key"));
  });
  wait_until_stopped(stopped);
  EXPECT_EQ(value_of("key"), "value");
  const auto start = Clock::now();
  EXPECT_EQ(in_child([&] { return open() == kRetryCode && read("key") == kRetryCode ? 0 : 1; }), 0);
  std::thread([&] { EXPECT_EQ(read("key"), kRetryCode); }).join();
  EXPECT_LT(ms_since(start), kDeadlineMs);
  EXPECT_EQ(put("key", "meanwhile"), 0u);

  // LMDB's writer lock of one who died in its possession is taken together with its table of readers.
  kill(doomed, SIGCONT);
  EXPECT_EQ(status_of(doomed), 1000 + SIGKILL);
  EXPECT_EQ(value_of("key"), "meanwhile");
  EXPECT_EQ(put("key", "late"), kBusyCode);

  kill(stopped, SIGCONT);
  EXPECT_EQ(status_of(stopped), 0);
  EXPECT_EQ(in_child([&] { return static_cast<int>(open()); }), 0);
  EXPECT_EQ(put("key", "after"), 0u);
}

TEST_F(SdbProcesses, KilledWhileWaitingToCommitHoldNobodyUp) {
  ASSERT_EQ(open(), 0u);
  ASSERT_EQ(put("key", "before"), 0u);
  const pid_t stopped = start_writer_that_stops_inside_its_commit();
  std::vector<pid_t> waiting;
  for (int i = 0; i < 3; ++i) {
    waiting.push_back(start_child([&] {
      const LibraryCalls<library_nanosleep> calls("libsdb.so", [](const Time64 *, Time64 *) {
        raise(SIGSTOP);
        return std::optional(0);
      });
      return static_cast<int>(put("key", "of one who waits"));
    }));
    wait_until_stopped(waiting.back());
  }
  for (const pid_t child : waiting) end(child);
  kill(stopped, SIGCONT);
  EXPECT_EQ(status_of(stopped), 0);
  const auto start = Clock::now();
  EXPECT_EQ(put("key", "after"), 0u);
  EXPECT_LT(ms_since(start), kDeadlineMs);
}

// One that comes again at once doesn't overtake one that waits.
struct Turns {
  std::atomic<bool> waits;
  std::atomic<unsigned> commits;
};
Turns *turns;

TEST_F(SdbProcesses, TakeTurnsInCommitting) {
  constexpr unsigned kMine = 20;
  turns = static_cast<Turns *>(mmap(nullptr, sizeof(Turns), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(turns, MAP_FAILED);
  ASSERT_EQ(open(), 0u);
  const pid_t other = start_child([&] {
    const LibraryCalls<library_nanosleep> calls("libsdb.so", [](const Time64 *, Time64 *) -> std::optional<int> {
      turns->waits = true;
      return std::nullopt;
    });
    while (put("key", "of the other") == 0) ++turns->commits;
    return 1;
  });
  at_head_write = [] {
    turns->waits = false;
    const auto start = Clock::now();
    while (!turns->waits && ms_since(start) < kDeadlineMs) std::this_thread::yield();
  };
  EXPECT_EQ(put("key", "mine"), 0u);
  const unsigned before = turns->commits;
  for (unsigned i = 0; i < kMine; ++i) EXPECT_EQ(put("key", "mine"), 0u);
  at_head_write = nullptr;
  // It may be overtaken while it waits for its turn to wait.
  EXPECT_GT(turns->commits, before + kMine / 2);
  end(other);
  munmap(turns, sizeof(Turns));
}

TEST_F(SdbProcesses, SurviveACutOfTheGateWhileTheyWait) {
  ASSERT_EQ(open(), 0u);
  ASSERT_EQ(put("key", "before"), 0u);
  const pid_t stopped = start_writer_that_stops_inside_its_commit();
  EXPECT_EQ(in_child([&] {
              const LibraryCalls<library_nanosleep> calls("libsdb.so", [&](const Time64 *, Time64 *) {
                return std::optional(truncate((data_file + "-gate").c_str(), 0));
              });
              return put("key", "mine") == kDamagedCode ? 0 : 1;
            }),
            0);
  end(stopped);
}

// A table of readers as small as the first process to open the database wants it.
class SdbSlots : public SdbProcesses {
 protected:
  static constexpr unsigned kSlots = 4;

  SdbSlots() {
    make_gate();
    int ready[2];
    EXPECT_EQ(pipe(ready), 0);
    keeper_ = start_child([&] {
      MDB_env *env = nullptr;
      mdb_env_create(&env);
      mdb_env_set_maxreaders(env, kSlots);
      if (mdb_env_open(env, data_file.c_str(), MDB_NOSUBDIR, 0600) != 0) return 1;
      if (write(ready[1], "", 1) != 1) return 2;
      for (;;) pause();
      return 0;
    });
    char byte;
    EXPECT_EQ(::read(ready[0], &byte, 1), 1);
    close(ready[0]);
    close(ready[1]);
  }
  ~SdbSlots() override { end(keeper_); }

 private:
  pid_t keeper_;
};

TEST_F(SdbSlots, AreGivenBackByThreadsThatEnd) {
  ASSERT_EQ(open(), 0u);
  ASSERT_EQ(put("key", "value"), 0u);
  for (int i = 0; i < 50; ++i) std::thread([&] { ASSERT_EQ(value_of("key"), "value"); }).join();
}

TEST_F(SdbSlots, RunOutWithACodeThatSaysForNow) {
  ASSERT_EQ(open(), 0u);
  ASSERT_EQ(put("key", "value"), 0u);
  std::atomic<unsigned> full{0};
  pthread_barrier_t all;
  pthread_barrier_init(&all, nullptr, kSlots);
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < kSlots; ++i) {
    threads.emplace_back([&] {
      const uint32_t first = read("key");
      if (first == kRetryCode) ++full;
      pthread_barrier_wait(&all);
      EXPECT_EQ(read("key"), first);
      pthread_barrier_wait(&all);  // a thread that ends leaves its slot to the one without
    });
  }
  for (std::thread &thread : threads) thread.join();
  pthread_barrier_destroy(&all);
  EXPECT_EQ(full, 1u);  // the main thread has one, so one of these found none
  std::thread([&] { EXPECT_EQ(value_of("key"), "value"); }).join();
}

TEST_F(SdbSlots, RefuseAnOpeningForNow) {
  std::vector<pid_t> others;
  ASSERT_EQ(open(), 0u);
  for (unsigned i = 1; i < kSlots; ++i) {
    others.push_back(start_child([&] {
      if (open() != 0) return 1;
      raise(SIGSTOP);
      return 0;
    }));
    wait_until_stopped(others.back());
  }
  EXPECT_EQ(in_child([&] {
              if (open() != kRetryCode) return 1;
              return std::string(syserr2str(kRetryCode)).find("reader") == std::string::npos ? 2 : 0;
            }),
            0);
  for (const pid_t other : others) end(other);
  EXPECT_EQ(in_child([&] { return static_cast<int>(open()); }), 0);
}

TEST_F(SdbSlots, OfTheDeadAreClearedWhenTheTableIsFull) {
  ASSERT_EQ(open(), 0u);
  ASSERT_EQ(put("key", "value"), 0u);
  for (unsigned i = 0; i < 3 * kSlots; ++i) {
    EXPECT_EQ(in_child([&] {
                if (value_of("key") != "value") return 1;
                raise(SIGKILL);
                return 0;
              }),
              1000 + SIGKILL);
  }
  std::thread([&] { EXPECT_EQ(value_of("key"), "value"); }).join();
}

TEST_F(SdbSlots, OfThoseWhoDiedTogetherAreClearedByAReader) {
  ASSERT_EQ(open(), 0u);
  ASSERT_EQ(put("key", "value"), 0u);
  std::vector<pid_t> others;
  for (unsigned i = 1; i < kSlots; ++i) {
    others.push_back(start_child([&] {
      if (value_of("key") != "value") return 1;
      raise(SIGSTOP);
      return 0;
    }));
    wait_until_stopped(others.back());
  }
  std::thread([&] { EXPECT_EQ(read("key"), kRetryCode); }).join();
  for (const pid_t other : others) end(other);
  std::thread([&] { EXPECT_EQ(value_of("key"), "value"); }).join();
}

// A thread keeps copies of what it read last: a commit anywhere ends them.
TEST_F(SdbProcesses, SeeWhatAnotherCommittedAtOnce) {
  ASSERT_EQ(open(), 0u);
  EXPECT_EQ(read("key"), kNoKeyCode);
  for (int i = 0; i < 50; ++i) {
    const std::string value = "value " + std::to_string(i);
    ASSERT_EQ(in_child([&] { return put("key", value) == 0 ? 0 : 1; }), 0);
    EXPECT_EQ(value_of("key"), value);
    EXPECT_EQ(value_of("key"), value);
  }
  ASSERT_EQ(in_child([&] { return remove("key") == 0 ? 0 : 1; }), 0);
  EXPECT_EQ(read("key"), kNoKeyCode);
}

}  // namespace
