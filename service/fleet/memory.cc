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

// made_by_one tells whether `later` has one change more than `earlier`, of its author, who may have taken a machine
// out.
bool made_by_one(const FleetHeader &earlier, const FleetHeader &later) {
  const WriterMark &author = later.author();
  if (const WriterMark *then = earlier.any_mark_of(author.machine); then != nullptr) {
    if (then->sequence >= author.sequence) return false;
  }
  const auto stays = [&](const WriterMark &mark, const WriterMark *then) {
    return &mark == &author || (then != nullptr && *then == mark);
  };
  return later.follows(earlier) &&
         std::ranges::all_of(later.writers,
                             [&](const WriterMark &mark) { return stays(mark, earlier.mark_of(mark.machine)); }) &&
         std::ranges::all_of(later.departed,
                             [&](const WriterMark &mark) { return stays(mark, earlier.any_mark_of(mark.machine)); });
}

// goes_on tells whether a change of the key goes from one header to the next as it has to.
bool goes_on(const OpenedHeader &later, const FleetHeader &earlier, bool is_under_next) {
  const std::optional<FleetKeyChange> &then = earlier.key_change, &now = later.header.key_change;
  if (is_under_next) return then && !now && later.key == then->key_id;
  if (!now) return !then;
  if (!then) return now->moved == 0;
  return now->key_id == then->key_id && now->moved >= then->moved && now->begun_by == then->begun_by;
}

}  // namespace

Memory::Memory(KeyPtr master_key, KeyPtr next_key, std::optional<FleetId> fleet, Owners &owners)
    : master_key_(std::move(master_key)), key_id_(vault::key_id_of(*master_key_)), owners_(owners) {
  if (next_key != nullptr) hold(std::move(next_key));
  if (fleet) belong_to(*fleet);
}

void Memory::belong_to(const FleetId &fleet) {
  fleet_ = fleet;
  make_keys();
}

void Memory::hold(KeyPtr next_key) {
  next_id_ = vault::key_id_of(*next_key);
  next_key_ = std::move(next_key);
  if (fleet_) make_keys();
}

void Memory::make_keys() {
  const vault::Sealer present(*master_key_, *fleet_);
  keys_ = next_key_ == nullptr ? vault::Keys(present) : vault::Keys(present, next_key_, moved_in(header_));
}

// moved_in gives up to which row all are sealed under the next key that this machine holds.
uint64_t Memory::moved_in(const FleetHeader &header) const {
  return header.key_change && header.key_change->key_id == next_id_ ? header.key_change->moved : 0;
}

// use_keys_of follows a change of the master key to where the header is.
void Memory::use_keys_of(const OpenedHeader &header) noexcept {
  if (!is_under_next(header)) {
    if (keys_->changing()) keys_->move_to(moved_in(header.header));
    return;
  }
  std::move_backward(formers_.begin(), formers_.end() - 1, formers_.end());
  formers_.front() = Former{key_id_, keys_->present()};
  keys_ = vault::Keys(vault::Sealer(keys_->next()));
  master_key_ = std::exchange(next_key_, nullptr);
  key_id_ = next_id_;
}

const vault::Sealer *Memory::former(const vault::KeyId &key) const {
  const auto found =
      std::ranges::find_if(formers_, [&](const std::optional<Former> &one) { return one && one->id == key; });
  return found == formers_.end() ? nullptr : &(*found)->sealer;
}

std::shared_ptr<const SecretBytes> Memory::open_header(const HeaderFront &front) const {
  const auto open = [&](const vault::Sealer &sealer) { return sealer.open(RecordKind::kFleetHeader, 0, front.sealed); };
  if (const vault::Sealer *sealer = former(front.key)) return open(*sealer);
  if (keys_) return open(front.key == key_id_ ? keys_->present() : keys_->next());
  return open(vault::Sealer(front.key == key_id_ ? *master_key_ : *next_key_, front.fleet));
}

