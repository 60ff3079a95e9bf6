// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "fleet_simulator/simulator.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <thread>
#include <vector>

namespace ksd::fleet {
namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || defined(KS_COVERAGE)
constexpr uint64_t kSchedules = 100, kSchedulesForAFault = 300, kContests = 1;
#else
constexpr uint64_t kSchedules = 10'000, kSchedulesForAFault = kSchedules, kContests = 2;
#endif

uint64_t number_from(const char *variable, uint64_t otherwise) {
  const char *text = std::getenv(variable);
  return text == nullptr ? otherwise : std::strtoull(text, nullptr, 10);
}

uint64_t first_seed() {
  return number_from("KS_FLEET_SEED", 1);
}

uint64_t schedules() {
  return number_from("KS_FLEET_SCHEDULES", kSchedules);
}

TEST(Simulator, FindsNothingInAnySchedule) {
  const bool tells = std::getenv("KS_FLEET_TELLS") != nullptr;
  const uint64_t end = first_seed() + schedules();
  std::atomic<uint64_t> next{first_seed()};
  std::mutex mutex;
  Outcome all;
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < std::max(1u, std::thread::hardware_concurrency()); ++i) {
    threads.emplace_back([&] {
      Outcome mine;
      for (uint64_t seed = next++; seed < end && mine.violation.empty(); seed = next++) {
        Outcome one = run({.seed = seed, .tells = tells});
        if (!one.violation.empty()) {
          one.violation += fmt::format("; KS_FLEET_SEED={} KS_FLEET_SCHEDULES=1 KS_FLEET_TELLS=1 shows it again", seed);
        }
        mine.add(one);
      }
      const std::lock_guard lock(mutex);
      all.add(mine);
    });
  }
  for (std::thread &thread : threads) thread.join();
  EXPECT_EQ(all.violation, "");
  fmt::print(
      "{} schedules: {} changes acknowledged, {} refused, {} unknown; {} looks at a memory, {} loads, {} deletes that "
      "a watch lost, {} times tampered with, {} of {} restores done, {} times another master key\n",
      schedules(), all.changes, all.refused, all.unknown, all.reads, all.loads, all.lost_deletes, all.tampered,
      all.restored, all.restores, all.key_changes);
}

// Otherwise nothing that is found could be looked into.
TEST(Simulator, RunsAScheduleAgainToTheSameEnd) {
  for (uint64_t seed = first_seed(); seed < first_seed() + 30; ++seed) {
    const Outcome once = run({.seed = seed}), again = run({.seed = seed});
    ASSERT_EQ(once.trace, again.trace) << "seed " << seed;
    ASSERT_EQ(once.reads, again.reads) << "seed " << seed;
    ASSERT_NE(once.trace, run({.seed = seed + 1}).trace);
  }
}

struct Fault {
  Mutant mutant;
  const char *name;
};

class SimulatorFinds : public testing::TestWithParam<Fault> {};

TEST_P(SimulatorFinds, TheFault) {
  for (uint64_t seed = 1; seed <= kSchedulesForAFault; ++seed) {
    const Outcome outcome = run({.seed = seed, .mutant = GetParam().mutant});
    if (outcome.violation.empty()) continue;
    fmt::print("found by schedule {}: {}\n", seed, outcome.violation);
    EXPECT_EQ(run({.seed = seed, .mutant = GetParam().mutant}).violation, outcome.violation) << "not the same again";
    return;
  }
  FAIL() << "not found in " << kSchedulesForAFault << " schedules";
}

INSTANTIATE_TEST_SUITE_P(
    , SimulatorFinds,
    testing::Values(
        Fault{Mutant::kNoCompare, "NoCompare"}, Fault{Mutant::kSuccessWhenUnknown, "SuccessWhenUnknown"},
        Fault{Mutant::kDishonestAge, "DishonestAge"}, Fault{Mutant::kAgeOfUnreached, "AgeOfUnreached"},
        Fault{Mutant::kApplyBeforeTheAnswer, "ApplyBeforeTheAnswer"},
        Fault{Mutant::kAnswerBeforeApplying, "AnswerBeforeApplying"},
        Fault{Mutant::kRefuseUnconfirmed, "RefuseUnconfirmed"}, Fault{Mutant::kRetryAfterUnknown, "RetryAfterUnknown"},
        Fault{Mutant::kDigestUnchecked, "DigestUnchecked"}, Fault{Mutant::kRollBackAccepted, "RollBackAccepted"},
        Fault{Mutant::kTamperingForgotten, "TamperingForgotten"}, Fault{Mutant::kLateAnswer, "LateAnswer"},
        Fault{Mutant::kRefusedWritten, "RefusedWritten"}, Fault{Mutant::kNeverCounts, "NeverCounts"},
        Fault{Mutant::kMixesFolders, "MixesFolders"}, Fault{Mutant::kRestoreUnasked, "RestoreUnasked"},
        Fault{Mutant::kRestoreUnguarded, "RestoreUnguarded"}, Fault{Mutant::kMovesTooEarly, "MovesTooEarly"},
        Fault{Mutant::kKeyNotKept, "KeyNotKept"}, Fault{Mutant::kOutIgnored, "OutIgnored"}),
    [](const auto &fault) { return std::string(fault.param.name); });

TEST(Simulator, LetsAFarMachineHaveItsTurn) {
  for (uint64_t seed = 1; seed <= kContests; ++seed) {
    const Shares shares = contend(seed, Mutant::kNone);
    EXPECT_GT(shares.far * 100, shares.near) << "seed " << seed;
    EXPECT_LT(shares.longest_ms, 500) << "seed " << seed;
  }
}

TEST(Simulator, FindsMachinesThatDontPauseForAnother) {
  const Shares shares = contend(1, Mutant::kSelfish);
  EXPECT_FALSE(shares.far * 100 > shares.near && shares.longest_ms < 500)
      << shares.far << " of " << shares.near << ", " << shares.longest_ms << " ms";
}

}  // namespace
}  // namespace ksd::fleet
