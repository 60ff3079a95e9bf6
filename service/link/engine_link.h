// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// engine_link.h: the daemon's end of the way to its engine. Whatever the engine does, or doesn't do, requests have an
// end in time, and what is held for it is bounded.
#ifndef SERVICE_LINK_ENGINE_LINK_H
#define SERVICE_LINK_ENGINE_LINK_H

#include <chrono>
#include <map>
#include <string>
#include <vector>

#include "fleet/engine.h"
#include "link/connect.h"
#include "link/frames.h"

namespace ksd::link {

class EngineLink final : public fleet::Engine {
 public:
  EngineLink(Connect connect, Start start);

  void send(fleet::Request request) override;
  void receive(std::vector<fleet::Report> &reports) override;
  int file() const override { return connection_.get(); }
  short events() const override;
  std::optional<std::chrono::milliseconds> wait_at_most() const override;

 private:
  using Clock = std::chrono::steady_clock;

  void connect();
  void write_some();
  void read_some();
  void take(FromEngine &&message);
  void lose(const std::string &why);
  void look_at_time();
  Clock::time_point next_event() const;

  const Connect connect_;
  const Start start_;
  UniqueFd connection_;
  Incoming incoming_;
  std::vector<uint8_t> outgoing_;
  size_t sent_ = 0;                                    // of them
  std::vector<fleet::Report> reports_;                 // not handed over yet
  std::map<fleet::RequestId, Clock::time_point> due_;  // by when the engine has to answer
  bool is_asked_ = false;                              // whether this engine was asked for anything
  std::string stopped_;                                // why the engine says that it ends
  std::string told_;                                   // why there is none, as it was last reported
  Clock::time_point next_try_{};
  std::chrono::milliseconds pause_;
};

}  // namespace ksd::link

#endif
