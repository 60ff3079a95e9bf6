// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "server/memory_guard.h"

#include <csignal>

namespace ksd::server {

thread_local sigjmp_buf *bus_error_exit = nullptr;

namespace {

void leave_guarded(int) {
  if (bus_error_exit != nullptr) siglongjmp(*bus_error_exit, 1);
  signal(SIGBUS, SIG_DFL);
  raise(SIGBUS);
}

}  // namespace

void catch_bus_errors() {
  struct sigaction action {};
  action.sa_handler = leave_guarded;
  action.sa_flags = SA_NODEFER;  // the handler is left without returning
  sigaction(SIGBUS, &action, nullptr);
}

}  // namespace ksd::server
