// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// current_config.h: the configuration in force, which a reload replaces while connections are served.
#ifndef SERVICE_SERVER_CURRENT_CONFIG_H
#define SERVICE_SERVER_CURRENT_CONFIG_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#include "config/config.h"

namespace ksd::server {

class CurrentConfig {
 public:
  explicit CurrentConfig(config::Config config) : config_(std::make_shared<const config::Config>(std::move(config))) {}

  // snapshot is the configuration in force, to be asked for anew when the generation has moved on.
  std::shared_ptr<const config::Config> snapshot() const {
    const std::lock_guard lock(mutex_);
    return config_;
  }
  uint64_t generation() const { return generation_.load(std::memory_order_acquire); }

  void replace(config::Config config) {
    auto replacement = std::make_shared<const config::Config>(std::move(config));
    const std::lock_guard lock(mutex_);
    config_ = std::move(replacement);
    generation_.fetch_add(1, std::memory_order_release);
  }

 private:
  mutable std::mutex mutex_;
  std::shared_ptr<const config::Config> config_;
  std::atomic<uint64_t> generation_{0};
};

}  // namespace ksd::server

#endif
