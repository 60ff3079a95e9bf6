// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// ledger.h: who uses how much of the vault, against the limits.
#ifndef SERVICE_VAULT_LEDGER_H
#define SERVICE_VAULT_LEDGER_H

#include <cstdint>
#include <map>
#include <optional>
#include <vector>

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

// Owner is a user whose entries the vault holds, with the VDC of the one that was stored last.
struct Owner {
  uid_t uid = 0;
  uint16_t vdc_id = 0;
  uint64_t entries = 0;
  uint64_t bytes = 0;
};

// reaches tells whether `percent` of the entries or of the bytes of `limit` are used.
bool reaches(const Use &use, const Use &limit, unsigned percent);

// Refusal is the limit that stands in a change's way, by its name in the configuration, with what is in use of it.
struct Refusal {
  const char *limit_name = "";
  uint64_t used = 0;
  uint64_t limit = 0;
};

class Ledger {
 public:
  // refusal tells what keeps `after` from taking the place of `before`, which is null for a new entry; nothing when it
  // may. A change that makes nothing larger always may, also when limits were lowered below what is in use.
  std::optional<Refusal> refusal(const EntryRow *before, const EntryRow &after, const Limits &limits) const;

  // replace counts the change; either may be null.
  void replace(const EntryRow *before, const EntryRow *after);

  const Use &all() const { return all_; }
  const std::map<uid_t, UserUse> &users() const { return users_; }
  // owners gives `most` of them at most, the user numbered `from` and those behind.
  std::vector<Owner> owners(uid_t from, size_t most) const;

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
