// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "vault/decide.h"

namespace ksd::vault {
namespace {

KsResult put(Group &group, const EntryRow &asked) {
  const RowPtr before = group.find(asked.name);
  if (asked.alias) {
    const RowPtr holder = group.find(*asked.alias);
    if (holder != nullptr && holder != before) return KS_INVALID_ARGS;
  }
  EntryRow after = before == nullptr ? asked : *before;
  after.owner = asked.owner;
  after.secret = asked.secret;
  after.metadata = asked.metadata;
  after.alias = before == nullptr ? nullptr : before->alias;
  if (asked.alias && *asked.alias != after.name) after.alias = asked.alias;
  return group.store(before, std::move(after));
}

// rename changes the name that the entry was called by, which may be its alias. Renamed to its other name, an
// entry is left with that one alone.
KsResult rename(Group &group, const EntryName &from, const EntryName &to) {
  const RowPtr before = group.find(from);
  if (before == nullptr) return KS_NOT_FOUND;
  if (from == to) return KS_SUCCESS;
  const RowPtr holder = group.find(to);
  if (holder != nullptr && holder != before) return KS_INVALID_ARGS;
  EntryRow after = *before;
  const bool called_by_alias = before->name != from;
  if (holder == before) after.alias.reset();
  if (called_by_alias && holder == nullptr) {
    after.alias = std::make_shared<const EntryName>(to);
  } else {
    after.name = to;
  }
  return group.store(before, std::move(after));
}

}  // namespace

Decide decide_put(const EntryName &name, const std::optional<EntryName> &alias, Bytes secret, Bytes metadata,
                  uid_t owner) {
  EntryRow asked;
  asked.owner = owner;
  asked.name = name;
  if (alias) asked.alias = std::make_shared<const EntryName>(*alias);
  asked.secret = SecretBytes::copy_of(secret);
  asked.metadata = metadata_of(metadata);
  return [asked = std::move(asked)](Group &group) { return put(group, asked); };
}

Decide decide_metadata(const EntryName &name, Bytes metadata) {
  return [name, block = metadata_of(metadata)](Group &group) -> KsResult {
    const RowPtr before = group.find(name);
    if (before == nullptr) return KS_NOT_FOUND;
    EntryRow after = *before;
    after.metadata = block;
    return group.store(before, std::move(after));
  };
}

Decide decide_remove(const EntryName &name) {
  return [name](Group &group) -> KsResult {
    const RowPtr before = group.find(name);
    if (before == nullptr) return KS_NOT_FOUND;
    group.remove(before);
    return KS_SUCCESS;
  };
}

Decide decide_rename(const EntryName &from, const EntryName &to) {
  return [from, to](Group &group) { return rename(group, from, to); };
}

}  // namespace ksd::vault
