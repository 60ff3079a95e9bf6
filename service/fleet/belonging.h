// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// belonging.h: which fleet a machine belongs to, in a small file beside its master key. By it a machine without a
// mirror knows its fleet again, and none makes a new one over a store that was emptied.
#ifndef SERVICE_FLEET_BELONGING_H
#define SERVICE_FLEET_BELONGING_H

#include <optional>
#include <string>

#include "fleet/format.h"

namespace ksd::fleet {

inline constexpr char kBelongingSuffix[] = ".fleet";

// read_belonging gives nothing where there is no file. Throws std::runtime_error, one line with what to do, for one
// that can't be read.
std::optional<FleetId> read_belonging(const std::string &path);

// write_belonging has the file say so, and on disk. Throws likewise.
void write_belonging(const std::string &path, const FleetId &fleet);

}  // namespace ksd::fleet

#endif
