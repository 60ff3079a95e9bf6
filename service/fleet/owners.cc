// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "fleet/owners.h"

namespace ksd::fleet {

Owners::Owners(std::map<uid_t, std::string> names) : names_(std::move(names)) {
  for (const auto &[user, name] : names_) numbers_.emplace(name, user);
}

uid_t Owners::number_of(const std::string &name) {
  const std::lock_guard lock(mutex_);
  const auto next = static_cast<uid_t>(kFirstForeign + foreign_.size());
  const auto [found, is_new] = numbers_.try_emplace(name, next);
  if (is_new) foreign_.emplace(next, name);
  return found->second;
}

std::string Owners::name_of(uid_t owner) const {
  if (const auto named = names_.find(owner); named != names_.end()) return named->second;
  const std::lock_guard lock(mutex_);
  const auto found = foreign_.find(owner);
  return found == foreign_.end() ? kUnnamedOwner : found->second;
}

std::map<uid_t, std::string> Owners::all() const {
  std::map<uid_t, std::string> all = names_;
  const std::lock_guard lock(mutex_);
  all.insert(foreign_.begin(), foreign_.end());
  return all;
}

}  // namespace ksd::fleet
