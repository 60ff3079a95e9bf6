// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "server/gate.h"

namespace ksd::server {

void Gate::wait() {
  Waiter self;
  std::unique_lock lock(mutex_);
  if (let_in_early_ != 0) {
    --let_in_early_;
    return;
  }
  waiters_.push(self);
  self.let_in.wait(lock, [&] { return self.is_in; });
}

void Gate::let_one_in() {
  const std::lock_guard lock(mutex_);
  if (waiters_.empty()) {
    ++let_in_early_;
    return;
  }
  Waiter &next = waiters_.pop();
  next.is_in = true;
  next.let_in.notify_one();  // under the lock: the waiter is gone as soon as it is free
}

}  // namespace ksd::server
