#include "vault/ledger.h"

namespace ksd::vault {
namespace {

// fits tells whether `use` stays within the limits when `before` is replaced. Null: not counted here so far.
bool fits(const Use &use, const EntryRow *before, const EntryRow &after, uint64_t entries, uint64_t bytes) {
  if (before == nullptr && use.entries >= entries) return false;
  const uint64_t freed = before == nullptr ? 0 : before->bytes();
  return after.bytes() <= freed || use.bytes - freed + after.bytes() <= bytes;
}

// In floating point, which no limit overflows.
bool reaches(uint64_t used, uint64_t limit, unsigned percent) {
  return static_cast<double>(used) * 100 >= static_cast<double>(limit) * percent;
}

}  // namespace

bool reaches(const Use &use, const Use &limit, unsigned percent) {
  return reaches(use.entries, limit.entries, percent) || reaches(use.bytes, limit.bytes, percent);
}

bool Ledger::admits(const EntryRow *before, const EntryRow &after, const Limits &limits) const {
  const EntryRow *own = before != nullptr && before->owner == after.owner ? before : nullptr;
  return fits(all_, before, after, limits.entries, limits.bytes) &&
         fits(of(after.owner), own, after, limits.entries_per_user, limits.bytes_per_user);
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

}  // namespace ksd::vault
