// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "vault/table.h"

#include <algorithm>

namespace ksd::vault {
namespace {

const std::array<uint8_t, crypto_shorthash_KEYBYTES> &name_hash_key() {
  static const auto key = [] {
    std::array<uint8_t, crypto_shorthash_KEYBYTES> drawn;
    randombytes_buf(drawn.data(), drawn.size());
    return drawn;
  }();
  return key;
}

bool has_smaller_id(const EntryRow *row, uint64_t id) {
  return row->id < id;
}

template <typename Action>
void for_each_name(const RowPtr &row, Action action) {
  action(NamedRow{row, false});
  if (row->alias) action(NamedRow{row, true});
}

}  // namespace

size_t NameHash::operator()(const EntryName &name) const {
  std::array<uint8_t, 3 + KS_NAME_MAX> bytes{name.tag, static_cast<uint8_t>(name.vdc_id >> 8),
                                             static_cast<uint8_t>(name.vdc_id)};
  const size_t size = std::min<size_t>(name.name.size(), KS_NAME_MAX);
  std::copy_n(name.name.begin(), size, bytes.begin() + 3);
  uint64_t hash = 0;
  static_assert(sizeof hash == crypto_shorthash_BYTES);
  crypto_shorthash(reinterpret_cast<uint8_t *>(&hash), bytes.data(), 3 + size, name_hash_key().data());
  return hash;
}

size_t Table::behind(uint64_t id) const {
  if (id == UINT64_MAX) return rows_.size();
  return static_cast<size_t>(std::lower_bound(rows_.begin(), rows_.end(), id + 1, has_smaller_id) - rows_.begin());
}

std::vector<RowPtr> Table::rows() const {
  std::vector<RowPtr> rows;
  rows.reserve(rows_.size());
  for (const NamedRow &named : names_) {
    if (!named.by_alias) rows.push_back(named.row);
  }
  return rows;
}

void Table::reserve(size_t entries) {
  rows_.reserve(entries);
  names_.reserve(entries);
}

void Table::add(const RowPtr &row) {
  rows_.push_back(row.get());
  for_each_name(row, [&](NamedRow named) { names_.insert(std::move(named)); });
}

Table::Prepared Table::prepare(const RowChanges &changes) {
  Prepared prepared;
  Names one;  // at a time: a map of its own for each would cost a table each
  size_t rows = rows_.size();
  for (const auto &[id, change] : changes) {
    if (!change.after) continue;
    rows += change.before ? 0 : 1;
    for_each_name(change.after, [&](NamedRow named) {
      one.insert(std::move(named));
      prepared.push_back(one.extract(one.begin()));
    });
  }
  // Twice as much each time, so that growing stays cheap.
  if (rows > rows_.capacity()) rows_.reserve(std::max(rows, 2 * rows_.capacity()));
  const size_t names = names_.size() + prepared.size();
  const auto bound = static_cast<size_t>(static_cast<float>(names_.bucket_count()) * names_.max_load_factor());
  if (names >= bound) names_.reserve(std::max(names + 1, 2 * bound));
  return prepared;
}

void Table::apply(const RowChanges &changes, Prepared prepared) noexcept {
  close_gaps(changes);
  // All old names go first: within a group one row may take a name that another has given up.
  for (const auto &[id, change] : changes) {
    if (!change.before) continue;
    for_each_name(change.before, [&](const NamedRow &named) { names_.erase(named); });
  }
  for (const auto &[id, change] : changes) {
    if (!change.after) continue;
    if (change.before) {
      *std::lower_bound(rows_.begin(), rows_.end(), id, has_smaller_id) = change.after.get();
    } else {
      rows_.push_back(change.after.get());  // ids only grow
    }
  }
  for (Names::node_type &named : prepared) names_.insert(std::move(named));
}

void Table::close_gaps(const RowChanges &changes) noexcept {
  auto kept_end = rows_.begin();
  auto next = rows_.begin();  // first row that hasn't moved up
  for (const auto &[id, change] : changes) {
    if (change.after) continue;
    const auto gap = std::lower_bound(next, rows_.end(), id, has_smaller_id);
    kept_end = kept_end == next ? gap : std::move(next, gap, kept_end);
    next = gap + 1;
  }
  if (kept_end != next) rows_.erase(std::move(next, rows_.end(), kept_end), rows_.end());
}

RowPtr Draft::find(const EntryName &name) const {
  const auto found = names_.find(name);
  return found == names_.end() ? base_.find(name) : found->second;
}

void Draft::replace(const RowPtr &before, const RowPtr &after) {
  if (before) for_each_name(before, [&](const NamedRow &named) { names_[named.name()] = nullptr; });
  if (after) for_each_name(after, [&](const NamedRow &named) { names_[named.name()] = after; });
  added_ += !before;
  removed_ += !after;
  const auto [change, is_first] = changes_.try_emplace((before ? before : after)->id, RowChange{before, after});
  if (is_first) return;
  change->second.after = after;
  if (!change->second.before && !after) changes_.erase(change);  // came and went within the group
}

}  // namespace ksd::vault
