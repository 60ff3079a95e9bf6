// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// random_input.h: random input that can be had again.
#ifndef TESTS_SUPPORT_RANDOM_INPUT_H
#define TESTS_SUPPORT_RANDOM_INPUT_H

#include <charconv>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <random>
#include <stdexcept>
#include <string>
#include <system_error>

namespace ks_test {

// seed_of_run is one seed for all random input of a program: KS_TEST_SEED, or another one in every run. It is printed
// at its first use, so that what failed can be repeated.
inline unsigned seed_of_run() {
  static const unsigned seed = [] {
    unsigned value = std::random_device()();
    if (const char *wanted = std::getenv("KS_TEST_SEED"); wanted != nullptr) {
      const char *end = wanted + std::strlen(wanted);
      const auto [stop, error] = std::from_chars(wanted, end, value);
      if (error != std::errc() || stop != end) {
        throw std::runtime_error("KS_TEST_SEED isn't a number of 32 bits: " + std::string(wanted));
      }
    }
    std::cout << "random input: KS_TEST_SEED=" << value << " repeats it" << std::endl;
    return value;
  }();
  return seed;
}

// random_input starts anew for each test, so that a test gets the same input alone and among others.
inline std::mt19937 random_input() {
  return std::mt19937(seed_of_run());
}

}  // namespace ks_test

#endif
