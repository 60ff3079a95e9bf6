// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// state_page.h: the page beside the socket through which clients learn what may change while they run.
#ifndef SERVICE_SERVER_STATE_PAGE_H
#define SERVICE_SERVER_STATE_PAGE_H

#include <string>

#include "base/fd.h"
#include "config/config.h"

namespace ksd::server {

// StatePage maps the page of a socket for writing, and holds the lock that keeps a second service from the same socket.
class StatePage {
 public:
  // Throws std::runtime_error with the reason when the page can't be had.
  explicit StatePage(const std::string &socket_path);
  ~StatePage();
  StatePage(const StatePage &) = delete;
  StatePage &operator=(const StatePage &) = delete;

  // publish writes what `config` says, for running clients to see.
  void publish(const config::Config &config);

 private:
  UniqueFd file_;
  HostStatePage *page_;
};

}  // namespace ksd::server

#endif
