// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "crypto/crypto.h"

#include <sodium.h>

#include "base/log.h"
#include "base/refuse.h"

namespace ksd::crypto {

AlgorithmSet start() {
  if (sodium_init() < 0) refuse("libsodium can't be started: is there a system random generator?");
  const AlgorithmSet passed = self_test();
  for (size_t i = 0; i < passed.size(); ++i) {
    if (passed[i]) continue;
    tell(event::kAlgorithmFailed,
         "{} failed its self-test and is refused; reinstall the cryptographic library, then restart",
         algorithm_name(static_cast<Algorithm>(i)));
  }
  return passed;
}

}  // namespace ksd::crypto
