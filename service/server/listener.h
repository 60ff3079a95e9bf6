// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// listener.h: the socket on which the service is found.
#ifndef SERVICE_SERVER_LISTENER_H
#define SERVICE_SERVER_LISTENER_H

#include <string>

#include "base/fd.h"
#include "config/config.h"

namespace ksd::server {

// socket_path_of gives the path that a passed socket is bound to. Throws std::runtime_error when it has none.
std::string socket_path_of(int socket);

// make_socket_folder makes the folder of the socket when only that is missing.
void make_socket_folder(const std::string &socket_path);

// listen_at makes the socket that `config` describes. A file that an ended service left there is removed first: the
// caller holds the state page's lock, so none is in use. Throws std::runtime_error with the reason.
UniqueFd listen_at(const std::string &path, const config::Config &config);

}  // namespace ksd::server

#endif
