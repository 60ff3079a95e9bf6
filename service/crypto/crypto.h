// crypto.h: what the cryptographic messages share: which algorithms may be used, and the keys that are ready for use.
#ifndef SERVICE_CRYPTO_CRYPTO_H
#define SERVICE_CRYPTO_CRYPTO_H

#include "crypto/key_cache.h"
#include "crypto/self_test.h"

namespace ksd {

class Crypto {
 public:
  // The self-test runs here. An algorithm that fails it is logged, and is refused from then on, alone.
  explicit Crypto(Tamper tamper = nullptr);

  bool usable(Algorithm algorithm) const { return passed_.test(static_cast<size_t>(algorithm)); }

  KeyCache keys;

 private:
  AlgorithmSet passed_;
};

}  // namespace ksd

#endif
