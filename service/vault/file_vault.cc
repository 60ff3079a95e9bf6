// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "vault/file_vault.h"

#include <mutex>
#include <shared_mutex>

namespace ksd::vault {
namespace {

KsResult decide_put(Group &group, const EntryRow &asked) {
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

// decide_rename changes the name that the entry was called by, which may be its alias. Renamed to its other name, an
// entry is left with that one alone.
KsResult decide_rename(Group &group, const EntryName &from, const EntryName &to) {
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

FileVault::FileVault(VaultLock lock, Writer writer, State state, const Limits &limits, MasterKey master)
    : lock_(std::move(lock)),
      state_(std::move(state)),
      commits_(std::move(writer), state_, limits, *this, std::move(master)) {}

std::optional<Entry> FileVault::find(const EntryName &name) const {
  RowPtr row;
  {
    const std::shared_lock lock(state_lock_);
    row = state_.table.find(name);
  }
  if (row == nullptr) return std::nullopt;
  return Entry{row->generation, row->secret, row->metadata};
}

bool FileVault::exists(const EntryName &name) const {
  const std::shared_lock lock(state_lock_);
  return state_.table.find(name) != nullptr;
}

std::optional<EntryName> FileVault::at(uint16_t position) const {
  const std::shared_lock lock(state_lock_);
  const EntryRow *row = state_.table.at(position);
  if (row == nullptr) return std::nullopt;
  return row->name;
}

size_t FileVault::count() const {
  const std::shared_lock lock(state_lock_);
  return state_.table.size();
}

KsResult FileVault::put(const EntryName &name, const std::optional<EntryName> &alias, Bytes secret, Bytes metadata,
                        uid_t owner) {
  EntryRow asked;
  asked.owner = owner;
  asked.name = name;
  if (alias) asked.alias = std::make_shared<const EntryName>(*alias);
  asked.secret = SecretBytes::copy_of(secret);
  asked.metadata = metadata_of(metadata);
  return commits_.commit([&asked](Group &group) { return decide_put(group, asked); });
}

KsResult FileVault::set_metadata(const EntryName &name, Bytes metadata) {
  const auto block = metadata_of(metadata);
  return commits_.commit([&](Group &group) {
    const RowPtr before = group.find(name);
    if (before == nullptr) return KS_NOT_FOUND;
    EntryRow after = *before;
    after.metadata = block;
    return group.store(before, std::move(after));
  });
}

KsResult FileVault::remove(const EntryName &name) {
  return commits_.commit([&](Group &group) {
    const RowPtr before = group.find(name);
    if (before == nullptr) return KS_NOT_FOUND;
    group.remove(before);
    return KS_SUCCESS;
  });
}

KsResult FileVault::rename(const EntryName &from, const EntryName &to) {
  return commits_.commit([&](Group &group) { return decide_rename(group, from, to); });
}

Store::Usage FileVault::usage() const {
  const Limits limits = commits_.current_limits();
  Usage usage;
  usage.entry_limit = limits.entries;
  usage.compaction_helps = commits_.compaction_helps();
  const std::shared_lock lock(state_lock_);
  const Use &use = state_.ledger.all();
  usage.entries = use.entries;
  usage.bytes = use.bytes;
  usage.byte_limit = limits.bytes;
  usage.over_90_percent = reaches(use, {limits.entries, limits.bytes}, 90);
  return usage;
}

// On the thread of writes nothing changes the table meanwhile, and readers go on.
Snapshot FileVault::snapshot() {
  Snapshot snapshot{.vault_id = commits_.vault_id(), .header = {}, .rows = {}};
  commits_.between_groups([&] {
    snapshot.header = state_.header;
    snapshot.rows = state_.table.rows();
  });
  return snapshot;
}

std::vector<Owner> FileVault::owners(uid_t from, size_t most) const {
  std::vector<Owner> owners;
  owners.reserve(most);
  const std::shared_lock lock(state_lock_);
  const std::map<uid_t, UserUse> &users = state_.ledger.users();
  for (auto user = users.lower_bound(from); user != users.end() && owners.size() < most; ++user) {
    const auto &[uid, use] = *user;
    owners.push_back({.uid = uid, .vdc_id = use.vdc_id, .entries = use.entries, .bytes = use.bytes});
  }
  return owners;
}

void FileVault::prepare(const Group &group) {
  const std::unique_lock lock(state_lock_);
  prepared_ = state_.table.prepare(group.changes());
}

void FileVault::show(Group &group, const Header &header) noexcept {
  {
    const std::unique_lock lock(state_lock_);
    begin_epoch();
    state_.table.apply(group.changes(), std::move(prepared_));
    state_.ledger = group.take_ledger();
  }
  state_.header = header;
  if (!retired_) return;
  for (const auto &[id, change] : group.changes()) {
    if (!change.before) continue;
    if (!change.after || change.after->generation != change.before->generation) retired_(change.before->generation);
  }
}

}  // namespace ksd::vault
