// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// reloader.h: the configuration read again while the service runs, and what became of that.
#ifndef SERVICE_SERVER_RELOADER_H
#define SERVICE_SERVER_RELOADER_H

#include <ctime>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "config/config.h"
#include "server/notify.h"

namespace ksd::server {

class Reloader {
 public:
  // What is done with a configuration without problems. It tells whether part of it counts from the next start only.
  using Use = std::function<bool(const config::Config &config)>;

  // `path` is the file's, for what is told about it. The configuration that `load` gave first is in force. `notifier`
  // tells the service manager.
  Reloader(std::string path, std::function<config::ParsedConfig()> load, Use use, Notifier &notifier)
      : load_(std::move(load)), use_(std::move(use)), notifier_(notifier) {
    state_.path = std::move(path);
  }

  struct Outcome {
    bool taken_up = false;
    bool restart_needed = false;
    std::vector<config::ConfigProblem> problems;
  };

  // reload may be called on any thread; one at a time reads. Nothing that connections wait for is held meanwhile.
  Outcome reload();

  struct State {
    std::string path;
    std::time_t loaded_at = std::time(nullptr);  // the one in force
    std::time_t failed_at = 0;                   // 0: the last one was taken up
    bool restart_needed = false;
    size_t problem_count = 0;
    config::ConfigProblem problem;  // the first
  };
  State state() const;

 private:
  const std::function<config::ParsedConfig()> load_;
  const Use use_;
  Notifier &notifier_;
  std::mutex one_at_a_time_;
  mutable std::mutex mutex_;
  State state_;
};

}  // namespace ksd::server

#endif
