// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// instance_lock.h: one service for a socket at a time.
#ifndef SERVICE_SERVER_INSTANCE_LOCK_H
#define SERVICE_SERVER_INSTANCE_LOCK_H

#include <string>

#include "base/fd.h"

namespace ksd::server {

// InstanceLock holds the lock of a socket path for as long as it lives. The lock is on a file of its own, beside the
// socket, that nobody but the service's user can open: a file that clients can open is one that they can lock, and then
// no service could start. Throws std::runtime_error when another service holds it, or when the file or its folder is in
// other hands.
class InstanceLock {
 public:
  explicit InstanceLock(const std::string &socket_path);

 private:
  UniqueFd file_;
};

}  // namespace ksd::server

#endif
