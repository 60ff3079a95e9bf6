// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// start_time.h: the part of a ring's head that tells processes of one number apart.
#ifndef TESTS_HOST_SDWRAP_START_TIME_H
#define TESTS_HOST_SDWRAP_START_TIME_H

#include <fcntl.h>
#include <unistd.h>

#include <string>

// Field 22 of this process's own stat line.
inline std::string start_time() {
  std::string line(1024, '\0');
  const int file = open("/proc/self/stat", O_RDONLY | O_CLOEXEC);
  line.resize(static_cast<size_t>(read(file, line.data(), line.size())));
  close(file);
  size_t at = line.rfind(')');
  for (int field = 2; field < 22; field++) at = line.find(' ', at + 1);
  return line.substr(at + 1, line.find(' ', at + 1) - at - 1);
}

#endif
