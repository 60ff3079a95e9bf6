// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "sdb_folder.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "sdb_codes.h"
#include "sdb_thread.h"

namespace sdb {

namespace {

constexpr char kScheme[] = "lmdb://";
constexpr size_t kMaxNameLen = 200;  // leaves room for our endings within what file systems allow
constexpr mode_t kPermissions = 07777;
constexpr mode_t kPrivateFolder = 0700;
constexpr mode_t kSharedFolder = 02770;

// Returns a descriptor, or -1 and errno.
int open_or_make_folder(const char *path) {
  constexpr int kFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
  int fd = open(path, kFlags);
  if (fd >= 0 || errno != ENOENT) return fd;
  if (mkdir(path, kPrivateFolder) != 0 && errno != EEXIST) return -1;
  return open(path, kFlags | O_NOFOLLOW);
}

// Makes an empty file that never exists with any but its final mode.
int make_file(const Folder &folder, const char *name) {
  char fresh[NAME_MAX + 1];
  snprintf(fresh, sizeof fresh, "%s.%ld", name, static_cast<long>(getpid()));
  unlinkat(folder.fd, fresh, 0);  // of an earlier process of this number, which died just here
  const int fd = openat(folder.fd, fresh, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, folder.file_mode());
  if (fd < 0) return -1;
  const bool placed =
      fchmod(fd, folder.file_mode()) == 0 && (linkat(folder.fd, fresh, folder.fd, name, 0) == 0 || errno == EEXIST);
  const int link_errno = errno;
  unlinkat(folder.fd, fresh, 0);
  close(fd);
  errno = link_errno;
  return placed ? openat(folder.fd, name, O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK) : -1;
}

}  // namespace

bool parse_uri(const char *uri, Location *out_location) {
  if (uri == nullptr || strncmp(uri, kScheme, sizeof kScheme - 1) != 0) return false;
  const char *path = uri + sizeof kScheme - 1;
  if (path[0] != '/') return false;
  const char *slash = strrchr(path, '/');
  const char *name = slash + 1;
  const auto folder_len = static_cast<size_t>(slash - path);
  const size_t name_len = strlen(name);
  if (folder_len == 0 || folder_len >= sizeof out_location->folder) return false;
  if (name_len == 0 || name_len > kMaxNameLen || strcmp(name, ".") == 0 || strcmp(name, "..") == 0) return false;
  memcpy(out_location->folder, path, folder_len);
  out_location->folder[folder_len] = '\0';
  out_location->name = name;
  return true;
}

uint32_t open_folder(Thread *thread, const char *path, Folder *out_folder) {
  const int fd = open_or_make_folder(path);
  if (fd < 0) {
    const char *hint = errno == ENOENT ? "; the folder above it must exist" : "";
    return fail_with(thread, kSystem, "cannot open folder %s: %s%s", path, strerrordesc_np(errno), hint);
  }
  Folder folder{fd, false, {}};
  uint32_t code = kOk;
  if (fstat(fd, &folder.status) != 0) {
    code = fail_with(thread, kSystem, "cannot examine folder %s: %s", path, strerrordesc_np(errno));
  } else {
    // A private folder below a setgid one inherits the bit, which does no harm there.
    const mode_t mode = folder.status.st_mode & kPermissions;
    folder.shared = folder.status.st_uid == 0 && mode == kSharedFolder;
    if (!folder.shared && folder.status.st_uid != geteuid()) {
      code = fail_with(thread, kUnsafe, "folder %s belongs to user %u, not to user %u who opens it", path,
                       folder.status.st_uid, geteuid());
    } else if (!folder.shared && (mode & ~mode_t{S_ISGID}) != kPrivateFolder) {
      code = fail_with(thread, kUnsafe, "folder %s has mode %04o; chmod it to 0700", path, mode);
    }
  }
  if (code != kOk) {
    close(fd);
    return code;
  }
  *out_folder = folder;
  return kOk;
}

uint32_t open_file(Thread *thread, const Folder &folder, const char *path, const char *name, int *out_fd) {
  int fd = openat(folder.fd, name, O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
  if (fd < 0 && errno == ENOENT) fd = make_file(folder, name);
  if (fd < 0) {
    return fail_with(thread, errno == ELOOP ? kUnsafe : kSystem, "cannot open %s/%s: %s", path, name,
                     strerrordesc_np(errno));
  }
  struct stat status;
  uint32_t code = kOk;
  if (fstat(fd, &status) != 0) {
    code = fail_with(thread, kSystem, "cannot examine %s/%s: %s", path, name, strerrordesc_np(errno));
  } else if (!S_ISREG(status.st_mode)) {
    code = fail_with(thread, kUnsafe, "%s/%s is not an ordinary file", path, name);
  } else if (!folder.shared && status.st_uid != geteuid()) {
    code = fail_with(thread, kUnsafe, "%s/%s belongs to user %u, not to user %u who opens it", path, name,
                     status.st_uid, geteuid());
  } else if ((status.st_mode & 07777 & ~folder.file_mode()) != 0) {
    code = fail_with(thread, kUnsafe, "%s/%s has mode %04o; chmod it to %04o", path, name, status.st_mode & 07777,
                     folder.file_mode());
  }
  if (code != kOk) {
    close(fd);
    return code;
  }
  *out_fd = fd;
  return kOk;
}

}  // namespace sdb
