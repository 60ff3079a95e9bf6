// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "vault/use_watch.h"

#include <fmt/format.h>

#include "base/log.h"

namespace ksd::vault {
namespace {

constexpr int64_t kAllUsers = -1;

}  // namespace

void UseWatch::look_at(const std::string &path, const Ledger &ledger, const Limits &limits) {
  watch(path, kAllUsers, ledger.all(), {limits.entries, limits.bytes});
  for (const auto &[uid, use] : ledger.users()) {
    watch(path, uid, use, {limits.entries_per_user, limits.bytes_per_user});
  }
}

void UseWatch::watch(const std::string &path, int64_t user, const Use &use, const Use &limit) {
  if (!reaches(use, limit, 70)) said_.erase(user);
  if (!reaches(use, limit, 80) || !said_.insert(user).second) return;
  const char *suffix = user == kAllUsers ? "" : "_per_user";
  tell(
      event::kRoomRunsOut,
      "{}: 80 % of the room of {} is used: {} of {} entries, {} of {} bytes; clear some, or raise entries{} or bytes{} "
      "under [limits]",
      path, user == kAllUsers ? "all users" : fmt::format("user {}", user), use.entries, limit.entries, use.bytes,
      limit.bytes, suffix, suffix);
}

}  // namespace ksd::vault
