// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// host_channel.h: how both ends of a channel change its words, and wait for a change.
#ifndef HOST_CHANNEL_H
#define HOST_CHANNEL_H

#include <linux/futex.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>

#include "host_wire.h"

namespace host {

inline uint32_t read_word(const uint32_t *word) {
  return __atomic_load_n(word, __ATOMIC_ACQUIRE);
}

// replace_word puts `wanted` in the place of `expected`, unless something else is there.
inline bool replace_word(uint32_t *word, uint32_t expected, uint32_t wanted) {
  return __atomic_compare_exchange_n(word, &expected, wanted, false, __ATOMIC_ACQ_REL, __ATOMIC_RELAXED);
}

inline uint32_t serial_of(uint32_t word) {
  return word & HOST_CHANNEL_SERIAL;
}

// sleep_on waits for a wake-up or until `limit` has passed (null: for any time), if the word is `expected`. Returns 0
// or an error number: EAGAIN for another word, EINTR, ETIMEDOUT; anything else says that there is no waiting here. The
// word is in memory that another process maps too, so it is a shared futex.
inline int sleep_on(uint32_t *word, uint32_t expected, const timespec *limit) {
#ifdef SYS_futex_time64
  constexpr long kCall = SYS_futex_time64;  // with the timespec of this build, which has 64 bits everywhere
#else
  constexpr long kCall = SYS_futex;
#endif
  return syscall(kCall, word, FUTEX_WAIT, expected, limit, nullptr, 0) == 0 ? 0 : errno;
}

// wake wakes whoever sleeps on the word, and tells how many did; -1 with errno.
inline long wake(uint32_t *word) {
  return syscall(SYS_futex, word, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
}

// post writes what the word is from now on, for whoever waits for it. Returns what it was before, and in `out_woken`
// whether somebody was woken.
inline uint32_t post(uint32_t *word, uint32_t wanted, bool *out_woken) {
  const uint32_t before = __atomic_exchange_n(word, wanted, __ATOMIC_ACQ_REL);
  *out_woken = (before & HOST_CHANNEL_WAITING) != 0 && wake(word) > 0;
  return before;
}

}  // namespace host

#endif
