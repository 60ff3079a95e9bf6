// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// notify.h: the two small protocols by which a service manager and the daemon speak: state notifications, and sockets
// that the manager opened.
#ifndef SERVICE_SERVER_NOTIFY_H
#define SERVICE_SERVER_NOTIFY_H

#include <atomic>
#include <chrono>
#include <optional>
#include <string>
#include <utility>

#include "base/fd.h"

namespace ksd::server {

// Notifier tells the service manager named by NOTIFY_SOCKET how the service is. Without one it does nothing. What a
// manager that doesn't read has no room for, it isn't told.
class Notifier {
 public:
  // Takes the variables out of the environment.
  Notifier();

  void ready();
  // alive is to be called at least every watch_interval, if there is one: a manager that doesn't hear it for twice as
  // long takes the service for hung and starts another.
  void alive();
  std::optional<std::chrono::nanoseconds> watch_interval() const { return watch_interval_; }
  void reloading();
  // refused has the next `ready` say that the configuration on the disk isn't the one in force, and why.
  void refused(std::string problem) { refusal_ = std::move(problem); }
  void stopping();

 private:
  void tell(const std::string &state);

  std::string address_;
  std::atomic<bool> doesnt_read_{false};
  std::string refusal_;
  std::optional<std::chrono::nanoseconds> watch_interval_;
};

// passed_socket takes the listening socket that the service manager passed, if it did (LISTEN_FDS), and the variables
// out of the environment. Throws std::runtime_error when what was passed isn't one socket that can be served.
std::optional<UniqueFd> passed_socket();

}  // namespace ksd::server

#endif
