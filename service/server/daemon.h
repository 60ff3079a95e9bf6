// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// daemon.h: the life of the daemon from its start to its orderly end.
#ifndef SERVICE_SERVER_DAEMON_H
#define SERVICE_SERVER_DAEMON_H

#include <string>

#include "base/log.h"
#include "config/config.h"

namespace ksd::server {

// Options is the command line. An empty text leaves to the configuration what it is about.
struct Options {
  std::string config;  // a file to read instead of those of the standard folders
  std::string socket;
  std::string vault;
  std::string master_key_file;
  std::string log_level;
  LogFormat log_format = LogFormat::kAuto;
  bool allow_root = false;
  bool accept_loss = false;  // of what the vault lacks at this start
  int passphrase_fd = -1;    // from which the passphrase of the master key is read; -1: the key isn't sealed
};

// load reads the configuration and puts the command line over it.
config::ParsedConfig load(const Options &options);

// run_daemon serves until SIGTERM or SIGINT and returns the process's exit status.
int run_daemon(const Options &options);

}  // namespace ksd::server

#endif
