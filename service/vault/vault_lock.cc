// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "vault/vault_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <thread>

#include "base/refuse.h"
#include "base/trust.h"
#include "vault/files.h"

namespace ksd::vault {
namespace {

constexpr char kSuffix[] = "-lock";
constexpr std::chrono::milliseconds kPause(10);

[[noreturn]] void refuse_open(const std::string &vault_path, const std::string &path, int error) {
  switch (error) {
    case ENOENT:
    case ENOTDIR: {
      const std::string folder = folder_of(vault_path);
      refuse("{}: the vault can't be opened or made: folder {}: {}; make the folder for user {}", vault_path, folder,
             errno_text(error), geteuid());
    }
    case EACCES:
    case EPERM:
    case EROFS:
      refuse("{}: the vault is read-only for user {}; make the file, its folder, its lock {} and its disk writable",
             vault_path, geteuid(), path);
    default:
      refuse("{}: the vault's lock can't be opened: {}; remove it", path, errno_text(error));
  }
}

}  // namespace

VaultLock::VaultLock(const std::string &vault_path, int wait_ms) {
  const std::string path = vault_path + kSuffix;
  file_ = UniqueFd(open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600));
  if (!file_) {
    const int error = errno;
    // No room for a new file is no reason not to serve reads: SQLite's own lock is on the vault, as it always was.
    if (error == ENOSPC || error == EDQUOT) return;
    refuse_open(vault_path, path, error);
  }
  struct stat info {};
  if (fstat(file_.get(), &info) == 0 && info.st_uid != geteuid() && S_ISREG(info.st_mode)) {
    refuse("{}: belongs to user {}, but this runs as user {}; run it as user {}", path, info.st_uid, geteuid(),
           info.st_uid);
  }
  if (fstat(file_.get(), &info) != 0 || !S_ISREG(info.st_mode) || (info.st_mode & 077) != 0) {
    refuse("{}: isn't a file of user {} alone, as the vault's lock has to be; remove it", path, geteuid());
  }
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(wait_ms);
  while (flock(file_.get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK && errno != EINTR) {
      refuse("{}: can't be locked: {}; put the vault on a local disk", path, errno_text(errno));
    }
    if (std::chrono::steady_clock::now() >= deadline) {
      refuse("{}: the vault is in use by another process; end that one first", vault_path);
    }
    std::this_thread::sleep_for(kPause);
  }
}

}  // namespace ksd::vault
