// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// gate.h: how much of one user's work is done at a time, so that users with much to do leave room for the others.
#ifndef SERVICE_SERVER_GATE_H
#define SERVICE_SERVER_GATE_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "server/queue.h"

namespace ksd::server {

// Gate lets `limit` threads be inside at a time. The others wait, and come in in the order in which they arrived.
// Passing one that isn't full takes an atomic addition at each end. Nothing in it allocates or throws.
class Gate {
 public:
  explicit Gate(uint32_t limit) : limit_(limit) {}
  Gate(const Gate &) = delete;
  Gate &operator=(const Gate &) = delete;

  void enter() {
    if (here_.fetch_add(1, std::memory_order_acq_rel) >= limit_) wait();
  }
  void leave() {
    if (here_.fetch_sub(1, std::memory_order_acq_rel) > limit_) let_one_in();
  }

 private:
  struct Waiter {
    std::condition_variable let_in;
    bool is_in = false;
    Waiter *next = nullptr;
  };

  void wait();
  void let_one_in();

  // Inside and waiting together: whoever finds the limit reached waits, and whoever leaves more behind lets one in.
  alignas(64) std::atomic<uint32_t> here_{0};
  const uint32_t limit_;
  std::mutex mutex_;
  Queue<Waiter> waiters_;
  uint32_t let_in_early_ = 0;  // let in between the addition and the wait
};

// Share is a user's part in one kind of work: at any time `most` pieces of it, and `shared` while other users are
// connected. So a user who is alone has all processors, and one who comes doesn't find them taken.
class Share {
 public:
  // `crowded` tells whether other users are connected, and outlives this.
  Share(uint32_t most, uint32_t shared, const std::atomic<bool> &crowded)
      : crowded_(crowded), most_(most), shared_(shared) {}

  // Pass is the right to work, waited for when it is made.
  class Pass {
   public:
    explicit Pass(Share &share) : Pass(&share) {}
    // Without a share there is nothing to wait for.
    explicit Pass(Share *share)
        : share_(share), crowded_(share != nullptr && share->crowded_.load(std::memory_order_relaxed)) {
      if (share_ == nullptr) return;
      share_->most_.enter();
      if (crowded_) share_->shared_.enter();
    }
    ~Pass() { give_back(); }
    Pass(const Pass &) = delete;
    Pass &operator=(const Pass &) = delete;

    // give_back ends the right before the pass goes, for what isn't work.
    void give_back() {
      if (share_ == nullptr) return;
      if (crowded_) share_->shared_.leave();
      share_->most_.leave();
      share_ = nullptr;
    }

   private:
    Share *share_;
    const bool crowded_;
  };

 private:
  const std::atomic<bool> &crowded_;
  Gate most_;
  Gate shared_;
};

}  // namespace ksd::server

#endif
