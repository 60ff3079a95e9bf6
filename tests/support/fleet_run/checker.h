// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// checker.h: whether what clients were told can all be true. The versions of the header are the order in which the
// changes happened, and rows tell their changes: so each change has its place, and each read only has to be held to the
// versions that it may have seen.
#ifndef TESTS_SUPPORT_FLEET_RUN_CHECKER_H
#define TESTS_SUPPORT_FLEET_RUN_CHECKER_H

#include <cstdint>
#include <string>
#include <vector>

#include "fleet_run/notes.h"

namespace fleet_run {

// Seen is an entry of a walk over all, as a machine lists them.
struct Seen {
  uint16_t key = 0;
  uint64_t content = 0;
  friend bool operator==(const Seen &, const Seen &) = default;
};

struct Findings {
  std::vector<std::string> wrong;  // a line each; only the first are worded
  uint64_t violations = 0;
  uint64_t acknowledged = 0, refused = 0, unknown = 0, unknown_happened = 0, reads = 0, too_old = 0;
  uint64_t failed_without_trouble = 0;  // which is allowed, but shouldn't be many
  int64_t slowest_change = 0;
  std::vector<Seen> table;  // at the end, in its order
};

// check holds these:
// - versions follow each other, each leaves the table that its rows say, and is made of changes of the machine that
//   made it
// - a change that was acknowledged is in one version, one that was refused in none, and one whose outcome wasn't known
//   in one at most; a refusal for a reason had that reason at a time between question and answer
// - of two operations of which one was answered before the other began, the later one is of a later state
// - a machine reads its own changes, and never goes back while its service runs; what is read was the present state no
//   longer than the greatest age before
// - each change is answered in time, and none is refused for space while there is some
Findings check(const Run &run);

}  // namespace fleet_run

#endif
