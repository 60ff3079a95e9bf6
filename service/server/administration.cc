#include "server/administration.h"

#include <unistd.h>

#include <algorithm>

namespace ksd::server {

struct Administration::Row {
  uint32_t opcode;
  void (Administration::*handler)(const handlers::Request &request, handlers::Reply &reply);
};

const Administration::Row Administration::kRows[] = {
    {HOST_OP_STATUS, &Administration::status},
};

bool Administration::answer(const handlers::Request &request, handlers::Reply &reply) {
  const auto row = std::ranges::find(kRows, request.opcode, &Row::opcode);
  if (row == std::end(kRows) || !request.caller.administrator) return false;
  (this->*row->handler)(request, reply);
  return true;
}

void Administration::status(const handlers::Request &request, handlers::Reply &reply) {
  if (!request.message.empty()) return reply.result(KS_INVALID_ARGS);
  const vault::Store::Usage usage = service_.store().usage();
  const Places places = crowd_.places();
  HostStatusReply status{};
  status.result = KS_SUCCESS;
  status.pid = static_cast<uint32_t>(getpid());
  status.started_at = static_cast<uint64_t>(started_at_);
  status.service_version = KSD_VERSION_MAJOR * 256 + KSD_VERSION_MINOR;
  status.connections = places.connections;
  status.connection_limit = current_config_.snapshot()->limits.connections;
  status.users = places.users;
  status.entries = usage.entries;
  status.entry_limit = usage.entry_limit;
  if (!guarded_memory_use().all_locked) status.flags |= HOST_STATUS_MEMORY_UNLOCKED;
  if (usage.over_90_percent) status.flags |= HOST_STATUS_STORE_NEARLY_FULL;
  if (usage.compaction_helps) status.flags |= HOST_STATUS_COMPACTION_HELPS;
  reply.record(status);
}

}  // namespace ksd::server
