// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "fleet/memory.h"

#include <algorithm>

#include "fleet/mutants.h"

namespace ksd::fleet {
namespace {

using vault::RecordKind;

bool same_bytes(const SecretBytes &a, const SecretBytes &b) {
  return a.size() == b.size() && sodium_memcmp(a.bytes().data(), b.bytes().data(), a.size()) == 0;
}

// takes_no_other looks whether all names of `row` are free, or are given up by `changes`.
bool takes_no_other(const vault::EntryRow &row, const vault::Table &table, const vault::Draft &draft) {
  const auto is_free = [&](const EntryName &name) {
    const vault::RowPtr holder = table.find(name);
    if (holder != nullptr && !draft.changes().contains(holder->id)) return false;
    return draft.find(name).get() == &row;
  };
  return is_free(row.name) && (!row.alias || is_free(*row.alias));
}

// made_by_one tells whether `later` has one change more than `earlier`, of its author.
bool made_by_one(const FleetHeader &earlier, const FleetHeader &later) {
  for (const WriterMark &mark : later.writers) {
    const WriterMark *then = earlier.mark_of(mark.machine);
    const bool is_author = &mark == &later.author();
    if (is_author ? then != nullptr && then->sequence >= mark.sequence : then == nullptr || *then != mark) return false;
  }
  return later.follows(earlier);
}

}  // namespace

Memory::Memory(std::shared_ptr<const SecretBytes> master_key, std::optional<FleetId> fleet, Owners &owners)
    : master_key_(std::move(master_key)), key_id_(vault::key_id_of(*master_key_)), owners_(owners) {
  if (fleet) belong_to(*fleet);
}

void Memory::belong_to(const FleetId &fleet) {
  fleet_ = fleet;
  sealer_.emplace(*master_key_, fleet);
}

Verdict Memory::judge(const std::optional<KeyValue> &header, OpenedHeader &out) const {
  if (!header) return Verdict::kMissing;
  const HeaderHash hash = hash_of(header->value);
  if (filled_ && hash == hash_) {  // which saves opening what was opened before
    out = {.header = header_, .hash = hash, .fleet = *fleet_, .revision = header->mod_revision};
    return Verdict::kSame;
  }
  const std::optional<HeaderFront> front = header_front(header->value);
  if (!front) return Verdict::kUnreadable;
  if (front->key != key_id_) return Verdict::kOtherKey;
  if (fleet_ && front->fleet != *fleet_) return Verdict::kOtherFleet;
  const std::shared_ptr<const SecretBytes> plain =
      sealer_ ? sealer_->open(RecordKind::kFleetHeader, 0, front->sealed)
              : vault::Sealer(*master_key_, front->fleet).open(RecordKind::kFleetHeader, 0, front->sealed);
  std::optional<FleetHeader> opened = plain ? decode_header(plain->bytes()) : std::nullopt;
  if (!opened) return Verdict::kUnreadable;
  out = {.header = std::move(*opened), .hash = hash, .fleet = front->fleet, .revision = header->mod_revision};
  if (!filled_) return Verdict::kLater;

  const FleetHeader &found = out.header;
  if (found.incarnation > header_.incarnation) return Verdict::kRestored;
  if (found.incarnation < header_.incarnation || found.version < header_.version) return Verdict::kRolledBack;
  if (found.version == header_.version) return Verdict::kForked;
  const bool is_next = found.version == header_.version + 1;
  return found.follows(header_) && (!is_next || found.before == hash_) ? Verdict::kLater : Verdict::kForked;
}

bool Memory::is_own_row(std::string_view key) const {
  const std::string any = row_key(0);
  return key.starts_with(std::string_view(any).substr(0, any.rfind('/') + 1));
}

vault::RowPtr Memory::find(uint64_t id) const {
  const size_t behind = state_.table.behind(id);
  const vault::EntryRow *row = behind == 0 ? nullptr : state_.table.at(behind - 1);
  return row == nullptr || row->id != id ? nullptr : state_.table.find(row->name);
}

std::shared_ptr<const SecretBytes> Memory::plain_of(const vault::EntryRow &row) const {
  return encode_row(row, owners_.name_of(row.owner));
}

vault::Digest Memory::mark_of(const vault::EntryRow &row) const {
  return sealer_->content_mark(row.id, plain_of(row)->bytes());
}

std::vector<uint8_t> Memory::sealed_row(const vault::EntryRow &row) const {
  return sealer_->seal(RecordKind::kFleetRow, row.id, plain_of(row)->bytes());
}

// open_row gives what the engine has, or `before` where that is the same. A secret that is as it was stays the same
// content, so that what was prepared from it still counts.
std::optional<Memory::OpenedRow> Memory::open_row(const KeyValue &stored, uint64_t id, const vault::RowPtr &before) {
  const std::shared_ptr<const SecretBytes> plain = sealer_->open(RecordKind::kFleetRow, id, stored.value);
  if (plain == nullptr) return std::nullopt;
  OpenedRow opened;
  opened.mark = sealer_->content_mark(id, plain->bytes());
  if (before != nullptr && mark_of(*before) == opened.mark) {
    opened.row = before;
    return opened;
  }
  std::optional<DecodedRow> decoded = decode_row(id, plain->bytes());
  if (!decoded) return std::nullopt;
  vault::EntryRow &row = decoded->row;
  row.owner = owners_.number_of(decoded->owner);
  if (before != nullptr && same_bytes(*before->secret, *row.secret)) {
    row.secret = before->secret;
    row.generation = before->generation;
  } else {
    row.generation = ++last_generation_;
  }
  opened.row = std::make_shared<const vault::EntryRow>(std::move(row));
  return opened;
}

std::optional<Memory::Step> Memory::next(Revision revision, const std::vector<KeyValue> &puts,
                                         const std::vector<std::string> &deletes) {
  if (!filled_) return std::nullopt;
  const auto header = std::find_if(puts.begin(), puts.end(), [](const KeyValue &put) { return put.key == kHeaderKey; });
  if (header == puts.end()) return std::nullopt;
  Step step;
  if (judge(*header, step.header) != Verdict::kLater) return std::nullopt;
  step.header.revision = revision;
  const FleetHeader &after = step.header.header;
  if (after.version != header_.version + 1 || !made_by_one(header_, after)) return std::nullopt;

  vault::Draft draft(state_.table);
  vault::Header table = header_.table;
  std::unordered_set<uint64_t> seen;
  step.ledger = state_.ledger;
  const auto replace = [&](const vault::RowPtr &was, const vault::RowPtr &is) {
    draft.replace(was, is);
    step.ledger.replace(was.get(), is.get());
    if (was != nullptr) table.take_out(mark_of(*was));
  };
  for (const KeyValue &put : puts) {
    if (!is_own_row(put.key)) continue;
    const std::optional<RowPlace> place = row_place(put.key);
    if (!place || !seen.insert(place->id).second) return std::nullopt;
    const vault::RowPtr was = find(place->id);
    const std::optional<OpenedRow> opened = open_row(put, place->id, was);
    if (!opened || opened->row->version <= header_.table.last_version) return std::nullopt;
    if (opened->row->version > after.table.last_version) return std::nullopt;
    const bool is_new_id = place->id > header_.table.last_id && place->id <= after.table.last_id;
    if (was == nullptr && !is_new_id) return std::nullopt;
    replace(was, opened->row);
    table.add(opened->mark);
  }
  for (const std::string &key : deletes) {
    if (!is_own_row(key)) continue;
    const std::optional<RowPlace> place = row_place(key);
    const vault::RowPtr was = place && seen.insert(place->id).second ? find(place->id) : nullptr;
    if (was == nullptr) return std::nullopt;
    replace(was, nullptr);
  }
  const bool is_its_rows = table.digest == after.table.digest && draft.size() == after.table.entry_count;
  if (!is_its_rows && !is(Mutant::kDigestUnchecked)) return std::nullopt;
  for (const auto &[id, change] : draft.changes()) {
    if (change.after != nullptr && !takes_no_other(*change.after, state_.table, draft)) return std::nullopt;
  }
  step.changes = draft.changes();
  return step;
}

void Memory::take(Step step) {
  state_.table.apply(step.changes, state_.table.prepare(step.changes));  // which makes room where readers look
  state_.ledger = std::move(step.ledger);
  state_.header = step.header.header.table;
  header_ = std::move(step.header.header);
  hash_ = step.header.hash;
  revision_ = step.header.revision;
}

void Memory::Loading::add(std::vector<KeyValue> rows) {
  has_rows_ = has_rows_ || !rows.empty();
  if (!memory_.sealer_) {
    closed_.insert(closed_.end(), std::make_move_iterator(rows.begin()), std::make_move_iterator(rows.end()));
    return;
  }
  for (const KeyValue &row : rows) {
    const std::optional<RowPlace> place = row_place(row.key);
    if (!place || (!folders_.contains(place->folder) && folders_.size() == kMostFolders)) continue;
    Folder &folder = folders_[place->folder];
    folder.all_open = folder.all_open && open(row, place->id, folder);
    if (!folder.all_open) folder.rows.clear();
  }
}

bool Memory::Loading::open(const KeyValue &stored, uint64_t id, Folder &folder) {
  const std::optional<OpenedRow> opened = memory_.open_row(stored, id, memory_.filled_ ? memory_.find(id) : nullptr);
  if (!opened || (keeps_ && !folder.rows.try_emplace(id, vault::RowChange{nullptr, opened->row}).second)) return false;
  ++folder.count;
  sodium_add(folder.digest.data(), opened->mark.data(), folder.digest.size());
  return true;
}

bool Memory::Loading::is_of(const FleetHeader &header) const {
  if (is(Mutant::kMixesFolders)) return true;
  const auto found = folders_.find(header.folder);
  const Folder none{};
  const Folder &folder = found == folders_.end() ? none : found->second;
  const bool is_its_rows = folder.count == header.table.entry_count && folder.digest == header.table.digest;
  return folder.all_open && (is_its_rows || is(Mutant::kDigestUnchecked));
}

std::optional<Memory::Whole> Memory::Loading::finish(const OpenedHeader &header) {
  if (!memory_.sealer_) memory_.belong_to(header.fleet);
  add(std::move(closed_));
  if (!is_of(header.header)) return std::nullopt;
  Folder folder = std::move(folders_[header.header.folder]);
  if (is(Mutant::kMixesFolders)) {
    for (auto &[number, other] : folders_) folder.rows.merge(other.rows);
  }
  const vault::RowChanges &rows = folder.rows;
  const vault::Header &table = header.header.table;
  Whole whole{.state = {}, .header = header, .gone = {}};
  std::unordered_set<EntryName, vault::NameHash> names;
  for (const auto &[id, change] : rows) {
    const vault::EntryRow &row = *change.after;
    if (id > table.last_id || row.version > table.last_version) return std::nullopt;
    if (!names.insert(row.name).second || (row.alias && !names.insert(*row.alias).second)) return std::nullopt;
    whole.state.ledger.replace(nullptr, &row);
  }
  whole.state.header = table;
  whole.state.table.reserve(rows.size());
  whole.state.table.apply(rows, whole.state.table.prepare(rows));

  std::unordered_set<uint64_t> kept;
  for (const auto &[id, change] : rows) kept.insert(change.after->generation);
  for (size_t i = 0; i < memory_.state_.table.size(); ++i) {
    const uint64_t generation = memory_.state_.table.at(i)->generation;
    if (!kept.contains(generation)) whole.gone.push_back(generation);
  }
  return whole;
}

void Memory::take(Whole &whole) noexcept {
  std::swap(state_, whole.state);  // what was there is let go by the caller, when readers no longer wait
  header_ = whole.header.header;
  hash_ = whole.header.hash;
  revision_ = whole.header.revision;
  filled_ = true;
}

KeyValue Memory::header_value(const FleetHeader &header) const {
  return {.key = kHeaderKey, .value = seal_header(header, key_id_, *sealer_), .mod_revision = 0};
}

std::optional<Commit> Memory::commit_of(const vault::Group &group, const WriterMark &writer) const {
  FleetHeader next = header_;
  next.version = header_.version + 1;
  next.before = hash_;
  next.table = group.finished_header([this](const vault::EntryRow &row) { return mark_of(row); });
  auto mine = std::find_if(next.writers.begin(), next.writers.end(),
                           [&](const WriterMark &mark) { return mark.machine >= writer.machine; });
  if (mine == next.writers.end() || mine->machine != writer.machine) {
    if (next.writers.size() == kMostMachines) return std::nullopt;
    mine = next.writers.insert(mine, writer);
  } else {
    *mine = writer;
  }
  next.writer = static_cast<uint8_t>(mine - next.writers.begin());

  Commit commit;
  commit.header_revision = revision_;
  commit.puts.push_back(header_value(next));
  for (const auto &[id, change] : group.changes()) {
    if (change.after) {
      commit.puts.push_back({.key = row_key(id), .value = sealed_row(*change.after), .mod_revision = 0});
    } else {
      commit.deletes.push_back(row_key(id));
    }
  }
  return commit;
}

Commit Memory::first_commit(const FleetId &fleet, const WriterMark &writer) const {
  const vault::Sealer sealer(*master_key_, fleet);
  FleetHeader first;
  first.version = 1;
  first.writers.push_back(writer);
  Commit commit;
  commit.puts.push_back({.key = kHeaderKey, .value = seal_header(first, key_id_, sealer), .mod_revision = 0});
  return commit;
}

}  // namespace ksd::fleet
