// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// fleet.h: a service whose entries are those of a fleet, as the configuration says it.
#ifndef SERVICE_SERVER_FLEET_H
#define SERVICE_SERVER_FLEET_H

#include <memory>

#include "config/config.h"
#include "fleet/shared_vault.h"
#include "link/connect.h"
#include "vault/vault.h"

namespace ksd::server {

// find_engine finds out where engines come from: the socket or the program that KSD_ENGINE names, else the program that
// is installed, which is started. Call it where link::start_engines may be called. Throws std::runtime_error.
link::Connect find_engine();

// open_shared_vault gives the fleet's store, under the master key of `options`, whose limits hold too. It waits a
// little until everything is loaded; a fleet that can't be reached by then is waited for by those who ask for
// something. Throws like open_vault when there is no master key.
std::unique_ptr<fleet::SharedVault> open_shared_vault(const config::Shared &shared, const vault::VaultOptions &options,
                                                      link::Connect engine);

}  // namespace ksd::server

#endif
