// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// crypto.h: what the cryptographic messages share: which algorithms may be used, and the keys that are ready for use.
#ifndef SERVICE_CRYPTO_CRYPTO_H
#define SERVICE_CRYPTO_CRYPTO_H

#include "crypto/key_cache.h"
#include "crypto/self_test.h"

namespace ksd::crypto {

// start runs the self-test, and gives the algorithms that passed it. Each that failed is logged. Throws
// std::runtime_error when there are no random numbers to be had.
AlgorithmSet start();

class Crypto {
 public:
  explicit Crypto(AlgorithmSet usable) : usable_(usable) {}

  bool usable(Algorithm algorithm) const { return usable_.test(static_cast<size_t>(algorithm)); }

  KeyCache keys;

 private:
  const AlgorithmSet usable_;
};

}  // namespace ksd::crypto

#endif
