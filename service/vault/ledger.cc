// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "vault/ledger.h"

namespace ksd::vault {
namespace {

struct Bound {
  const char *name;
  uint64_t limit;
};

// over gives the bound that `use` would cross when `before` is replaced. Null: not counted here so far.
std::optional<Refusal> over(const Use &use, const EntryRow *before, const EntryRow &after, const Bound &entries,
                            const Bound &bytes) {
  if (before == nullptr && use.entries >= entries.limit) return Refusal{entries.name, use.entries, entries.limit};
  const uint64_t freed = before == nullptr ? 0 : before->bytes();
  if (after.bytes() <= freed || use.bytes - freed + after.bytes() <= bytes.limit) return std::nullopt;
  return Refusal{bytes.name, use.bytes, bytes.limit};
}

// In floating point, which no limit overflows.
bool reaches(uint64_t used, uint64_t limit, unsigned percent) {
  return static_cast<double>(used) * 100 >= static_cast<double>(limit) * percent;
}

}  // namespace

bool reaches(const Use &use, const Use &limit, unsigned percent) {
  return reaches(use.entries, limit.entries, percent) || reaches(use.bytes, limit.bytes, percent);
}

std::optional<Refusal> Ledger::refusal(const EntryRow *before, const EntryRow &after, const Limits &limits) const {
  const EntryRow *own = before != nullptr && before->owner == after.owner ? before : nullptr;
  if (auto found = over(all_, before, after, {"entries", limits.entries}, {"bytes", limits.bytes})) return found;
  return over(of(after.owner), own, after, {"entries_per_user", limits.entries_per_user},
              {"bytes_per_user", limits.bytes_per_user});
}

void Ledger::replace(const EntryRow *before, const EntryRow *after) {
  if (before != nullptr) {
    UserUse &user = users_[before->owner];
    for (Use *use : {&all_, static_cast<Use *>(&user)}) {
      --use->entries;
      use->bytes -= before->bytes();
    }
    if (user.entries == 0) users_.erase(before->owner);
  }
  if (after == nullptr) return;
  UserUse &user = users_[after->owner];
  user.vdc_id = after->name.vdc_id;
  for (Use *use : {&all_, static_cast<Use *>(&user)}) {
    ++use->entries;
    use->bytes += after->bytes();
  }
}

std::vector<Owner> Ledger::owners(uid_t from, size_t most) const {
  std::vector<Owner> owners;
  for (auto user = users_.lower_bound(from); user != users_.end() && owners.size() < most; ++user) {
    const auto &[uid, use] = *user;
    owners.push_back({.uid = uid, .vdc_id = use.vdc_id, .entries = use.entries, .bytes = use.bytes});
  }
  return owners;
}

}  // namespace ksd::vault
