// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// pass.h: descriptors that one process hands to another.
#ifndef SERVICE_LINK_PASS_H
#define SERVICE_LINK_PASS_H

#include "base/fd.h"

namespace ksd::link {

// pass hands `fd` over by a socket. On failure errno says why.
bool pass(int socket, int fd);

// accept_passed waits for one. Nothing when there won't be any more.
UniqueFd accept_passed(int socket);

}  // namespace ksd::link

#endif
