// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "fleet_simulator/simulator.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <cstdlib>

namespace ksd::fleet {
namespace {

uint64_t number_from(const char *variable, uint64_t otherwise) {
  const char *text = std::getenv(variable);
  return text == nullptr ? otherwise : std::strtoull(text, nullptr, 10);
}

TEST(Simulator, FindsNothingInAnySchedule) {
  const uint64_t first = number_from("KS_FLEET_SEED", 1);
  const uint64_t schedules = number_from("KS_FLEET_SCHEDULES", 10'000);
  Outcome all;
  for (uint64_t seed = first; seed < first + schedules; ++seed) {
    const Outcome one = run({.seed = seed, .tells = std::getenv("KS_FLEET_TELLS") != nullptr});
    ASSERT_EQ(one.violation, "") << "KS_FLEET_SEED=" << seed << " KS_FLEET_SCHEDULES=1 repeats it";
    all.add(one);
  }
  fmt::print("{} schedules: {} changes acknowledged, {} refused, {} unknown; {} reads, {} loads, {} lost deletes, {} "
             "tampered with\n", schedules, all.changes, all.refused, all.unknown, all.reads, all.loads, all.lost_deletes,
             all.tampered);
}

}  // namespace
}  // namespace ksd::fleet
