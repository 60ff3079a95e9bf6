// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// Allocations of the thread that follows a fleet fail: whoever waits is answered, and the machine goes on.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <future>

#include "failing_memory/failing_memory.h"
#include "fixture.h"
#include "fleet/clock.h"
#include "fleet/shared_vault.h"
#include "fleet_simulator/prompt_engine.h"
#include "vault_files/vault_files.h"

namespace ksd::fleet {
namespace {

using failing_memory::arm;
using failing_memory::disarm;
using failing_memory::is_of_test;
using testing::AnyOf;
using vault::put;
using vault::secret_name;

// SparedEngine is a way to the store that may fail before and behind what it does, and never in the middle: the store
// isn't on this machine.
class SparedEngine final : public Engine {
 public:
  explicit SparedEngine(SharedStore &store) : engine_(store) {}

  void send(Request request) override {
    const auto before = std::make_unique<char>();
    const bool was_of_test = std::exchange(is_of_test, true);
    engine_.send(std::move(request));
    is_of_test = was_of_test;
  }
  void receive(std::vector<Report> &reports) override {
    const auto before = std::make_unique<char>();
    const bool was_of_test = std::exchange(is_of_test, true);
    engine_.receive(reports);
    is_of_test = was_of_test;
    const auto behind = std::make_unique<char>();
  }
  int file() const override { return engine_.file(); }
  short events() const override { return engine_.events(); }

 private:
  PromptEngine engine_;
};

class NoMemoryInAFleet : public testing::Test {
 protected:
  NoMemoryInAFleet() {
    is_of_test = true;
    start();
  }
  ~NoMemoryInAFleet() override { disarm(); }

  void start() {
    machine = std::make_unique<SharedVault>(
        SharedOptions{.machine = "x", .master_key = key, .create = true, .write_wait = 200ms},
        std::make_unique<SparedEngine>(store));
    ASSERT_TRUE(machine->wait_until_loaded(kSoon)) << machine->status().words;
  }

  // note keeps what a change was answered, to be held to it at the end.
  void note(const std::string &name, KsResult result) {
    EXPECT_THAT(result, AnyOf(KS_SUCCESS, KS_NO_MEMORY, KS_TIMEOUT, KS_FW_COMM_ERROR)) << name;
    answers[name] = result;
  }

  // recover waits until changes are taken again.
  void recover() {
    const Time end = clock_now() + kSoon;
    while (put(*machine, "after", "x") != KS_SUCCESS && !lasts(machine->status().standing) && clock_now() < end)
      poll(nullptr, 0, 1);
    ASSERT_EQ(put(*machine, "after", "x"), KS_SUCCESS) << machine->status().words;
  }

  // What was answered is so. Of a time-out nothing is known.
  void hold_to_answers() {
    recover();
    for (const auto &[name, result] : answers) {
      if (result != KS_TIMEOUT) {
        EXPECT_EQ(machine->exists(secret_name(name)), result == KS_SUCCESS) << name << " " << result;
      }
    }
    EXPECT_EQ(machine->status().standing, Standing::kGood);
  }