Verdict Memory::judge(const std::optional<KeyValue> &header, OpenedHeader &out) const {
  if (!header) return Verdict::kMissing;
  const HeaderHash hash = hash_of(header->value);
  if (filled_ && hash == hash_) {  // which saves opening what was opened before
    out = {.header = header_, .hash = hash, .fleet = *fleet_, .revision = header->mod_revision, .key = key_id_};
    return Verdict::kSame;
  }
  const std::optional<HeaderFront> front = header_front(header->value);
  if (!front) return Verdict::kUnreadable;
  const bool is_former = former(front->key) != nullptr;
  if (!holds(front->key) && !is_former) return Verdict::kOtherKey;
  if (fleet_ && front->fleet != *fleet_) return Verdict::kOtherFleet;
  const std::shared_ptr<const SecretBytes> plain = open_header(*front);
  std::optional<FleetHeader> opened = plain ? decode_header(plain->bytes()) : std::nullopt;
  if (!opened) return Verdict::kUnreadable;
  out = {.header = std::move(*opened),
         .hash = hash,
         .fleet = front->fleet,
         .revision = header->mod_revision,
         .key = front->key};
  if (!filled_) return Verdict::kLater;

  const FleetHeader &found = out.header;
  if (found.incarnation > header_.incarnation && !is_former) return Verdict::kRestored;
  if (found.incarnation < header_.incarnation || found.version < header_.version) return Verdict::kRolledBack;
  if (found.version == header_.version || is_former) return Verdict::kForked;
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

vault::Digest Memory::mark_of(const vault::EntryRow &row, const vault::Sealer &sealer) const {
  return sealer.content_mark(row.id, plain_of(row)->bytes());
}

KeyValue Memory::stored_row(const vault::EntryRow &row, const vault::Sealer &sealer) const {
  return {.key = row_key(row.id),
          .value = sealer.seal(RecordKind::kFleetRow, row.id, plain_of(row)->bytes()),
          .mod_revision = 0};
}

// open_row gives what the engine has, or `before` where that is the same. A secret that is as it was stays the same
// content, so that what was prepared from it still counts.
std::optional<Memory::OpenedRow> Memory::open_row(const KeyValue &stored, uint64_t id, const vault::RowPtr &before,
                                                  const vault::Sealer &sealer) {
  const std::shared_ptr<const SecretBytes> plain = sealer.open(RecordKind::kFleetRow, id, stored.value);
  if (plain == nullptr) return std::nullopt;
  OpenedRow opened;
  opened.mark = keys_->present().content_mark(id, plain->bytes());
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
  const bool key_changes = is_under_next(step.header);
  if (!goes_on(step.header, header_, key_changes)) return std::nullopt;
  // Rows that are sealed under the next key from now on: behind the first, up to the second.
  const uint64_t moved = header_.key_change ? header_.key_change->moved : 0;
  const uint64_t moves_to = key_changes ? UINT64_MAX : after.key_change ? after.key_change->moved : 0;
  if (moves_to != 0 && !key_changes && !holds(after.key_change->key_id)) return std::nullopt;

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
    const std::optional<OpenedRow> opened =
        open_row(put, place->id, was, place->id <= moves_to ? keys_->next() : keys_->present());
    if (!opened) return std::nullopt;
    if (opened->row == was && place->id > moved && place->id <= moves_to) continue;  // sealed anew, and as it was
    if (opened->row->version <= header_.table.last_version) return std::nullopt;
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
  if (!has_all_rows_between(moved, moves_to, seen)) return std::nullopt;
  if (key_changes) table.digest = digest_under_next();
  const bool is_its_rows = table.digest == after.table.digest && draft.size() == after.table.entry_count;
  if (!is_its_rows && !is(Mutant::kDigestUnchecked)) return std::nullopt;
  for (const auto &[id, change] : draft.changes()) {
    if (change.after != nullptr && !takes_no_other(*change.after, state_.table, draft)) return std::nullopt;
  }
  // The key is changed by itself: a step that does so has no other changes, whose marks would be of the key before.
  if (key_changes && !draft.changes().empty()) return std::nullopt;
  step.changes = draft.changes();
  return step;
}

// has_all_rows_between tells whether `ids` has all rows of the table that stand behind one id and up to another.
bool Memory::has_all_rows_between(uint64_t from, uint64_t to, const std::unordered_set<uint64_t> &ids) const {
  for (size_t i = state_.table.behind(from); i < state_.table.size() && state_.table.at(i)->id <= to; ++i) {
    if (!ids.contains(state_.table.at(i)->id)) return false;
  }
  return true;
}

vault::Digest Memory::digest_under_next() const {
  vault::Header sum;
  for (size_t i = 0; i < state_.table.size(); ++i) sum.add(mark_of(*state_.table.at(i), keys_->next()));
  return sum.digest;
}

void Memory::take(Step step) {
  state_.table.apply(step.changes, state_.table.prepare(step.changes));  // which makes room where readers look
  state_.ledger = std::move(step.ledger);
  state_.header = step.header.header.table;
  use_keys_of(step.header);
  header_ = std::move(step.header.header);
  hash_ = step.header.hash;
  revision_ = step.header.revision;
}

void Memory::Loading::add(std::vector<KeyValue> rows) {
  has_rows_ = has_rows_ || !rows.empty();
  if (!memory_.keys_) {
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
  const vault::RowPtr before = memory_.filled_ ? memory_.find(id) : nullptr;
  const vault::Keys &keys = *memory_.keys_;
  std::optional<OpenedRow> opened = memory_.open_row(stored, id, before, keys.present());
  if (opened) folder.first_to_move = std::min(folder.first_to_move, id);
  if (!opened && keys.changing()) {
    opened = memory_.open_row(stored, id, before, keys.next());
    folder.last_moved = std::max(folder.last_moved, id);
  }
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

bool Memory::Loading::is_sealed_as(const OpenedHeader &header) const {
  const auto found = folders_.find(header.header.folder);
  if (found == folders_.end()) return true;
  const Folder &folder = found->second;
  if (memory_.is_under_next(header)) return folder.first_to_move == UINT64_MAX;
  const uint64_t moved = header.header.key_change ? header.header.key_change->moved : 0;
  return folder.last_moved <= moved && folder.first_to_move > moved;
}

std::optional<Memory::Whole> Memory::Loading::finish(const OpenedHeader &header) {
  if (!memory_.keys_) memory_.belong_to(header.fleet);
  add(std::move(closed_));
  if (memory_.is_under_next(header)) {
    vault::Header sum;
    for (const auto &[id, change] : folders_[header.header.folder].rows) {
      sum.add(memory_.mark_of(*change.after, memory_.keys_->next()));
    }
    folders_[header.header.folder].digest = sum.digest;
  }
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
  use_keys_of(whole.header);
  header_ = std::move(whole.header.header);
  hash_ = whole.header.hash;
  revision_ = whole.header.revision;
  filled_ = true;
}

std::optional<FleetHeader> Memory::successor(const WriterMark &writer) const {
  FleetHeader next = header_;
  next.version = header_.version + 1;
  next.before = hash_;
  auto mine = std::ranges::lower_bound(next.writers, writer.machine, {}, &WriterMark::machine);
  if (mine == next.writers.end() || mine->machine != writer.machine) {
    if (next.writers.size() == kMostMachines) return std::nullopt;
    mine = next.writers.insert(mine, writer);
    std::erase_if(next.departed, [&](const WriterMark &mark) { return mark.machine == writer.machine; });
  } else {
    mine->session = writer.session;
    mine->sequence = writer.sequence;
  }
  next.writer = static_cast<uint8_t>(mine - next.writers.begin());
  return next;
}

Commit Memory::commit_of(const FleetHeader &next) const {
  const bool key_changes = header_.key_change && !next.key_change;
  Commit commit;
  commit.header_revision = revision_;
  commit.puts.push_back(
      {.key = kHeaderKey,
       .value = key_changes ? seal_header(next, next_id_, keys_->next()) : seal_header(next, key_id_, keys_->present()),
       .mod_revision = 0});
  return commit;
}

Commit Memory::commit_of_group(FleetHeader next, const vault::Group &group) const {
  next.table = group.finished_header([this](const vault::EntryRow &row) { return mark_of(row); });
  Commit commit = commit_of(next);
  for (const auto &[id, change] : group.changes()) {
    if (change.after) {
      commit.puts.push_back(stored_row(*change.after, keys_->of_row(id)));
    } else {
      commit.deletes.push_back(row_key(id));
    }
  }
  return commit;
}

Commit Memory::commit_of_move(FleetHeader next, size_t most) const {
  std::vector<KeyValue> rows;
  size_t bytes = 0;
  size_t at = state_.table.behind(next.key_change->moved);
  for (; at < state_.table.size() && rows.size() < most && bytes < kMostBytesPerCommit / 2; ++at) {
    const vault::EntryRow &row = *state_.table.at(at);
    rows.push_back(stored_row(row, keys_->next()));
    next.key_change->moved = row.id;
    bytes += row.bytes();
  }
  const bool is_last = at == state_.table.size();
  if (is_last) {
    next.key_change.reset();
    next.table.digest = digest_under_next();
  }
  Commit commit = commit_of(next);
  commit.puts.insert(commit.puts.end(), std::make_move_iterator(rows.begin()), std::make_move_iterator(rows.end()));
  if (!is_last) return commit;
  for (const WriterMark &mark : next.writers) commit.deletes.push_back(kBoxFolder + mark.machine);
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
