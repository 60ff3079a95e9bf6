// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "handlers/service.h"

namespace ksd::handlers {

Service::Service(std::unique_ptr<vault::Store> store, crypto::AlgorithmSet usable)
    : crypto(usable), store_(std::move(store)) {
  store_->on_retired([this](uint64_t generation) { crypto.keys.forget(generation); });
}

void Service::refused_name(const Caller &caller) {
  counters.add(Event::kForeignName);
  log_limiter.warn(LogLimiter::Kind::kForeignName, caller.uid, "user {} (pid {}) named an entry of another VDC",
                   caller.uid, caller.pid);
}

}  // namespace ksd::handlers
