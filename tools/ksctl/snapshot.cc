// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "snapshot.h"

#include <algorithm>

namespace ksctl {

Snapshot take_snapshot(ServiceLink &link) {
  Snapshot snapshot;
  snapshot.status = link.ask_for<HostStatusReply>(HOST_OP_STATUS);
  const auto counters = records_of<HostCountersReply, HostMessageCounters>(link.ask(HOST_OP_COUNTERS));
  const auto latencies = records_of<HostLatenciesReply, HostMessageLatencies>(link.ask(HOST_OP_LATENCIES));
  snapshot.users = ask_for_all<HostUserRecord>(link, HOST_OP_USERS);
  snapshot.events = counters.head;
  if (latencies.head.bucket_count != HOST_LATENCY_BUCKETS) refuse_cut_reply();
  for (const HostMessageCounters &counter : counters.records) {
    MessageStatistics &message = snapshot.messages.emplace_back();
    message.opcode = counter.opcode;
    message.name = text_in(counter.name);
    message.done = counter.done;
    message.failed = counter.failed;
    const auto timed = std::ranges::find(latencies.records, counter.opcode, &HostMessageLatencies::opcode);
    if (timed != latencies.records.end()) std::ranges::copy(timed->timed, message.times.begin());
  }
  return snapshot;
}

}  // namespace ksctl
