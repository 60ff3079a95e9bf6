// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "server/reloader.h"

#include <new>

namespace ksd::server {
namespace {

// Reloading is what a service manager is told: it waits for the end, whatever becomes of the reload.
class Reloading {
 public:
  explicit Reloading(Notifier &notifier) : notifier_(notifier) { notifier_.reloading(); }
  ~Reloading() {
    try {
      notifier_.ready();
    } catch (const std::bad_alloc &) {  // it goes on waiting, then, until the next one
    }
  }
  Reloading(const Reloading &) = delete;
  Reloading &operator=(const Reloading &) = delete;

 private:
  Notifier &notifier_;
};

}  // namespace

Reloader::Outcome Reloader::reload() {
  const std::lock_guard turn(one_at_a_time_);
  const Reloading reloading(notifier_);
  config::ParsedConfig parsed = load_();
  Outcome outcome;
  outcome.taken_up = parsed.problems.empty();
  if (outcome.taken_up) outcome.restart_needed = use_(parsed.config);
  outcome.problems = std::move(parsed.problems);

  config::ConfigProblem first = outcome.taken_up ? config::ConfigProblem{} : outcome.problems.front();
  const std::lock_guard lock(mutex_);
  const std::time_t now = std::time(nullptr);
  state_.failed_at = outcome.taken_up ? 0 : now;
  state_.problem_count = outcome.problems.size();
  state_.problem = std::move(first);
  if (outcome.taken_up) {
    state_.loaded_at = now;
    state_.restart_needed = outcome.restart_needed;
  }
  return outcome;
}

Reloader::State Reloader::state() const {
  const std::lock_guard lock(mutex_);
  return state_;
}

}  // namespace ksd::server
