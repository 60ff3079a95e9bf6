// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// secret_input.h: how a secret or passphrase comes in: from a descriptor, a pipe or a prompt, never from an argument or
// the environment, which others can read.
#ifndef TOOLS_KSCTL_SECRET_INPUT_H
#define TOOLS_KSCTL_SECRET_INPUT_H

#include <memory>
#include <optional>

#include "base/secret_bytes.h"

namespace ksctl {

using Secret = std::shared_ptr<const ksd::SecretBytes>;

// read_secret reads a secret byte by byte: all that descriptor `fd` gives, or all of standard input when that is no
// terminal, or a line typed twice at the terminal, which isn't shown. Failure kUsage for an empty one, or more than
// `most` bytes.
Secret read_secret(std::optional<int> fd, const char *what, size_t most);

// read_bytes reads all that a descriptor gives, secret or not. Failure kUsage for more than `most` bytes.
Secret read_bytes(int fd, const char *what, size_t most);

// read_passphrase is read_secret for a passphrase, without the newline at its end. A typed one is asked for `twice`, or
// once.
Secret read_passphrase(std::optional<int> fd, const char *what, bool twice);

}  // namespace ksctl

#endif
