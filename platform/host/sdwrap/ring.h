// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// ring.h: the newest reports of this process, in a mapped file that can be read at any time, by others too.
#ifndef SDWRAP_RING_H
#define SDWRAP_RING_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

namespace sdwrap {

// record writes one record of `kind`, a HOST_RING_ kind, if there is a ring or one can be made: the first record makes
// it. Takes no lock and waits for nobody, and leaves errno as it was. Bytes beyond kMaxRecord are cut. Returns the
// record's time, read from `clock`.
uint64_t record(uint16_t kind, const void *data, size_t length, clockid_t clock);

inline constexpr size_t kMaxRecord = 516;

// keep_ring_visible makes the ring's file again if it has been removed with its folder, with what it held.
void keep_ring_visible();

}  // namespace sdwrap

#endif
