// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// session.h: a private keystore service and a command that runs against it.
#ifndef TOOLS_KS_SESSION_SESSION_H
#define TOOLS_KS_SESSION_SESSION_H

#include <csignal>
#include <string>
#include <vector>

#include "common/child.h"
#include "folder.h"

namespace ks_session {

// Exit statuses of the session's own, as env and timeout have them.
inline constexpr int kNoSession = 125;
inline constexpr int kCannotRun = 126;
inline constexpr int kNoCommand = 127;

class Session {
 public:
  // The service's socket is bound here and passed to the service, so that clients that come while it starts, or starts
  // again after it was killed, wait instead of being refused. Throws std::runtime_error.
  // `command_umask` is what the command gets; the session's own files are this user's alone.
  Session(const Folder &folder, mode_t command_umask);
  ~Session();
  Session(const Session &) = delete;
  Session &operator=(const Session &) = delete;

  // run runs `command` to its end and returns its wait status. Throws std::runtime_error when the service doesn't come
  // up, and CommandFailure when the command can't be run.
  int run(const std::vector<std::string> &command);

  struct CommandFailure {
    int error;  // an errno
  };

 private:
  void start_service();
  void wait_until_ready();
  bool service_is_ready() const;
  void restart_service();
  void forward_signal(ks_tools::Child &command);
  [[noreturn]] void service_failed(const std::string &how) const;

  const Folder &folder_;
  const mode_t command_umask_;
  sigset_t old_mask_;
  int signals_ = -1;
  int listener_ = -1;
  int notifications_ = -1;
  ks_tools::Child service_;
  bool command_runs_ = false;
  int interrupted_by_ = 0;
};

}  // namespace ks_session

#endif
