// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// service.h: what all handlers share.
#ifndef SERVICE_HANDLERS_SERVICE_H
#define SERVICE_HANDLERS_SERVICE_H

#include <memory>

#include "base/caller.h"
#include "base/counters.h"
#include "base/latencies.h"
#include "base/log.h"
#include "crypto/crypto.h"
#include "vault/store.h"

namespace ksd::handlers {

class Service {
 public:
  // `store` is never null. `usable` are the algorithms that passed their self-test; messages of the others are refused.
  Service(std::unique_ptr<vault::Store> store, crypto::AlgorithmSet usable);

  vault::Store &store() { return *store_; }

  // refused_name counts and logs, without the name, that `caller` named an entry of a VDC that isn't the caller's.
  void refused_name(const Caller &caller);

  Counters counters;
  Latencies latencies;
  LogLimiter log_limiter;
  crypto::Crypto crypto;  // outlives the store, which tells it what is gone

 private:
  const std::unique_ptr<vault::Store> store_;
};

}  // namespace ksd::handlers

#endif
