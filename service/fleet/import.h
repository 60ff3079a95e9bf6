// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// import.h: what a fleet would make of the entries of a vault.
#ifndef SERVICE_FLEET_IMPORT_H
#define SERVICE_FLEET_IMPORT_H

#include <optional>
#include <vector>

#include "vault/decide.h"
#include "vault/state.h"

namespace ksd::fleet {

struct ImportCounts {
  uint64_t added = 0;
  uint64_t same = 0;  // were there already, with the same content
  uint64_t replaced = 0;
  uint64_t skipped = 0;

  void count(vault::Import became);
};

struct ImportPlan {
  ImportCounts counts;
  std::vector<EntryName> taken;         // those of entries that are refused for their names
  std::optional<vault::Refusal> limit;  // that stands in the way
};

// plan_import tells what taking in all of `rows` in their order, with the fleet's owners in them, would make of
// `state`.
ImportPlan plan_import(const vault::State &state, const vault::Limits &limits, const std::vector<vault::RowPtr> &rows,
                       vault::Taken taken);

}  // namespace ksd::fleet

#endif
