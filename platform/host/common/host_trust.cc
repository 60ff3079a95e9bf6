// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "host_trust.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>

namespace host {

namespace {

constexpr mode_t kOthersMayWrite = S_IWGRP | S_IWOTH;
constexpr int kFolderFlags = O_PATH | O_DIRECTORY | O_CLOEXEC;

bool is_same(const struct stat &a, const struct stat &b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// Whether others could have put `inner` into `outer`, the folder above it.
bool could_be_planted(const struct stat &inner, const struct stat &outer) {
  if ((outer.st_mode & kOthersMayWrite) == 0) return false;
  const bool sticky = (outer.st_mode & S_ISVTX) != 0;
  return !sticky || (inner.st_uid != 0 && inner.st_uid != geteuid());
}

// Goes up from the open folder to the root, counting the folders. Closes it.
bool check_above(int folder, struct stat inner, uint32_t *out_level) {
  for (;;) {
    ++*out_level;
    const int above = openat(folder, "..", kFolderFlags);
    const int why = errno;
    close(folder);
    errno = why;
    if (above < 0) return false;
    struct stat outer;
    bool good = fstat(above, &outer) == 0;
    if (good && could_be_planted(inner, outer)) {
      good = false;
      errno = EPERM;
    }
    if (!good || is_same(inner, outer)) {
      const int verdict = errno;
      close(above);
      errno = verdict;
      return good;
    }
    folder = above;
    inner = outer;
  }
}

}  // namespace

bool check_folder_of(const char *path, uid_t *out_owner, uint32_t *out_level) {
  *out_level = 0;
  char folder_path[PATH_MAX] = ".";
  if (const char *slash = strrchr(path, '/')) {
    const size_t length = slash == path ? 1 : static_cast<size_t>(slash - path);
    if (length >= sizeof folder_path) {
      errno = ENAMETOOLONG;
      return false;
    }
    memcpy(folder_path, path, length);
    folder_path[length] = '\0';
  }
  const int folder = open(folder_path, kFolderFlags);
  if (folder < 0) return false;
  struct stat status;
  if (fstat(folder, &status) != 0 || (status.st_mode & kOthersMayWrite) != 0) {
    close(folder);
    errno = EPERM;
    return false;
  }
  *out_owner = status.st_uid;
  return check_above(folder, status, out_level);
}

bool is_trusted_owner(uid_t owner, uid_t folder_owner) {
  return owner == 0 || owner == geteuid() || owner == folder_owner;
}

bool check_peer(int socket, uid_t folder_owner, uint32_t *out_peer) {
  ucred peer;
  socklen_t size = sizeof peer;
  if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) return false;
  if (is_trusted_owner(peer.uid, folder_owner)) return true;
  *out_peer = peer.uid;
  errno = EPERM;
  return false;
}

}  // namespace host
