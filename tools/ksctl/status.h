// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// status.h: the service's status in words, for all who show it.
#ifndef TOOLS_KSCTL_STATUS_H
#define TOOLS_KSCTL_STATUS_H

#include <string>
#include <vector>

#include "host_wire.h"

namespace ksctl {

// warnings_of gives what an operator has to know first, each with what to do.
std::vector<std::string> warnings_of(const HostStatusReply &status);

std::string version_text(uint32_t version);
std::string time_text(uint64_t seconds);                      // since 1970
std::string size_text(uint64_t bytes);                        // "4.1 KiB"
std::string share_text(uint64_t used, uint64_t limit);        // "3 of 1024 (0 %)"
std::string size_share_text(uint64_t bytes, uint64_t limit);  // "1.5 of 256.0 MiB (1 %)"

}  // namespace ksctl

#endif
