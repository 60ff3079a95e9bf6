// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// connect.h: how the daemon comes by an engine, whose process it must not be able to start itself by the time that it
// holds keys: from the service manager, at a socket, or from a helper that is started beforehand.
#ifndef SERVICE_LINK_CONNECT_H
#define SERVICE_LINK_CONNECT_H

#include <functional>
#include <string>

#include "base/fd.h"

namespace ksd::link {

// Connect gives a connection to an engine of its own, without waiting for anything, or throws std::runtime_error. It
// doesn't block when it is used.
using Connect = std::function<UniqueFd()>;

// connect_at gives engines of the service manager's, which listens at `path`.
Connect connect_at(std::string path);

// start_engines starts `program` now, which starts an engine for each connection later. It ends when what is given here
// goes. Call it before there is any thread, and before the process confines itself. Throws std::runtime_error.
Connect start_engines(const std::string &program);

}  // namespace ksd::link

#endif
