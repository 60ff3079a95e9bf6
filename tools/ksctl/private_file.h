// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// private_file.h: files that nobody but their owner reads, whole or not there at all.
#ifndef TOOLS_KSCTL_PRIVATE_FILE_H
#define TOOLS_KSCTL_PRIVATE_FILE_H

#include <string>
#include <string_view>

#include "secret_input.h"

namespace ksctl {

// write_private_file writes a file of mode 0600 under a name of its own and gives it the right one when it is on disk.
// One that is there is replaced when `replace` says so, and it is the user's own regular file. Failure: kConflict for
// a file that is there, kNotAllowed for one that may not be replaced or a folder that may not be written.
void write_private_file(const std::string &path, std::string_view content, bool replace);

// read_private_file reads a file that holds secrets; a pipe will do. Failure kNotFound, kNotAllowed, and kFailed for
// one of more than `most` bytes.
Secret read_private_file(const std::string &path, size_t most);

// is_open_to_others tells whether group or others may read the file.
bool is_open_to_others(const std::string &path);

}  // namespace ksctl

#endif
