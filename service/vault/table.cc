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
void for_each_name(const EntryRow &row, Action action) {
  action(row.name);
  if (row.alias) action(*row.alias);
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

void Table::reserve(size_t entries) {
  rows_.reserve(entries);
  names_.reserve(entries);
}

void Table::apply(const RowChanges &changes) noexcept {
  close_gaps(changes);
  // All old names go first: within a group one row may take a name that another has given up.
  for (const auto &[id, change] : changes) {
    if (change.before) for_each_name(*change.before, [&](const EntryName &name) { names_.erase(name); });
  }
  for (const auto &[id, change] : changes) {
    if (!change.after) continue;
    const RowPtr &row = change.after;
    for_each_name(*row, [&](const EntryName &name) { names_.emplace(name, row); });
    if (change.before) {
      *std::lower_bound(rows_.begin(), rows_.end(), id, has_smaller_id) = row.get();
    } else {
      rows_.push_back(row.get());  // ids only grow
    }
  }
}

void Table::close_gaps(const RowChanges &changes) {
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
  if (before) for_each_name(*before, [&](const EntryName &name) { names_[name] = nullptr; });
  if (after) for_each_name(*after, [&](const EntryName &name) { names_[name] = after; });
  added_ += !before;
  removed_ += !after;
  const auto [change, is_first] = changes_.try_emplace((before ? before : after)->id, RowChange{before, after});
  if (is_first) return;
  change->second.after = after;
  if (!change->second.before && !after) changes_.erase(change);  // came and went within the group
}

}  // namespace ksd::vault
