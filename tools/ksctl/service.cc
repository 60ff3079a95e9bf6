// service.cc: commands about the service itself.
#include <fmt/format.h>

#include <algorithm>
#include <ctime>

#include "command.h"
#include "service_link.h"

namespace ksctl {
namespace {

void status(Session &session, const Arguments &) {
  const auto status = ServiceLink(session.socket).ask_for<HostStatusReply>(HOST_OP_STATUS);
  session.output.fields(Object{
      {"socket", session.socket},
      {"pid", status.pid},
      {"version", fmt::format("{}.{}", status.service_version / 256, status.service_version % 256)},
      {"up_seconds", static_cast<uint64_t>(std::max<int64_t>(0, std::time(nullptr) - int64_t(status.started_at)))},
      {"connections",
       Object{{"open", status.connections}, {"limit", status.connection_limit}, {"users", status.users}}},
      {"entries", Object{{"stored", status.entries}, {"limit", status.entry_limit}}},
      {"memory_locked", (status.flags & HOST_STATUS_MEMORY_UNLOCKED) == 0},
      {"nearly_full", (status.flags & HOST_STATUS_STORE_NEARLY_FULL) != 0},
      {"compaction_helps", (status.flags & HOST_STATUS_COMPACTION_HELPS) != 0},
  });
}

}  // namespace

std::span<const Command> service_commands() {
  static constexpr Command kCommands[] = {
      {"status", "Tell how the service is: who is connected, what it keeps, what it lacks", {}, status},
  };
  return kCommands;
}

}  // namespace ksctl
