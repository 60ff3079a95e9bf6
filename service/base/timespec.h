// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// timespec.h: durations as system calls take them.
#ifndef SERVICE_BASE_TIMESPEC_H
#define SERVICE_BASE_TIMESPEC_H

#include <chrono>
#include <ctime>

namespace ksd {

inline timespec to_timespec(std::chrono::nanoseconds time) {
  constexpr int64_t kSecond = 1'000'000'000;
  return {.tv_sec = time.count() / kSecond, .tv_nsec = time.count() % kSecond};
}

}  // namespace ksd

#endif
