// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// cleanse.h: overwrites what was derived from a key when its scope is left, however it is left, and what libraries
// leave.
#ifndef SERVICE_CRYPTO_CLEANSE_H
#define SERVICE_CRYPTO_CLEANSE_H

#include <sodium.h>

#include <type_traits>

namespace ksd::crypto {

// Cleansed holds a T on the stack and overwrites it at the end of the scope, which the compiler may not leave out.
template <typename T>
struct Cleansed {
  static_assert(std::is_trivially_copyable_v<T> && std::is_trivially_destructible_v<T>);

  Cleansed() = default;
  explicit Cleansed(const T &initial) : value(initial) {}
  Cleansed(const Cleansed &) = delete;
  Cleansed &operator=(const Cleansed &) = delete;
  ~Cleansed() { sodium_memzero(&value, sizeof value); }

  T value;
};

// cleanse_stack overwrites what calls that have returned left below the caller's frame: Nettle copies the block that it
// digests, and so a password or a key, into frames of its own.
inline void cleanse_stack() {
  constexpr size_t kDeepest = 4096;  // twice what any of our handlers takes
  sodium_stackzero(kDeepest);
}

}  // namespace ksd::crypto

#endif
