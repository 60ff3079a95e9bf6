// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// The self-test: everything passes, and what fails is told apart.
#include "crypto/self_test.h"

#include <gtest/gtest.h>

#include <set>

namespace ksd::crypto {
namespace {

// Tamper is a plain function, so which algorithm it spoils stands outside of it.
Algorithm spoiled = Algorithm::kCount;

void spoil(Algorithm algorithm, std::span<uint8_t> computed) {
  if (algorithm == spoiled) computed.back() ^= 1;
}

TEST(SelfTest, PassesEveryAlgorithm) {
  EXPECT_TRUE(self_test().all());
}

TEST(SelfTest, FailsAnAlgorithmThatComputesAnotherValueAlone) {
  for (size_t i = 0; i < static_cast<size_t>(Algorithm::kCount); ++i) {
    spoiled = static_cast<Algorithm>(i);
    EXPECT_EQ(self_test(spoil), AlgorithmSet().set().reset(i)) << algorithm_name(spoiled);
  }
  spoiled = Algorithm::kCount;
}

TEST(SelfTest, NamesEveryAlgorithmForTheLog) {
  EXPECT_EQ(algorithm_name(Algorithm::kAesEcb), "AES ECB");
  EXPECT_EQ(algorithm_name(Algorithm::kSha1), "SHA-1");
  EXPECT_EQ(algorithm_name(Algorithm::kTPrf), "T-PRF");
  EXPECT_EQ(algorithm_name(Algorithm::kCount), "an unknown algorithm");
  std::set<std::string_view> names{"an unknown algorithm"};
  for (size_t i = 0; i < static_cast<size_t>(Algorithm::kCount); ++i) {
    EXPECT_TRUE(names.insert(algorithm_name(static_cast<Algorithm>(i))).second) << i;
  }
}

}  // namespace
}  // namespace ksd::crypto
