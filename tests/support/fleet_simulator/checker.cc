// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "fleet_simulator/checker.h"

#include <fmt/format.h>

#include <algorithm>
#include <set>

namespace ksd::fleet {
namespace {

std::string text_of(Bytes bytes) {
  return {bytes.begin(), bytes.end()};
}

}  // namespace

PlainRow *PlainTable::find(const std::string &name) {
  const auto found = std::find_if(rows.begin(), rows.end(),
                                  [&](const PlainRow &row) { return row.name == name || row.alias == name; });
  return found == rows.end() ? nullptr : &*found;
}

KsResult PlainTable::make(const Operation &operation, const vault::Limits &limits) {
  PlainRow *row = find(operation.name);
  switch (operation.kind) {
    case Operation::Kind::kPut: {
      PlainRow *other = operation.other.empty() ? nullptr : find(operation.other);
      if (other != nullptr && other != row) return KS_INVALID_ARGS;
      const auto of_owner =
          std::count_if(rows.begin(), rows.end(), [&](const PlainRow &one) { return one.owner == operation.owner; });
      if (row == nullptr && rows.size() >= limits.entries) return KS_STORE_FULL;
      const bool is_new_to_owner = row == nullptr || row->owner != operation.owner;
      if (is_new_to_owner && static_cast<uint64_t>(of_owner) >= limits.entries_per_user) return KS_STORE_FULL;
      if (row == nullptr) {
        rows.push_back({.id = ++last_id, .name = operation.name, .alias = {}, .value = {}, .metadata = {}, .owner = 0});
        row = &rows.back();
      }
      row->value = operation.value;
      row->metadata = "of " + operation.value;
      row->owner = operation.owner;
      if (!operation.other.empty() && operation.other != row->name) row->alias = operation.other;
      return KS_SUCCESS;
    }
    case Operation::Kind::kMetadata:
      if (row == nullptr) return KS_NOT_FOUND;
      row->metadata = operation.value;
      return KS_SUCCESS;
    case Operation::Kind::kRemove:
      if (row == nullptr) return KS_NOT_FOUND;
      rows.erase(rows.begin() + (row - rows.data()));
      return KS_SUCCESS;
    case Operation::Kind::kRename: {
      if (row == nullptr) return KS_NOT_FOUND;
      PlainRow *holder = find(operation.other);
      if (holder != nullptr && holder != row) return KS_INVALID_ARGS;
      if (operation.other == operation.name) return KS_SUCCESS;
      const bool by_alias = row->name != operation.name;
      if (holder == row) {  // to its own other name
        row->name = operation.other;
        row->alias.clear();
      } else if (by_alias) {
        row->alias = operation.other;
      } else {
        row->name = operation.other;
      }
      return KS_SUCCESS;
    }
  }
  return KS_FAILURE;
}

void Checker::fail(const std::string &what) {
  if (violation_.empty()) violation_ = fmt::format("{} ms: {}", events_.now() / 1ms, what);
}

void Checker::happened(const Commit &commit, const FleetHeader &header, const std::vector<PlainRow> &rows,
                       const std::vector<Ticket> &tickets) {
  const Version before = versions_.back();
  if (header.version != version() + 1) {
    return fail(fmt::format("version {} was written over version {}", header.version, version()));
  }
  if (header.version > 1 && header.before != before.hash) return fail("a header doesn't follow on the one before");
  auto table = std::make_shared<PlainTable>(*before.table);
  for (const Ticket ticket : tickets) {
    Operation &operation = operations[ticket];
    operation.decided = table->make(operation, limits_);
    if (operation.decided != KS_SUCCESS || operation.changes_nothing()) continue;
    if (operation.happened_at != 0) fail(fmt::format("change {} was made twice", ticket));
    operation.happened_at = header.version;
    if (operation.is_answered && operation.result != KS_TIMEOUT) {
      fail(fmt::format("change {} was made behind its answer {}", ticket, operation.result));
    }
  }
  // What was written is what the changes make of the table.
  if (table->rows.size() != header.table.entry_count) fail("a header counts other entries than there are");
  if (table->last_id != header.table.last_id) fail("ids aren't given out one after the other");
  for (const PlainRow &row : rows) {
    const auto same =
        std::find_if(table->rows.begin(), table->rows.end(), [&](const auto &one) { return one.id == row.id; });
    if (same == table->rows.end() || !(*same == row))
      fail(fmt::format("row {} isn't what the changes make of it", row.id));
  }
  const auto is_written = [&](uint64_t id) {
    return std::any_of(rows.begin(), rows.end(), [&](const PlainRow &row) { return row.id == id; });
  };
  for (const PlainRow &row : table->rows) {
    const auto was = std::find_if(before.table->rows.begin(), before.table->rows.end(),
                                  [&](const PlainRow &one) { return one.id == row.id; });
    const bool changed = was == before.table->rows.end() || !(*was == row);
    if (changed && !is_written(row.id)) fail(fmt::format("row {} was changed, but not written", row.id));
  }
  for (const PlainRow &row : before.table->rows) {
    const bool stays =
        std::any_of(table->rows.begin(), table->rows.end(), [&](const auto &one) { return one.id == row.id; });
    const bool deleted =
        std::count(commit.deletes.begin(), commit.deletes.end(), row_key({.folder = header.folder, .id = row.id})) != 0;
    if (stays == deleted) fail(fmt::format("row {} was removed, but not deleted, or the other way round", row.id));
  }
  versions_.push_back({std::move(table), hash_of(commit.puts.front().value), events_.now()});
}

void Checker::restored(const FleetHeader &header, const HeaderHash &hash, const PlainTable &backup,
                       const std::vector<PlainRow> &rows) {
  if (header.version != version() + 1) fail("a restore doesn't come after the last change");
  if (header.incarnation <= incarnation_) fail("a restore raises no incarnation");
  if (header.table.last_id != backup.last_id) fail("a restore gives ids out again");
  if (rows != backup.rows) fail("a restored fleet hasn't all the rows of the backup, or has others");
  incarnation_ = header.incarnation;
  folder_ = header.folder;
  versions_.push_back({std::make_shared<PlainTable>(backup), hash, events_.now()});
}

bool Checker::could_have_given(const Operation &operation, KsResult result) const {
  for (uint64_t version = operation.version_when_invoked; version < versions_.size(); ++version) {
    PlainTable table = *versions_[version].table;
    if (table.make(operation, limits_) == result) return true;
  }
  return false;
}

// came_to_nothing tells whether the changes of a group, made one after the other, leave the table as it was.
bool Checker::came_to_nothing(const std::vector<Ticket> &group, uint64_t since) const {
  for (uint64_t version = since; version < versions_.size(); ++version) {
    PlainTable table = *versions_[version].table;
    for (const Ticket ticket : group) table.make(operations[ticket], limits_);
    if (table.rows == versions_[version].table->rows) return true;
  }
  return false;
}

void Checker::answered(Ticket ticket, KsResult result, const Core &core, const std::vector<Ticket> &group) {
  Operation &operation = operations[ticket];
  if (operation.is_answered) return fail(fmt::format("change {} was answered twice", ticket));
  operation.is_answered = true;
  operation.answered = events_.now();
  operation.result = result;
  if (operation.answered - operation.invoked > answered_within_)
    fail(fmt::format("change {} was answered late", ticket));
  switch (result) {
    case KS_SUCCESS:
      if (operation.changes_nothing()) break;
      if (operation.happened_at == 0 && came_to_nothing(group, operation.version_when_invoked)) return;
      if (operation.happened_at == 0)
        return fail(fmt::format("change {} wasn't made when it was acknowledged", ticket));
      if (core.memory().header().version < operation.happened_at) {
        fail(fmt::format("change {} isn't read by the machine that acknowledged it", ticket));
      }
      return;
    case KS_TIMEOUT:
      return;
    default:
      if (operation.happened_at != 0) return fail(fmt::format("change {} was refused, and made", ticket));
  }
  const bool is_for_all =
      result == KS_FW_COMM_ERROR || result == KS_FW_BAD_CELL || (result == KS_STORE_FULL && was_refused_for_space);
  if (is_for_all || operation.decided == result) return;  // as it was decided beside others of its commit
  if (group.size() > 1 && came_to_nothing(group, operation.version_when_invoked)) return;
  if (!could_have_given(operation, result)) {
    fail(fmt::format("change {} was answered {}, which it never could have been", ticket, result));
  }
}

void Checker::read(const Core &core, Time max_age, uint64_t &last) {
  if (!core.readable(events_.now())) return;
  const Memory &memory = core.memory();
  const uint64_t version = memory.header().version;
  if (version < last) return fail(fmt::format("memory went back from version {} to {}", last, version));
  last = version;
  if (version >= versions_.size() || versions_[version].hash != memory.hash()) {
    return fail(fmt::format("version {} in memory never was", version));
  }
  const PlainTable &table = *versions_[version].table;
  const vault::Table &found = memory.state().table;
  if (found.size() != table.rows.size()) return fail("memory has other entries than its version");
  for (size_t i = 0; i < table.rows.size(); ++i) {
    const PlainRow &row = table.rows[i];
    const vault::EntryRow *at = found.at(i);
    if (at->id != row.id || at->name.name != row.name || text_of(at->secret->bytes()) != row.value) {
      return fail(fmt::format("position {} of version {} is another entry", i, version));
    }
    if (text_of(*at->metadata) != row.metadata || (at->alias != nullptr) == row.alias.empty()) {
      return fail(fmt::format("entry {} of version {} is another one", row.id, version));
    }
    if (found.find(at->name).get() != at) return fail("an entry isn't found by its name");
    if (at->alias && (at->alias->name != row.alias || found.find(*at->alias).get() != at)) {
      return fail("an entry isn't found by its alias");
    }
  }
  // Whatever was there at the time that memory says it is of, memory has.
  const Time as_of = *core.readable_until() - max_age;
  if (version + 1 < versions_.size() && versions_[version + 1].since < as_of) {
    fail(fmt::format("memory of version {} is older than it says", version));
  }
}

void Checker::ended() {
  for (size_t i = 0; i < operations.size(); ++i) {
    const Operation &operation = operations[i];
    if (!operation.is_answered || operation.result == KS_TIMEOUT || operation.result == KS_SUCCESS) continue;
    if (operation.happened_at != 0) fail(fmt::format("change {} was refused, and made", i));
  }
}

}  // namespace ksd::fleet
