// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// simulator.h: three machines and a model of the engine, run through a schedule that a number decides: delays, losses,
// partitions, restarts, compaction and tampering. A checker looks at all that happens. The same number gives the same
// run, to the last event.
#ifndef TESTS_SUPPORT_FLEET_SIMULATOR_SIMULATOR_H
#define TESTS_SUPPORT_FLEET_SIMULATOR_SIMULATOR_H

#include <cstdint>
#include <string>

#include "fleet/mutants.h"

namespace ksd::fleet {

// Schedule says what a run is.
struct Schedule {
  uint64_t seed = 0;
  Mutant mutant = Mutant::kNone;
  bool tells = false;  // each event, on standard error
};

// Outcome is how it went.
struct Outcome {
  std::string violation;  // the first; empty when there was none
  uint64_t trace = 0;     // of all events in their order
  uint64_t changes = 0;   // that were acknowledged
  uint64_t refused = 0;
  uint64_t unknown = 0;
  uint64_t reads = 0;
  uint64_t loads = 0;
  uint64_t lost_deletes = 0;  // that the engine's watch left out
  uint64_t tampered = 0;      // schedules with tampering, which was found
  uint64_t restored = 0;      // how often a backup took the place of all that there was
  uint64_t restores = 0;      // of so many that began
  uint64_t key_changes = 0;   // that came to their end

  void add(const Outcome &other);
};

Outcome run(const Schedule &schedule);

// Shares is what three machines that are always busy get when one is far from the engine.
struct Shares {
  uint64_t far = 0, near = 0;  // changes of the far one, and of the others on average
  int64_t longest_ms = 0;      // that a change of the far one took
};
Shares contend(uint64_t seed, Mutant mutant);

}  // namespace ksd::fleet

#endif
