// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// How much of one user's work is done at a time, and in which order.
#include "server/gate.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <latch>
#include <semaphore>
#include <thread>

namespace {

using ksd::server::Gate;
using ksd::server::Share;

TEST(Gate, LetsNoMoreInThanItsLimit) {
  Gate gate(2);
  std::atomic<int> inside{0};
  std::atomic<int> most{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&] {
      for (int j = 0; j < 2000; ++j) {
        gate.enter();
        const int now = ++inside;
        for (int seen = most; seen < now && !most.compare_exchange_weak(seen, now);) continue;
        if (j % 64 == 0) std::this_thread::yield();
        --inside;
        gate.leave();
      }
    });
  }
  for (std::thread &thread : threads) thread.join();
  EXPECT_LE(most, 2);
  gate.enter();  // nobody's place was lost
  gate.enter();
}

TEST(Gate, LetsThoseWhoWaitInAgainOneByOne) {
  Gate gate(1);
  gate.enter();
  std::counting_semaphore<> came_in(0);
  std::vector<std::thread> threads;
  for (int i = 0; i < 5; ++i) {
    threads.emplace_back([&] {
      gate.enter();
      came_in.release();
    });
  }
  for (int i = 0; i < 5; ++i) {
    EXPECT_FALSE(came_in.try_acquire());
    gate.leave();
    came_in.acquire();
  }
  for (std::thread &thread : threads) thread.join();
}

TEST(Share, IsLargerForAUserWhoIsAlone) {
  std::atomic<bool> crowded{false};
  Share share(3, 1, crowded);
  {
    const Share::Pass first(share);
    const Share::Pass second(share);
    const Share::Pass third(share);
  }
  crowded = true;
  Share::Pass first(share);
  std::binary_semaphore second_came_in(0);
  std::thread other([&] {
    const Share::Pass second(share);
    second_came_in.release();
  });
  EXPECT_FALSE(second_came_in.try_acquire());
  first.give_back();
  second_came_in.acquire();
  other.join();
}

TEST(Share, TakesBackWhatWasGivenBeforeItBecameSmaller) {
  std::atomic<bool> crowded{false};
  Share share(2, 1, crowded);
  auto early = std::make_unique<Share::Pass>(share);
  crowded = true;
  { const Share::Pass late(share); }
  early.reset();
  const Share::Pass again(share);
}

}  // namespace
