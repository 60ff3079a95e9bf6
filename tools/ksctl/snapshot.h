// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// snapshot.h: all that the service counts, at one moment.
#ifndef TOOLS_KSCTL_SNAPSHOT_H
#define TOOLS_KSCTL_SNAPSHOT_H

#include <string>
#include <vector>

#include "administration.h"
#include "latency.h"

namespace ksctl {

struct MessageStatistics {
  uint32_t opcode = 0;
  std::string name;
  uint64_t done = 0;
  uint64_t failed = 0;
  Times times{};
};

struct Snapshot {
  HostStatusReply status{};
  HostCountersReply events{};
  std::vector<MessageStatistics> messages;  // in the order of opcodes
  std::vector<HostUserRecord> users;
};

Snapshot take_snapshot(ServiceLink &link);

// An event in words, and where its count is.
struct EventName {
  const char *name;
  uint64_t HostCountersReply::*count;
};
inline constexpr EventName kEvents[] = {
    {"connections", &HostCountersReply::connections},
    {"refused_connections", &HostCountersReply::refused_connections},
    {"malformed", &HostCountersReply::malformed},
    {"unknown_opcodes", &HostCountersReply::unknown_opcodes},
    {"too_large", &HostCountersReply::too_large},
    {"foreign_datagrams", &HostCountersReply::foreign_datagrams},
    {"unread_replies", &HostCountersReply::unread_replies},
    {"foreign_names", &HostCountersReply::foreign_names},
    {"administration", &HostCountersReply::administration},
};

}  // namespace ksctl

#endif
