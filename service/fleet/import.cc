// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "fleet/import.h"

namespace ksd::fleet {

void ImportCounts::count(vault::Import became) {
  using vault::Import;
  switch (became) {
    case Import::kAdded:
      ++added;
      break;
    case Import::kSame:
      ++same;
      break;
    case Import::kReplaced:
      ++replaced;
      break;
    case Import::kSkipped:
      ++skipped;
      break;
    case Import::kRefused:
      break;
  }
}

ImportPlan plan_import(const vault::State &state, const vault::Limits &limits, const std::vector<vault::RowPtr> &rows,
                       vault::Taken taken) {
  ImportPlan plan;
  uint64_t last_version = state.header.last_version;
  vault::Group group(state, limits, last_version);
  for (const vault::RowPtr &row : rows) {
    vault::Import became{};
    switch (vault::import_entry(group, *row, taken, became)) {
      case KS_SUCCESS:
        plan.counts.count(became);
        break;
      case KS_STORE_FULL:
        plan.limit = group.refused()->why;
        return plan;
      default:
        plan.taken.push_back(row->name);
    }
  }
  return plan;
}

}  // namespace ksd::fleet
