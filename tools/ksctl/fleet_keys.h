// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// fleet_keys.h: what a service tells of its fleet's master key.
#ifndef TOOLS_KSCTL_FLEET_KEYS_H
#define TOOLS_KSCTL_FLEET_KEYS_H

#include "service_link.h"

namespace ksctl {

// fleet_keys asks for it. Failure for a service that keeps its entries alone.
HostFleetKeysReply fleet_keys(ServiceLink &link, const char *command);

}  // namespace ksctl

#endif
