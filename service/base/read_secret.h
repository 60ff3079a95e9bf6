// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// read_secret.h: a secret that comes in over a descriptor.
#ifndef SERVICE_BASE_READ_SECRET_H
#define SERVICE_BASE_READ_SECRET_H

#include <cstddef>
#include <memory>

#include "base/secret_bytes.h"

namespace ksd {

// SecretEnd is where a secret ends. A line is read byte by byte: what stands behind it is for somebody else.
enum class SecretEnd { kEndOfFile, kEndOfLine };

// ReadSecret is what came in: no secret when reading failed, with `error` an errno, or when there is more than asked
// for, with an `error` of 0.
struct ReadSecret {
  std::shared_ptr<const SecretBytes> secret;
  int error = 0;
};

// read_secret reads up to `most` bytes into guarded memory and nowhere else. A line comes without its newline. Throws
// std::bad_alloc.
ReadSecret read_secret(int fd, size_t most, SecretEnd end);

}  // namespace ksd

#endif
