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

bool is_same(const EntryRow &a, const EntryRow &b) {
  const bool same_alias = a.alias && b.alias ? *a.alias == *b.alias : !a.alias && !b.alias;
  const Bytes one = a.secret->bytes(), other = b.secret->bytes();
  return a.name == b.name && same_alias && a.owner == b.owner && *a.metadata == *b.metadata &&
         one.size() == other.size() && sodium_memcmp(one.data(), other.data(), one.size()) == 0;
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

KsResult import_entry(Group &group, const EntryRow &row, Taken taken, Import &became) {
  const RowPtr by_name = group.find(row.name), by_alias = row.alias ? group.find(*row.alias) : nullptr;
  const RowPtr before = by_name != nullptr ? by_name : by_alias;
  became = Import::kAdded;
  if (before != nullptr && is_same(*before, row)) {
    became = Import::kSame;
    return KS_SUCCESS;
  }
  if (before != nullptr && taken == Taken::kSkip) {
    became = Import::kSkipped;
    return KS_SUCCESS;
  }
  const bool takes_two = by_name != nullptr && by_alias != nullptr && by_name != by_alias;
  if (takes_two || (before != nullptr && taken == Taken::kRefuse)) {
    became = Import::kRefused;
    return KS_INVALID_ARGS;
  }
  if (before != nullptr) became = Import::kReplaced;
  EntryRow after = row;
  after.id = before == nullptr ? 0 : before->id;
  return group.store(before, std::move(after));
}

Decide decide_import(RowPtr row, Taken taken, Import &became) {
  return [row = std::move(row), taken, &became](Group &group) { return import_entry(group, *row, taken, became); };
}

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
