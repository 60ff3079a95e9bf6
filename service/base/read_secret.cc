// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "base/read_secret.h"

#include <unistd.h>

#include <cerrno>

namespace ksd {

ReadSecret read_secret(int fd, size_t most, SecretEnd end) {
  const bool one_line = end == SecretEnd::kEndOfLine;
  const std::shared_ptr<SecretBytes> buffer = SecretBytes::allocate(most + 1);  // one more shows too many
  size_t size = 0;
  while (size <= most) {
    const ssize_t got = read(fd, buffer->writable().data() + size, one_line ? 1 : most + 1 - size);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return {.secret = nullptr, .error = errno};
    if (got == 0 || (one_line && buffer->bytes()[size] == '\n')) {
      return {.secret = SecretBytes::copy_of(buffer->bytes().first(size))};
    }
    size += static_cast<size_t>(got);
  }
  return {};
}

}  // namespace ksd
