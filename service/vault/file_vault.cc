// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "vault/file_vault.h"

#include <mutex>
#include <shared_mutex>

#include "vault/decide.h"

namespace ksd::vault {

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
  return commits_.commit(decide_put(name, alias, secret, metadata, owner));
}

KsResult FileVault::set_metadata(const EntryName &name, Bytes metadata) {
  return commits_.commit(decide_metadata(name, metadata));
}

KsResult FileVault::remove(const EntryName &name) {
  return commits_.commit(decide_remove(name));
}

KsResult FileVault::rename(const EntryName &from, const EntryName &to) {
  return commits_.commit(decide_rename(from, to));
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

// Between two groups nothing changes the table, and readers go on.
Snapshot FileVault::snapshot() {
  Snapshot snapshot{.vault_id = commits_.vault_id(), .header = {}, .rows = {}};
  commits_.between_groups([&] {
    snapshot.header = state_.header;
    snapshot.rows = state_.table.rows();
  });
  return snapshot;
}

std::vector<Owner> FileVault::owners(uid_t from, size_t most) const {
  const std::shared_lock lock(state_lock_);
  return state_.ledger.owners(from, most);
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
