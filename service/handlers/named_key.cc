// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "handlers/named_key.h"

namespace ksd::handlers {
namespace {

bool has_owner(const EntryName &name, KeyDemand::Owner owner) {
  switch (owner) {
    case KeyDemand::Owner::kSecret:
      return name.tag == KS_NAME_TAG_SECRET;
    case KeyDemand::Owner::kPac:
      return name.tag == KS_NAME_TAG_PAC;
    case KeyDemand::Owner::kEither:
      return true;
  }
  return false;
}

}  // namespace

KsResult allow_key(Service &service, const Request &request, const EntryName &name, const KeyDemand &demand) {
  if (!service.crypto.usable(demand.algorithm)) return KS_CRYPT_ERROR;
  return allowed_name(service, request, name) && has_owner(name, demand.owner) ? KS_SUCCESS : KS_NOT_FOUND;
}

KsResult find_key(const vault::Store &store, const EntryName &name, vault::Entry *out_entry) {
  std::optional<vault::Entry> entry = store.find(name);
  if (!entry || !entry->secret) return KS_NOT_FOUND;
  *out_entry = std::move(*entry);
  return KS_SUCCESS;
}

}  // namespace ksd::handlers
