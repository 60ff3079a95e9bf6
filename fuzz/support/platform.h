// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// platform.h: platform libraries that answer every request with one reply and every read of the cache with one value,
// both guarded at their end. All gates are open, so that every report is formatted. The library's heap is watched: some
// blocks stay allocated by promise, and go with the input.
#ifndef FUZZ_PLATFORM_H
#define FUZZ_PLATFORM_H

#include <optional>

#include "fuzz.h"

namespace fuzz {

// Run is what one input does. At its end all of the library's blocks are freed, those that were handed out included.
struct Run {
  Run() = default;
  Run(const Run &) = delete;
  Run &operator=(const Run &) = delete;
  ~Run();
};

// reply_with makes the bytes the payload of every reply.
void reply_with(Bytes payload);

// cache_with makes the bytes the value of every key, or empties the cache. It is open in any case.
void cache_with(std::optional<Bytes> value);

// cache_value gives the value of every key, as the library may have changed it meanwhile.
const std::optional<std::vector<uint8_t>> &cache_value();

}  // namespace fuzz

#endif
