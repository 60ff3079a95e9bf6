// ledger.h: who uses how much of the vault, against the limits.
#ifndef SERVICE_VAULT_LEDGER_H
#define SERVICE_VAULT_LEDGER_H

#include <cstdint>
#include <map>
#include <optional>

#include "vault/limits.h"
#include "vault/record.h"

namespace ksd::vault {

// Use counts entries, and the bytes of their secrets and metadata.
struct Use {
  uint64_t entries = 0;
  uint64_t bytes = 0;
};

struct UserUse : Use {
  uint16_t vdc_id = 0;  // of the entry that was stored last
};

// reaches tells whether `percent` of the entries or of the bytes of `limit` are used.
bool reaches(const Use &use, const Use &limit, unsigned percent);

class Ledger {
 public:
  // admits tells whether `after` may take the place of `before`, which is null for a new entry. A change that makes
  // nothing larger is always admitted, also when limits were lowered below what is in use.
  bool admits(const EntryRow *before, const EntryRow &after, const Limits &limits) const;

  // replace counts the change; either may be null.
  void replace(const EntryRow *before, const EntryRow *after);

  const Use &all() const { return all_; }
  const std::map<uid_t, UserUse> &users() const { return users_; }

 private:
  Use of(uid_t user) const {
    const auto found = users_.find(user);
    return found == users_.end() ? Use{} : Use(found->second);
  }

  Use all_;
  std::map<uid_t, UserUse> users_;
};

}  // namespace ksd::vault

#endif
