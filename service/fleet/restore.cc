// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "fleet/restore.h"

#include <algorithm>

#include "fleet/mutants.h"

namespace ksd::fleet {
namespace {

using vault::RecordKind;

constexpr char kOvertaken[] =
    "another restore has begun since, or somebody changes the store by hand; see to that, and "
    "begin again";

// opened gives a header of the fleet that opens.
std::optional<FleetHeader> opened(const std::optional<KeyValue> &header, const vault::Sealer &sealer) {
  const std::optional<HeaderFront> front = header ? header_front(header->value) : std::nullopt;
  const auto plain = front ? sealer.open(RecordKind::kFleetHeader, 0, front->sealed) : nullptr;
  return plain ? decode_header(plain->bytes()) : std::nullopt;
}

}  // namespace

Restore::Restore(Time now, Wanted wanted, As as, const Memory &memory, Owners &owners,
                 std::function<RequestId(Request)> send)
    : wanted_(std::move(wanted)),
      as_(std::move(as)),
      key_id_(vault::key_id_of(*as_.master_key)),
      memory_(memory),
      owners_(owners),
      send_(std::move(send)),
      sealer_(*as_.master_key, memory.fleet().value_or(wanted_.fleet)),
      now_(now),
      again_at_(now),
      succeeded_at_(now) {
  wanted_.fleet = sealer_.vault_id();
  progress_.folder = wanted_.folder;
  progress_.all = wanted_.rows.size();
  table_.last_id = wanted_.last_id;
  table_.last_version = wanted_.last_version;
  table_.entry_count = wanted_.rows.size();
}

void Restore::tick(Time now) {
  now_ = now;
  if (step_ == Step::kOver) return;
  if (under_way_ != 0 && now_ >= given_up_at()) {
    under_way_ = 0;
    take_failure(Failure::kUnknown);
  }
  if (step_ != Step::kOver && under_way_ == 0 && now_ >= again_at_) go_on();
}

Restore::Time Restore::next_tick() const {
  if (step_ == Step::kOver) return Time::max();
  if (under_way_ == 0) return again_at_;
  return given_up_at();
}

// given_up_at is when what is under way counts as lost.
Restore::Time Restore::given_up_at() const {
  const bool is_look = step_ == Step::kLook || step_ == Step::kLookAgain;
  return sent_at_ + (is_look ? kLookLimit : kChangeLimit) + kGrace;
}

void Restore::give_up() {
  const bool may_be_switched = progress_.state == Progress::State::kSwitched || step_ == Step::kSwitch;
  if (!may_be_switched && step_ != Step::kOver) stop(KS_FAILURE, "it was given up; the fleet is as it was");
}

void Restore::send(Request request) {
  sent_at_ = now_;
  under_way_ = send_(std::move(request));
}

// change is a transaction that counts only while nobody else restores.
Commit Restore::change() const {
  Commit change;
  change.header_revision.reset();
  change.restore_revision = claim_;
  if (is(Mutant::kRestoreUnguarded)) change.restore_revision.reset();
  change.limit = kChangeLimit;
  return change;
}

// The claim says whose it is, for who looks after a store by hand and has the key. What counts is when it was put.
std::vector<uint8_t> Restore::claim() const {
  std::vector<uint8_t> plain(wanted_.fleet.begin(), wanted_.fleet.end());
  plain.insert(plain.end(), as_.writer.machine.begin(), as_.writer.machine.end());
  return sealer_.seal(RecordKind::kFleetRestore, wanted_.folder, plain);
}

// go_on asks for the next step, or once more for the one that came to nothing.
void Restore::go_on() {
  for (;;) {
    switch (step_) {
      case Step::kClaim: {
        Commit claims = change();
        claims.restore_revision.reset();
        claims.puts.push_back({.key = kRestoreKey, .value = claim(), .mod_revision = 0});
        return send(std::move(claims));
      }
      case Step::kLook:
      case Step::kLookAgain:
        strays_.clear();
        return send(Load{});
      case Step::kClear:
      case Step::kTidy: {
        if (strays_.empty()) {
          step_ = step_ == Step::kClear ? Step::kDraft : Step::kRelease;
          continue;
        }
        Commit removes = change();
        const size_t size = std::min(strays_.size(), kMostRowsPerCommit);
        removes.deletes.assign(strays_.end() - static_cast<ptrdiff_t>(size), strays_.end());
        return send(std::move(removes));
      }
      case Step::kDraft: {
        if (rows_.empty()) take_next_rows();
        if (rows_.empty()) {
          step_ = Step::kSwitch;
          continue;
        }
        Commit drafts = change();
        drafts.puts = rows_;
        return send(std::move(drafts));
      }
      case Step::kSwitch: {
        if (header_.empty()) {
          FleetHeader header;
          header.version = version_;
          header.incarnation = progress_.incarnation;
          header.folder = wanted_.folder;
          header.table = table_;
          header.writers = {as_.writer};
          header.departed = departed_;
          header_ = seal_header(header, key_id_, sealer_);
        }
        Commit switches = change();
        switches.header_revision = header_revision_;
        switches.puts.push_back({.key = kHeaderKey, .value = header_, .mod_revision = 0});
        // From here on the rows are the fleet's: no step from before may come late.
        switches.puts.push_back({.key = kRestoreKey, .value = claim(), .mod_revision = 0});
        return send(std::move(switches));
      }
      case Step::kRelease: {
        Commit releases = change();
        releases.deletes.emplace_back(kRestoreKey);
        return send(std::move(releases));
      }
      case Step::kOver:
        return;
    }
  }
}

void Restore::take_next_rows() {
  size_t bytes = 0;
  while (next_row_ < wanted_.rows.size() && rows_.size() < kMostRowsPerCommit) {
    const vault::EntryRow &row = *wanted_.rows[next_row_];
    const std::shared_ptr<const SecretBytes> plain = encode_row(row, owners_.name_of(row.owner));
    KeyValue stored{.key = row_key({.folder = wanted_.folder, .id = row.id}),
                    .value = sealer_.seal(RecordKind::kFleetRow, row.id, plain->bytes()),
                    .mod_revision = 0};
    bytes += stored.key.size() + stored.value.size();
    if (!rows_.empty() && bytes > kMostBytesPerCommit) break;
    const vault::Digest mark = sealer_.content_mark(row.id, plain->bytes());
    rows_.push_back(std::move(stored));
    table_.add(mark);  // behind all that there may be no memory for: what breaks off is done again
    ++next_row_;
  }
}

bool Restore::take(Time now, const Report &report) {
  now_ = now;
  if (step_ == Step::kOver) return false;
  if (std::holds_alternative<EngineGone>(report)) {
    if (std::exchange(under_way_, 0) != 0) take_failure(Failure::kUnknown);
    return false;  // it is for others as well
  }
  const RequestId id = std::visit(
      [](const auto &one) -> RequestId {
        if constexpr (requires { one.id; }) return one.id;
        return 0;
      },
      report);
  if (id == 0 || id != under_way_) return false;
  if (const auto *rows = std::get_if<LoadedRows>(&report)) {
    for (const KeyValue &row : rows->rows) strays_.push_back(row.key);
    return true;
  }
  under_way_ = 0;
  if (const auto *loaded = std::get_if<Loaded>(&report)) {
    look_at(loaded->header);
  } else if (const auto *committed = std::get_if<Committed>(&report)) {
    if (step_ == Step::kClaim || step_ == Step::kSwitch) claim_ = committed->revision;
    take_change(true, std::nullopt);
  } else if (const auto *refused = std::get_if<Refused>(&report)) {
    take_change(false, refused->header);
  } else if (const auto *failed = std::get_if<Failed>(&report)) {
    take_failure(failed->kind);
  }
  if (step_ != Step::kOver && under_way_ == 0 && now_ >= again_at_) go_on();
  return true;
}

void Restore::take_change(bool happened, const std::optional<KeyValue> &header) {
  if (!happened && step_ == Step::kSwitch) {
    const std::optional<FleetHeader> found = opened(header, sealer_);
    if (found && made(*found)) {
      claim_ = header->mod_revision;
      return switched();
    }
    if ((header ? header->mod_revision : 0) == header_revision_) return stop(KS_INVALID_ARGS, kOvertaken);
    header_.clear();
    in_doubt_ = false;       // what was sent before compares with a header that is gone
    return look_at(header);  // somebody has changed something else in between
  }
  if (!happened) {
    // When the fleet is the backup's, who has begun since removes what is left.
    if (progress_.state == Progress::State::kSwitched) {
      progress_.state = Progress::State::kDone;
      step_ = Step::kOver;
      return;
    }
    return stop(KS_INVALID_ARGS, kOvertaken);
  }
  succeeded_at_ = now_;
  switch (step_) {
    case Step::kClaim:
      step_ = Step::kLook;
      break;
    case Step::kClear:
    case Step::kTidy:
      strays_.resize(strays_.size() - std::min(strays_.size(), kMostRowsPerCommit));
      break;
    case Step::kDraft:
      progress_.done = next_row_;
      rows_.clear();
      break;
    case Step::kSwitch:
      switched();
      break;
    case Step::kRelease:
      progress_.state = Progress::State::kDone;
      step_ = Step::kOver;
      break;
    default:
      break;
  }
}

void Restore::switched() {
  succeeded_at_ = now_;
  progress_.state = Progress::State::kSwitched;
  wanted_.rows.clear();
  step_ = Step::kLookAgain;
}

// look_at takes what is in the store: at first to find out what is to be replaced, and at the end what is left of it.
void Restore::look_at(const std::optional<KeyValue> &header) {
  succeeded_at_ = now_;
  const auto keep = [this](std::optional<uint64_t> folder) {
    std::erase_if(strays_, [&](const std::string &key) {
      const std::optional<RowPlace> place = row_place(key);
      return !place || place->folder == wanted_.folder || place->folder == folder;
    });
  };
  if (step_ == Step::kLookAgain) {
    keep(std::nullopt);
    step_ = Step::kTidy;
    return;
  }
  const std::optional<HeaderFront> front = header ? header_front(header->value) : std::nullopt;
  if (front && front->key != key_id_) {
    return stop(KS_INVALID_ARGS,
                "the store holds a fleet of another master key; take its keys below the prefix away, if that is meant");
  }
  if (front && front->fleet != wanted_.fleet) {
    if (memory_.fleet()) {
      return stop(KS_INVALID_ARGS,
                  "the store holds another fleet than this machine belongs to; look after prefix and endpoints");
    }
    // One that somebody made up says nothing.
    const vault::Sealer found(*as_.master_key, front->fleet);
    if (opened(header, found)) {
      wanted_.fleet = front->fleet;
      sealer_ = found;
    }
  }
  const std::optional<FleetHeader> present = opened(header, sealer_);
  header_revision_ = header ? header->mod_revision : 0;
  version_ = progress_.incarnation = 1;
  const auto come_after = [this](const FleetHeader &one) {
    version_ = std::max(version_, one.version + 1);
    progress_.incarnation = std::max(progress_.incarnation, one.incarnation + 1);
  };
  progress_.incarnation = std::max(progress_.incarnation, wanted_.incarnation);
  if (memory_.is_filled()) come_after(memory_.header());
  if (present) come_after(*present);
  // Who has left stays out, whatever is restored.
  departed_ = (present ? *present : memory_.header()).departed;
  const auto mine = std::ranges::find(departed_, as_.writer.machine, &WriterMark::machine);
  if (mine != departed_.end() && mine->public_key == as_.writer.public_key) {
    return stop(KS_INVALID_ARGS, "this machine isn't one of the fleet any more; restore on one that is");
  }
  if (mine != departed_.end()) departed_.erase(mine);
  if (step_ != Step::kLook) return;
  keep(present ? std::optional(present->folder) : std::nullopt);
  if (!present) strays_.clear();  // while it can't be told which rows are the fleet's
  step_ = Step::kClear;
}

void Restore::take_failure(Failure kind) {
  again_at_ = now_ + kPause;
  if (step_ == Step::kSwitch && kind == Failure::kUnknown) in_doubt_ = true;
  const bool has_doubt = step_ == Step::kSwitch && in_doubt_;
  switch (kind) {
    case Failure::kNoSpace:
      if (has_doubt) break;
      return stop(KS_STORE_FULL, "the store's quota is used up; make room in it, and begin again");
    case Failure::kDenied:
      if (has_doubt) break;
      return stop(KS_FW_COMM_ERROR, "the store takes no changes of this machine; look after its rights there");
    case Failure::kTooLarge:
      return stop(KS_STORE_FULL, "an entry is larger than the store takes; raise --max-request-bytes of its members");
    case Failure::kNotSent:
    case Failure::kUnknown:
      break;
  }
  if (now_ - succeeded_at_ < kPatience) return;
  if (has_doubt) {
    return stop(
        KS_TIMEOUT,
        "the store hasn't said in time whether it has taken the last step; look at `ksctl fleet status` when it "
        "answers again, and begin again if the incarnation is still the one of before");
  }
  stop(KS_FW_COMM_ERROR, "the store doesn't answer; look after the network and its members, and begin again");
}

void Restore::stop(KsResult result, std::string why) {
  step_ = Step::kOver;
  under_way_ = 0;
  wanted_.rows.clear();
  if (progress_.state == Progress::State::kSwitched) {
    // What nobody reads any more is removed by the next restore.
    progress_.state = Progress::State::kDone;
    progress_.why = std::move(why);
    return;
  }
  progress_.state = Progress::State::kStopped;
  progress_.result = result;
  progress_.why = std::move(why);
}

}  // namespace ksd::fleet
