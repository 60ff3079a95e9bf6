// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// leave.h: how a child of a test ends.
#ifndef TESTS_SUPPORT_LEAVE_H
#define TESTS_SUPPORT_LEAVE_H

#include <unistd.h>

#include <cstdlib>

namespace ks_test {

// leave ends a forked child and none of its parent's objects. Only a build that counts coverage runs the handlers of
// exit, which write the counters.
[[noreturn]] inline void leave(int status) {
#ifdef KS_COVERAGE
  std::exit(status);
#else
  _exit(status);
#endif
}

}  // namespace ks_test

#endif
