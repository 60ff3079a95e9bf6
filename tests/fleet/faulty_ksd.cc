// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// What makes a daemon faulty: its copy of the protocol has the mutants in it, and KS_FLEET_MUTANT is the number of one.
// A run of such daemons shows that its checker finds it.
#include <cstdlib>

#include "fleet/mutants.h"

namespace ksd::fleet {
namespace {

Mutant from_environment() {
  const char *number = std::getenv("KS_FLEET_MUTANT");
  return number == nullptr ? Mutant::kNone : static_cast<Mutant>(std::atoi(number));
}

}  // namespace

thread_local Mutant mutant_in_force = from_environment();

}  // namespace ksd::fleet
