// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// group.h: changes that are decided one after the other and reach the disk in one commit.
#ifndef SERVICE_VAULT_GROUP_H
#define SERVICE_VAULT_GROUP_H

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <utility>

#include "ks_types.h"
#include "vault/limits.h"
#include "vault/seal.h"
#include "vault/state.h"

namespace ksd::vault {

// Group is a number of changes that reach the disk together, on top of a state that stays as it is until then.
class Group {
 public:
  Group(const State &base, const Limits &limits, uint64_t &last_version)
      : draft_(base.table), header_(base.header), ledger_(base.ledger), limits_(limits), last_version_(last_version) {}

  RowPtr find(const EntryName &name) const { return draft_.find(name); }

  // store puts `after` in the place of `before`, null for a new entry. KS_STORE_FULL: limits forbid it.
  KsResult store(const RowPtr &before, EntryRow after);

  // Refused is what the limits forbade last, to whom.
  struct Refused {
    uid_t user = 0;
    Refusal why;
  };
  const std::optional<Refused> &refused() const { return refused_; }

  void remove(const RowPtr &before) {
    next_version();
    replace(before, nullptr);
  }

  const RowChanges &changes() const { return draft_.changes(); }

  // finished_header is the header that goes with the changes. `mark` gives what stands for a row in the digest.
  template <typename Mark>
  Header finished_header(Mark mark) const {
    Header header = header_;
    header.last_version = last_version_;
    header.entry_count = draft_.size();
    for (const auto &[id, change] : changes()) {
      if (change.before) header.take_out(mark(*change.before));
      if (change.after) header.add(mark(*change.after));
    }
    return header;
  }
  Ledger take_ledger() noexcept { return std::move(ledger_); }

 private:
  // Versions are never used again, not even those of changes that failed: they are generations too.
  uint64_t next_version() { return ++last_version_; }

  void replace(const RowPtr &before, const RowPtr &after) {
    draft_.replace(before, after);
    ledger_.replace(before.get(), after.get());
  }

  Draft draft_;
  Header header_;
  Ledger ledger_;
  const Limits &limits_;
  uint64_t &last_version_;
  std::optional<Refused> refused_;
};

}  // namespace ksd::vault

#endif
