#include "handlers/service.h"

namespace ksd {

void Service::refused_name(const Caller &caller) {
  counters.add(Event::kForeignName);
  if (const auto held_back = log_limiter.pass(LogLimiter::Kind::kForeignName, caller.uid)) {
    spdlog::warn("user {} (pid {}) named an entry of another VDC{}", caller.uid, caller.pid, since_last(*held_back));
  }
}

}  // namespace ksd
