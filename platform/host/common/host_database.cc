// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "host_database.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace host {

bool mark_of_this_run(DatabaseMark *out_mark) {
  constexpr size_t kIdAt = 2;
  constexpr ssize_t kIdSize = sizeof out_mark->text - kIdAt - 1;
  const int fd = open("/proc/sys/kernel/random/boot_id", O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  memcpy(out_mark->text, "2 ", kIdAt);
  const ssize_t size = read(fd, out_mark->text + kIdAt, kIdSize);
  const int read_errno = size < 0 ? errno : EIO;
  close(fd);
  errno = read_errno;
  out_mark->text[kIdAt + kIdSize] = '\n';
  return size == kIdSize;
}

bool has_mark(int gate_fd, const DatabaseMark &mark) {
  DatabaseMark found;
  return pread(gate_fd, &found, sizeof found, 0) == ssize_t{sizeof found} && memcmp(&found, &mark, sizeof mark) == 0;
}

}  // namespace host
