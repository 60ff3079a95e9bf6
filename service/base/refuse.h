// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// refuse.h: an error that a start or a command ends with, in words.
#ifndef SERVICE_BASE_REFUSE_H
#define SERVICE_BASE_REFUSE_H

#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>
#include <utility>

namespace ksd {

// refuse throws what was wrong and what to do.
template <typename... Args>
[[noreturn]] void refuse(fmt::format_string<Args...> format, Args &&...args) {
  throw std::runtime_error(fmt::format(format, std::forward<Args>(args)...));
}

// refuse_by_errno tells what the kernel said.
[[noreturn]] inline void refuse_by_errno(const std::string &what) {
  refuse("{}: {}", what, std::strerror(errno));
}
[[noreturn]] inline void refuse_by_errno(const std::string &path, const char *what) {
  const int error = errno;
  refuse("{}: {}: {}", path, what, std::strerror(error));
}

}  // namespace ksd

#endif
