// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// memory_guard.h: touches memory whose pages somebody else may take away.
#ifndef SERVICE_SERVER_MEMORY_GUARD_H
#define SERVICE_SERVER_MEMORY_GUARD_H

#include <setjmp.h>

namespace ksd::server {

// catch_bus_errors has this process survive SIGBUS within `guarded`; elsewhere the signal ends it as before. Once, at
// the start of the process.
void catch_bus_errors();

// Where this thread goes on when it meets a page that can't be had, or null.
extern thread_local sigjmp_buf *bus_error_exit;

// guarded does what `touch` does and tells whether it came to its end. It may stop anywhere, so nothing in it may have
// a destructor, take a lock or allocate.
template <typename Touch>
bool guarded(Touch touch) {
  sigjmp_buf exit;
  if (sigsetjmp(exit, 0) != 0) {
    bus_error_exit = nullptr;
    return false;
  }
  bus_error_exit = &exit;
  touch();
  bus_error_exit = nullptr;
  return true;
}

}  // namespace ksd::server

#endif
