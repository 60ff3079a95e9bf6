// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// table.h: the index of all entries in memory: by name and alias in constant time, and by dense position.
#ifndef SERVICE_VAULT_TABLE_H
#define SERVICE_VAULT_TABLE_H

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "vault/record.h"

namespace ksd::vault {

// NameHash hashes names under a key drawn at start: users choose the names, and must not be able to choose ones that
// meet in one bucket.
struct NameHash {
  size_t operator()(const EntryName &name) const;
};

// NamedRow is a row under one of its two names, which it doesn't keep once more.
struct NamedRow {
  RowPtr row;
  bool by_alias;

  const EntryName &name() const { return by_alias ? *row->alias : row->name; }
};
struct NamedRowHash : NameHash {
  using is_transparent = void;
  using NameHash::operator();
  size_t operator()(const NamedRow &named) const { return (*this)(named.name()); }
};
struct SameName {
  using is_transparent = void;
  bool operator()(const NamedRow &a, const NamedRow &b) const { return a.name() == b.name(); }
  bool operator()(const NamedRow &a, const EntryName &b) const { return a.name() == b; }
  bool operator()(const EntryName &a, const NamedRow &b) const { return a == b.name(); }
};

// RowChange is what becomes of one row: null `before` for a new one, null `after` for one that goes.
struct RowChange {
  RowPtr before, after;
};

using RowChanges = std::map<uint64_t, RowChange>;  // by id

// Table isn't locked: its owner sees to that.
class Table {
 public:
  // find gives the row of that name or alias, or null.
  RowPtr find(const EntryName &name) const {
    const auto found = names_.find(name);
    return found == names_.end() ? nullptr : found->row;
  }
  const EntryRow *at(size_t position) const { return position < rows_.size() ? rows_[position] : nullptr; }
  size_t size() const { return rows_.size(); }

  // behind gives the position of the first row with a larger id.
  size_t behind(uint64_t id) const;

  // rows gives all rows, in no order.
  std::vector<RowPtr> rows() const;
  void reserve(size_t entries);

  // add takes up a row whose id is larger than all before.
  void add(const RowPtr &row);

  // Prepared is the memory that the changes of a group need.
  using Names = std::unordered_set<NamedRow, NamedRowHash, SameName>;
  using Prepared = std::vector<Names::node_type>;

  // prepare gets that memory, while nothing has happened yet. Throws std::bad_alloc.
  Prepared prepare(const RowChanges &changes);

  // apply makes the changes of a whole group at once; rows that stay keep their order. It can't fail: the disk has the
  // changes already.
  void apply(const RowChanges &changes, Prepared prepared) noexcept;

 private:
  void close_gaps(const RowChanges &changes) noexcept;

  // Plain pointers, which `names_` keeps alive: closing a gap in a full table then moves half a megabyte, in some 20
  // us.
  std::vector<const EntryRow *> rows_;  // ascending by id
  Names names_;
};

// Draft is the table as it will be once a group of changes is on disk.
class Draft {
 public:
  explicit Draft(const Table &base) : base_(base) {}

  RowPtr find(const EntryName &name) const;

  // replace takes `before` out and puts `after` in. Either may be null; both have the same id.
  void replace(const RowPtr &before, const RowPtr &after);

  const RowChanges &changes() const { return changes_; }
  size_t size() const { return base_.size() + added_ - removed_; }

 private:
  const Table &base_;
  RowChanges changes_;
  std::unordered_map<EntryName, RowPtr, NameHash> names_;  // null: no longer a name
  size_t added_ = 0, removed_ = 0;
};

}  // namespace ksd::vault

#endif
