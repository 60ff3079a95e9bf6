// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// counter_lines.h: what the daemon has counted, for its log.
#ifndef SERVICE_SERVER_COUNTER_LINES_H
#define SERVICE_SERVER_COUNTER_LINES_H

#include <string>
#include <vector>

#include "base/counters.h"

namespace ksd::server {

// counter_lines words all counters that aren't zero, in a line for messages and one for what else has happened. A
// service that nobody has used has the first, which says so.
std::vector<std::string> counter_lines(const Counters &counters);

}  // namespace ksd::server

#endif
