// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "administration.h"

#include <pwd.h>

namespace ksctl {

Value user_name(uint32_t uid) {
  if (uid == HOST_ALL_UNMAPPED) return "(unmapped)";
  passwd entry{};
  passwd *found = nullptr;
  char texts[4096];
  if (getpwuid_r(uid, &entry, texts, sizeof texts, &found) != 0 || found == nullptr) return {};
  return found->pw_name;
}

bool is_of_fleet(ServiceLink &link) {
  return (link.ask_for<HostStatusReply>(HOST_OP_STATUS).flags & HOST_STATUS_SHARED) != 0;
}

FleetOwners::FleetOwners(ServiceLink &link) {
  const std::array<uint8_t, sizeof(uint32_t)> from_first{};
  is_known_ = link.result_of(HOST_OP_FLEET_OWNERS, from_first) == KS_SUCCESS;
  if (!is_known_) return;
  for (const HostFleetOwner &owner : ask_for_all<HostFleetOwner>(link, HOST_OP_FLEET_OWNERS)) {
    owners_.emplace(owner.uid, owner);
  }
}

Value FleetOwners::name(uint32_t uid) const {
  const auto found = owners_.find(uid);
  return found == owners_.end() ? Value() : Value(text_in(found->second.name));
}

bool FleetOwners::is_user(uint32_t uid) const {
  const auto found = owners_.find(uid);
  return found == owners_.end() || (found->second.flags & HOST_OWNER_IS_NO_USER) == 0;
}

void refuse_cut_reply() {
  throw Failure(Exit::kFailed, "the reply isn't whole; service and ksctl are of different versions");
}

}  // namespace ksctl
