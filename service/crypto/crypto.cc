#include "crypto/crypto.h"

#include <sodium.h>
#include <spdlog/spdlog.h>

#include <stdexcept>

namespace ksd {

Crypto::Crypto(Tamper tamper) {
  if (sodium_init() < 0) throw std::runtime_error("libsodium can't be started: is there a system random generator?");
  passed_ = self_test(tamper);
  for (size_t i = 0; i < passed_.size(); ++i) {
    if (passed_[i]) continue;
    spdlog::critical("{} failed its self-test and is refused; reinstall the cryptographic library, then restart",
                     algorithm_name(static_cast<Algorithm>(i)));
  }
}

}  // namespace ksd
