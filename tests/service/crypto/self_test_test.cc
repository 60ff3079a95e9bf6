// The self-test: everything passes, and what fails is told apart.
#include "crypto/self_test.h"

#include <gtest/gtest.h>

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
  for (size_t i = 0; i < static_cast<size_t>(Algorithm::kCount); ++i) {
    EXPECT_NE(algorithm_name(static_cast<Algorithm>(i)), "an unknown algorithm");
  }
}

}  // namespace
}  // namespace ksd::crypto
