// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// cleanse.h: overwrites what was derived from a key when its scope is left, however it is left.
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

}  // namespace ksd::crypto

#endif
