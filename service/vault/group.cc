// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "vault/group.h"

namespace ksd::vault {

KsResult Group::store(const RowPtr &before, EntryRow after) {
  if (const auto refusal = ledger_.refusal(before.get(), after, limits_)) {
    refused_ = {after.owner, *refusal};
    return KS_STORE_FULL;
  }
  if (before == nullptr) after.id = ++header_.last_id;
  after.version = next_version();
  if (before == nullptr || before->secret != after.secret) after.generation = after.version;
  replace(before, std::make_shared<const EntryRow>(std::move(after)));
  return KS_SUCCESS;
}

}  // namespace ksd::vault
