// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "sdwrap_hooks.h"

#include <dlfcn.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

long clock_ahead = 0;
int interrupted_writes = 0;

extern "C" {

int clock_gettime(clockid_t clock, timespec *out) noexcept {
  static auto *const real = reinterpret_cast<int (*)(clockid_t, timespec *)>(dlsym(RTLD_NEXT, "clock_gettime"));
  const int result = real(clock, out);
  out->tv_sec += clock_ahead;
  return result;
}

#ifdef __i386__
// The name that programs with times of 64 bits have for it.
struct Time64 {
  int64_t seconds;
  int64_t nanoseconds;
};
int clock_gettime_64(clockid_t clock, Time64 *out) noexcept __asm__("__clock_gettime64");

int clock_gettime_64(clockid_t clock, Time64 *out) noexcept {
  static auto *const real = reinterpret_cast<int (*)(clockid_t, Time64 *)>(dlsym(RTLD_NEXT, "__clock_gettime64"));
  const int result = real(clock, out);
  out->seconds += clock_ahead;
  return result;
}
#endif

ssize_t write(int file, const void *bytes, size_t size) {
  static auto *const real = reinterpret_cast<ssize_t (*)(int, const void *, size_t)>(dlsym(RTLD_NEXT, "write"));
  if (file == STDERR_FILENO && interrupted_writes > 0) {
    interrupted_writes--;
    errno = EINTR;
    return -1;
  }
  return real(file, bytes, size);
}
}
