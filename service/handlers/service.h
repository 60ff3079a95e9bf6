// service.h: what all connections and handlers share.
#ifndef SERVICE_HANDLERS_SERVICE_H
#define SERVICE_HANDLERS_SERVICE_H

#include <atomic>
#include <memory>
#include <mutex>

#include "base/counters.h"
#include "base/log.h"
#include "config/config.h"
#include "crypto/crypto.h"
#include "handlers/handler.h"
#include "vault/store.h"

namespace ksd {

class Service {
 public:
  // `tamper` is for tests: it spoils what algorithms compute in their self-test.
  explicit Service(std::shared_ptr<const Config> config, Tamper tamper = nullptr)
      : crypto(tamper), config_(std::move(config)) {}

  // config is the configuration in force: a snapshot, to be asked for anew when config_generation has moved on.
  std::shared_ptr<const Config> config() const {
    const std::lock_guard lock(config_mutex_);
    return config_;
  }
  uint64_t config_generation() const { return config_generation_.load(std::memory_order_acquire); }
  void use_config(std::shared_ptr<const Config> config) {
    const std::lock_guard lock(config_mutex_);
    config_ = std::move(config);
    config_generation_.fetch_add(1, std::memory_order_release);
  }

  // store is set before anything is served, and null only in tests of what needs none.
  Store *store() const { return store_.get(); }
  void use_store(std::unique_ptr<Store> store) {
    store_ = std::move(store);
    if (store_) store_->on_retired([this](uint64_t generation) { crypto.keys.forget(generation); });
  }

  // refused_name counts and logs, without the name, that `caller` named an entry of a VDC that isn't his.
  void refused_name(const Caller &caller);

  Counters counters;
  Crypto crypto;  // outlives the store, which tells it what is gone
  LogLimiter log_limiter;

 private:
  mutable std::mutex config_mutex_;
  std::shared_ptr<const Config> config_;
  std::atomic<uint64_t> config_generation_{0};
  std::unique_ptr<Store> store_;
};

}  // namespace ksd

#endif