  const KeyPtr key = SecretBytes::copy_of(std::vector<uint8_t>(vault::kMasterKeySize, 7));
  SharedStore store;
  std::unique_ptr<SharedVault> machine;
  std::map<std::string, KsResult> answers;
};

TEST_F(NoMemoryInAFleet, AnswersEveryChangeAndStandsByIt) {
  long failed = 0, refused = 0;
  for (const long count : {1L, 1000000L}) {
    for (long first = 0; first < 300; ++first) {
      const std::string name = std::to_string(count) + "." + std::to_string(first);
      SCOPED_TRACE(name);
      arm(first, count);
      note(name, put(*machine, name, "x"));
      failed += disarm();
      refused += answers[name] == KS_NO_MEMORY;
      if (answers[name] != KS_SUCCESS) recover();
    }
  }
  EXPECT_GT(failed, 100);
  EXPECT_GT(refused, 50);
  hold_to_answers();
}

TEST_F(NoMemoryInAFleet, AnswersAllWhoAskAtOnce) {
  constexpr int kThreads = 8;
  for (long first = 0; first < 400; first += 7) {
    SCOPED_TRACE(first);
    std::vector<std::future<KsResult>> results;
    arm(first, 1000000);
    for (int i = 0; i < kThreads; ++i) {
      results.push_back(std::async(std::launch::async, [this, first, i] {
        is_of_test = true;
        return put(*machine, std::to_string(first) + "." + std::to_string(i), "x");
      }));
    }
    for (int i = 0; i < kThreads; ++i) {
      note(std::to_string(first) + "." + std::to_string(i), results[static_cast<size_t>(i)].get());
    }
    disarm();
  }
  hold_to_answers();
}

// Rows that are lost on the way into memory aren't missing in the store.
TEST_F(NoMemoryInAFleet, LoadsAgainRatherThanTakeTheStoreForTamperedWith) {
  for (const char *name : {"a", "b", "c"}) ASSERT_EQ(put(*machine, name, "secret"), KS_SUCCESS);
  bool failed = true;
  for (long nth = 0; failed; ++nth) {
    SCOPED_TRACE(nth);
    machine.reset();
    arm(nth, 1);
    start();
    EXPECT_EQ(machine->count(), 3u);
    failed = disarm();
    ASSERT_EQ(machine->status().standing, Standing::kGood) << machine->status().words;
  }
}

// What was asked for is gone when whoever asked is told so: nothing may be left behind that points to it.
TEST_F(NoMemoryInAFleet, TakesUpAllThatIsAskedAtOnceOrNothing) {
  for (const char *name : {"a", "b", "c", "d", "e"}) ASSERT_EQ(put(*machine, name, "secret"), KS_SUCCESS);
  const vault::Snapshot own = machine->snapshot();
  long refused = 0;
  for (long nth = 0; nth < 60; ++nth) {
    SCOPED_TRACE(nth);
    machine.reset();
    start();  // whose room for what is asked is still to be made
    ImportCounts counts;
    arm(nth, 1);
    is_of_test = false;
    try {
      machine->import(own.rows, vault::Taken::kRefuse, counts);
    } catch (const std::bad_alloc &) {
      ++refused;
    }
    is_of_test = true;
    disarm();
    recover();
  }
  EXPECT_GT(refused, 5);
}

TEST_F(NoMemoryInAFleet, TellsWhatItKnowsOrThatThereIsNoMemory) {
  long refused = 0;
  for (long first = 0; first < 30; ++first) {
    SCOPED_TRACE(first);
    arm(first, 1);
    try {
      const std::vector<MachineSeen> machines = machine->machines();
      ASSERT_EQ(machines.size(), 1);
      EXPECT_EQ(machines[0].name, "x");
    } catch (const std::bad_alloc &) {
      ++refused;
    }
    disarm();
  }
  EXPECT_GT(refused, 0);
}

TEST_F(NoMemoryInAFleet, EndsARestoreThatCantBegin) {
  const auto end_of_restore = [this] {
    const Time end = clock_now() + kSoon;
    Restore::Progress progress;
    do {
      progress = machine->wait_for_restore();
    } while (progress.state != RestoreState::kStopped && progress.state != RestoreState::kDone && clock_now() < end);
    return progress;
  };
  for (long first = 0; first < 3; ++first) {
    SCOPED_TRACE(first);
    arm(first, 1000000);
    ASSERT_EQ(machine->begin_restore({.rows = {}, .folder = 100}), KS_SUCCESS);
    const Restore::Progress progress = end_of_restore();
    disarm();
    EXPECT_EQ(progress.state, RestoreState::kStopped);
    EXPECT_EQ(progress.result, KS_NO_MEMORY);
  }
  ASSERT_EQ(machine->begin_restore({.rows = {}, .folder = 101}), KS_SUCCESS);
  EXPECT_EQ(end_of_restore().state, RestoreState::kDone);
  recover();
}

TEST_F(NoMemoryInAFleet, RestoresEachRowOnceWhereverItWasCutShort) {
  for (const char *name : {"a", "b", "c"}) ASSERT_EQ(put(*machine, name, "secret"), KS_SUCCESS);
  const vault::Snapshot backup = machine->snapshot();
  long nth = 0;
  for (bool failed = true; failed; ++nth) {
    SCOPED_TRACE(nth);
    SharedStore other;
    PromptEngine engine(other);
    Owners owners;
    Memory nothing(key, nullptr, std::nullopt, owners);
    Time now{};
    Restore restore(now,
                    {.rows = backup.rows,
                     .last_id = backup.header.last_id,
                     .last_version = backup.header.last_version,
                     .fleet = backup.vault_id,
                     .folder = 5},
                    {.writer = {.machine = "y", .session = 1, .sequence = 1}, .master_key = key}, nothing, owners,
                    [&, id = RequestId{0}](Request request) mutable {
                      is_of_test = true;
                      std::visit([&](auto &one) { one.id = ++id; }, request);
                      engine.send(std::move(request));
                      is_of_test = false;
                      return id;
                    });
    const auto have_it = [](auto step) {
      is_of_test = false;
      try {
        step();
      } catch (const std::bad_alloc &) {
      }
      is_of_test = true;
    };
    arm(nth, 1);
    std::vector<Report> reports;
    for (; !restore.is_over() && now < 60s; now += 100ms) {
      reports.clear();
      engine.receive(reports);
      for (const Report &report : reports) have_it([&] { restore.take(now, report); });
      have_it([&] { restore.tick(now); });
    }
    failed = disarm();
    ASSERT_EQ(restore.progress().state, RestoreState::kDone) << restore.progress().why;

    Memory::Loading loading(nothing);
    for (const auto &[name, row] : other.model.live()) {
      if (name.starts_with(kRowFolder)) loading.add({row});
    }
    OpenedHeader header;
    ASSERT_EQ(nothing.judge(other.model.header(), header), Verdict::kLater);
    EXPECT_TRUE(loading.finish(header)) << "its rows aren't those of its header";
  }
  EXPECT_GT(nth, 20);
}

}  // namespace
}  // namespace ksd::fleet
