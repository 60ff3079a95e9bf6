// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// pass_file.h: descriptors that go over a socket to another process.
#ifndef SERVICE_BASE_PASS_FILE_H
#define SERVICE_BASE_PASS_FILE_H

#include <sys/types.h>

#include "base/bytes.h"

namespace ksd {

// send_with_file is sendmsg of one piece, with a descriptor.
ssize_t send_with_file(int socket, Bytes piece, int file, int flags);

}  // namespace ksd

#endif
