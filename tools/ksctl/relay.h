// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// relay.h: stands between programs and the service, and shows what passes. It adds nothing, leaves nothing out, and
// changes no order: a datagram is passed on as it came, and the next one of a side is taken when the last one has gone.
#ifndef TOOLS_KSCTL_RELAY_H
#define TOOLS_KSCTL_RELAY_H

#include <poll.h>
#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <list>
#include <string>
#include <vector>

#include "base/fd.h"
#include "capture_file.h"
#include "strike.h"

namespace ksctl {

class Relay {
 public:
  // Listens at `listening`, and connects to the service at `service` for each who comes. Throws Failure when it can't.
  Relay(const std::string &listening, std::string service, CaptureFile &file);

  // sources gives what has to be polled, and handle what came of it. pause_ms is how long the poll may take, -1 for any
  // time.
  std::vector<pollfd> sources() const;
  int pause_ms() const;
  void handle(const std::vector<pollfd> &polled);

 private:
  // Side is one end of a link, with the datagram that is to go there.
  struct Side {
    ksd::UniqueFd socket;
    Datagram waiting;
    bool has_waiting = false;
  };
  struct Link {
    uint32_t number = 0;
    pid_t pid = 0;
    Side client, service;
    Striker striker;
    bool connected = false;
    bool over = false;
  };

  void accept_one();
  void connect(Link &link);
  void pass(Link &link, Side &from, Side &to, Direction direction);
  void flush(Link &link, Side &to);

  std::string service_path_;
  CaptureFile &file_;
  ksd::UniqueFd listener_;
  std::list<Link> links_;
  uint32_t accepted_ = 0;
  bool full_ = false;  // no descriptor was left for another
  Datagram buffer_;
};

}  // namespace ksctl

#endif
