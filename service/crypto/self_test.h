// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// self_test.h: each algorithm proves itself on published values before it is used.
#ifndef SERVICE_CRYPTO_SELF_TEST_H
#define SERVICE_CRYPTO_SELF_TEST_H

#include <bitset>
#include <cstdint>
#include <span>
#include <string_view>

#include "base/bytes.h"

namespace ksd::crypto {

enum class Algorithm : uint8_t {
  kAesEcb,
  kAesCbc,
  kDes,
  kTripleDes,
  kHmacMd5,
  kHmacSha1,
  kMd5,
  kSha1,
  kNtResponse,
  kAuthenticatorResponse,
  kNewPassword,
  kOldHash,
  kMasterKey,
  kTPrf,
  kCount,
};

using AlgorithmSet = std::bitset<static_cast<size_t>(Algorithm::kCount)>;

std::string_view algorithm_name(Algorithm algorithm);

// Tamper spoils what an algorithm has computed, before it is compared. It is how the tests have algorithms fail.
using Tamper = void (*)(Algorithm algorithm, std::span<uint8_t> computed);

// self_test computes every algorithm's values, and gives those that came out right.
AlgorithmSet self_test(Tamper tamper = nullptr);

}  // namespace ksd::crypto

#endif
