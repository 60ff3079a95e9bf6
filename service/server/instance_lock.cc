// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "server/instance_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/refuse.h"

namespace ksd::server {
namespace {

constexpr char kSuffix[] = ".lock";

}  // namespace

InstanceLock::InstanceLock(const std::string &socket_path) {
  const std::string path = socket_path + kSuffix;
  file_ = UniqueFd(open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600));
  struct stat status {};
  if (!file_ || fstat(file_.get(), &status) < 0) {
    refuse("{}: can't open the lock: {}; give user {} a writable folder there", path, std::strerror(errno), geteuid());
  }
  if (!S_ISREG(status.st_mode) || status.st_uid != geteuid() || (status.st_mode & 077) != 0) {
    refuse("{}: isn't a file of user {} alone, as a lock has to be; remove it", path, geteuid());
  }
  // Without waiting: whoever holds it is a service that runs, and not for a moment only.
  if (flock(file_.get(), LOCK_EX | LOCK_NB) < 0) {
    if (errno == EWOULDBLOCK) refuse("{}: another keystore service runs on this socket", path);
    refuse("{}: can't be locked: {}; put the socket on a local file system", path, std::strerror(errno));
  }
}

}  // namespace ksd::server
