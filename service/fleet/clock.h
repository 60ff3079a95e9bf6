// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// clock.h: the clock that the age of what is in memory is told by. It goes on while the machine sleeps, and nobody sets
// it.
#ifndef SERVICE_FLEET_CLOCK_H
#define SERVICE_FLEET_CLOCK_H

#include <ctime>

#include "fleet/core.h"

namespace ksd::fleet {

inline Time clock_now() {
  timespec now{};
  clock_gettime(CLOCK_BOOTTIME, &now);
  return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

}  // namespace ksd::fleet

#endif
