// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "fleet/core.h"

#include <algorithm>
#include <mutex>
#include <new>
#include <utility>

#include "fleet/mutants.h"

namespace ksd::fleet {
namespace {

constexpr size_t kLargestGroup = 256;  // changes, of which some may write nothing

// The largest row: secret and metadata of 16-bit lengths, names, and what seals them.
constexpr size_t kLargestRow = 2 * size_t{UINT16_MAX} + 1024;

const char *what_is_wrong(Verdict verdict) {
  switch (verdict) {
    case Verdict::kMissing:
      return "the header is gone";
    case Verdict::kUnreadable:
      return "the header isn't sealed with the fleet's key";
    case Verdict::kRolledBack:
      return "the header is an earlier one";
    case Verdict::kForked:
      return "the header isn't a successor of the one that was there";
    default:
      return "";
  }
}

Standing standing_of(Verdict verdict) {
  switch (verdict) {
    case Verdict::kOtherKey:
      return Standing::kOtherKey;
    case Verdict::kOtherFleet:
      return Standing::kOtherFleet;
    case Verdict::kRestored:
      return Standing::kRestored;
    default:
      return Standing::kTampered;
  }
}

size_t size_of(const vault::Group &group) {
  size_t size = 0;
  for (const auto &[id, change] : group.changes()) size += change.after ? change.after->bytes() + 512 : 64;
  return size;
}

}  // namespace

Core::Core(CoreOptions options, Owners &owners, Readers &readers)
    : options_(std::move(options)),
      owners_(owners),
      readers_(readers),
      public_key_(public_key_of(options_.machine_key.get())),
      memory_(options_.master_key, options_.next_key, options_.fleet, owners) {}

void Core::begin(Time now, std::optional<Kept> kept) {
  now_ = contact_ = next_read_at_ = next_beat_at_ = now;
  marked_at_ = now - kWaitMarkInterval;
  listening_since_ = key_goes_on_since_ = now;
  if (kept) {
    kept->whole.header.revision = 0;  // what the store counts now, only a load can tell
    show(std::move(kept->whole));
    young_as_of_ = now - kept->age;
  }
  if (!lasts(lasting_)) load();
  go_on();
}

void Core::change(Time now, Ticket ticket, vault::Decide decide) {
  now_ = now;
  take_up({.ticket = ticket, .decide = std::move(decide), .deadline = now + options_.write_wait});
}

void Core::take_up(Change change) {
  if (lasts(lasting_)) return answer(change, KS_FW_BAD_CELL);
  queue_.push_back(std::move(change));
  go_on();
}

void Core::take(Time now, Report report) {
  now_ = now;
  const bool is_of_restore = restore_ && restore_->take(now, report);
  if (!lasts(lasting_) && !is_of_restore) std::visit([this](auto &one) { take_report(one); }, report);
  go_on();
}

void Core::tick(Time now) {
  now_ = now;
  if (restore_) restore_->tick(now);
  go_on();
}

void Core::accept(Time now, uint64_t incarnation) {
  now_ = now;
  if (lasting_ == Standing::kRestored && restored_to_ != incarnation) return;
  accepted_once_ = incarnation;
  if (lasting_ != Standing::kRestored && lasting_ != Standing::kTampered) return;
  lasting_ = Standing::kGood;
  why_.clear();
  contact_ = next_read_at_ = now;
  load();
  go_on();
}

bool Core::accepts(const FleetHeader &restored) const {
  if (restore_ && restore_->made(restored)) return true;
  return restored.incarnation <= options_.accepted_incarnation || restored.incarnation == accepted_once_ ||
         is(Mutant::kRestoreUnasked);
}

void Core::restore(Time now, Restore::Wanted wanted) {
  now_ = now;
  restore_.emplace(now, std::move(wanted), Restore::As{.writer = next_mark(), .master_key = memory_.master_key()},
                   memory_, owners_, [this](Request request) { return send(std::move(request)); });
  follows_restore_ = false;
  try {
    restore_->tick(now);
  } catch (const std::bad_alloc &) {
    restore_.reset();
    throw;
  }
}

void Core::give_up_restore() {
  if (restore_) restore_->give_up();
}

// follow_restore takes up what this machine has restored itself.
void Core::follow_restore() {
  if (follows_restore_ || !restore_ || restore_->progress().incarnation == 0) return;
  const Restore::Progress::State state = restore_->progress().state;
  if (state != Restore::Progress::State::kSwitched && state != Restore::Progress::State::kDone) return;
  follows_restore_ = true;
  accepted_once_ = restore_->progress().incarnation;
  lasting_ = Standing::kGood;
  why_.clear();
  contact_ = next_read_at_ = now_;
  load();
}

std::optional<Time> Core::readable_until() const {
  if (!memory_.is_filled() || !young_as_of_ || lasting_ == Standing::kOut) return std::nullopt;
  return *young_as_of_ + options_.max_age;
}

Standing Core::standing(Time now) const {
  if (lasts(lasting_)) return lasting_;
  if (now - contact_ >= kContactLost) return Standing::kNoContact;
  if (no_fleet_) return Standing::kNoFleet;
  if (!memory_.is_filled()) return Standing::kLoading;
  if (passing_ == Standing::kGood && !key_trouble_.empty()) return Standing::kKeyNotKept;
  return passing_;
}

Time Core::next_tick() const {
  // Reads that become too old are the caller's to notice.
  const Time of_restore = restore_ ? restore_->next_tick() : Time::max();
  if (lasts(lasting_)) return of_restore;
  Time next = std::min({next_read_at_, next_beat_at_, of_restore});
  const auto sooner = [&](Time when) { next = std::min(next, when); };
  for (const auto &[id, read] : reads_) sooner(read.sent + kReadLimit + kReportGrace);
  if (phase_ == Phase::kLoading) sooner(load_id_ != 0 ? load_sent_ + kLoadLimit : load_at_);
  if (phase_ == Phase::kFollowing && watch_id_ == 0) sooner(watch_at_);
  if (phase_ == Phase::kFollowing) sooner(count_at_);
  if (phase_ == Phase::kFollowing && known_version_ > memory_.header().version) sooner(behind_since_ + kBehindLimit);
  const bool has_changes = !queue_.empty() || attempt_;
  if (has_changes && in_contact()) sooner(contact_ + kContactLost);
  if (!queue_.empty()) sooner(queue_.front().deadline);
  if (attempt_) {
    for (const Decided &one : attempt_->changes) {
      if (!one.answered) sooner(one.change.deadline);
    }
    if (attempt_->under_way) sooner(attempt_->sent_last + kCommitLimit + kReportGrace);
    if (!attempt_->under_way && !attempt_->refused && attempt_->again_at > now_) sooner(attempt_->again_at);
  }
  if (!queue_.empty() && !attempt_) {
    for (const auto &[machine, heard] : heard_) {
      if (heard.pause_until > now_) sooner(heard.pause_until);
    }
  }
  if (beats_id_ != 0) sooner(beats_sent_ + kReadLimit + kReportGrace);
  if (const std::optional<Time> errand = next_own_errand(); errand && phase_ == Phase::kFollowing) sooner(*errand);
  return next;
}

// ---- Requests ----

RequestId Core::send(Request request) {
  const RequestId id = ++last_id_;
  std::visit([id](auto &one) { one.id = id; }, request);
  requests_.push_back(std::move(request));
  return id;
}

void Core::send_header_read() {
  const RequestId id = send(ReadHeader{.id = 0, .limit = kReadLimit});
  reads_[id] = {.sent = now_, .incarnation = memory_.header().incarnation, .version = memory_.header().version};
}

// load begins anew with what is in the store at one revision.
void Core::load() {
  phase_ = Phase::kLoading;
  watch_id_ = 0;
  loading_.emplace(memory_);
  load_sent_ = now_;
  load_id_ = send(Load{});
  ++counts_.loads;
}

void Core::load_again_at(Time when) {
  phase_ = Phase::kLoading;
  watch_id_ = 0;
  load_id_ = 0;
  loading_.reset();
  load_at_ = when;
}

// count asks for all rows once more, to hold them to the header that is there with them. Memory goes on meanwhile.
void Core::count() {
  count_at_ = now_ + options_.count_interval;
  counting_.emplace(memory_, Memory::Rows::kCounted);
  count_read_ = {.sent = now_, .incarnation = memory_.header().incarnation, .version = memory_.header().version};
  count_id_ = send(Load{});
}

void Core::count_again_soon() {
  counting_.reset();
  count_id_ = 0;
  count_at_ = now_ + std::min(options_.count_interval, kCountPause);
}

void Core::finish_count(const Loaded &report) {
  const Memory::Loading counted = std::move(*std::exchange(counting_, std::nullopt));
  count_id_ = 0;
  note_header(count_read_, report.header);
  OpenedHeader opened;
  const Verdict verdict = memory_.judge(report.header, opened);
  const bool is_known = verdict == Verdict::kSame || verdict == Verdict::kLater || verdict == Verdict::kRolledBack;
  // What is wrong with it, a load finds out for good.
  if (!lasts(lasting_) && phase_ == Phase::kFollowing && is_known && !counted.is_of(opened.header)) load();
}

void Core::watch() {
  watch_id_ = send(Watch{.id = 0, .from = seen_ + 1});
}

void Core::make_fleet() {
  Commit commit = memory_.first_commit(*options_.make, next_mark());
  commit.limit = kCommitLimit;
  make_id_ = send(std::move(commit));
}

// ---- Reports ----

void Core::take_report(const Committed &report) {
  if (report.id == make_id_ && make_id_ != 0) return load_again_at(now_);
  if (!attempt_ || !attempt_->writes) return;
  const auto sent = attempt_->sent.find(report.id);
  if (sent == attempt_->sent.end()) return;
  be_in_contact(sent->second);
  passing_ = Standing::kGood;
  attempt_->under_way = false;
  attempt_->in_doubt = true;  // until memory shows it
  if (is(Mutant::kAnswerBeforeApplying)) {
    for (Decided &one : attempt_->changes) {
      if (!std::exchange(one.answered, true)) answer(one.change, one.result);
    }
    return;
  }
  // Memory was the latest until then, so this is the next step, and the watch needn't be waited for. It brings the same
  // later on, which is compared.
  const bool is_next = phase_ == Phase::kFollowing && memory_.revision() == attempt_->commit.header_revision &&
                       report.revision > memory_.revision();
  if (!is_next) return be_behind(attempt_->version + 1, sent->second);
  const Time as_of = sent->second;
  std::optional<Memory::Step> step = memory_.next(report.revision, attempt_->commit.puts, attempt_->commit.deletes);
  if (!step) return load();
  show(std::move(*step));
  young_as_of(as_of);
}

void Core::take_report(const Refused &report) {
  if (report.id == make_id_ && make_id_ != 0) return load_again_at(now_);
  if (!attempt_) return;
  const auto sent = attempt_->sent.find(report.id);
  if (sent == attempt_->sent.end()) return;
  attempt_->under_way = false;
  const uint64_t version = attempt_->version;
  note_header({.sent = sent->second, .incarnation = attempt_->incarnation, .version = version}, report.header);
  if (lasts(lasting_) || !attempt_) return;
  attempt_->refused = memory_.header().version == version && known_version_ > version;
  attempt_->again_at = now_ + kRetryPause;  // where it was refused for no reason that shows
}

void Core::take_report(const Failed &report) {
  if (report.id == load_id_ && load_id_ != 0) return load_again_at(now_ + kReadInterval);
  if (report.id == make_id_ && make_id_ != 0) return load_again_at(now_ + kReadInterval);
  if (report.id == count_id_ && count_id_ != 0) return count_again_soon();
  if (report.id == beats_id_) return;  // asked again when its time is over
  if (report.id == beat_id_) next_beat_at_ = std::min(next_beat_at_, now_ + kErrandPause);
  const bool was_read = reads_.erase(report.id) != 0;
  if (!attempt_ || !attempt_->sent.contains(report.id)) return;
  attempt_->under_way = false;
  fail_attempt(was_read ? Failure::kNotSent : report.kind);
}

void Core::take_report(const HeaderIs &report) {
  const auto found = reads_.find(report.id);
  if (found == reads_.end()) return;
  const HeaderRead read = found->second;
  reads_.erase(found);
  note_header(read, report.header);
  if (!attempt_) return;
  if (attempt_->writes) return doubt_attempt(read, report);
  if (!attempt_->sent.contains(report.id)) return;
  attempt_->under_way = false;
  OpenedHeader opened;
  if (memory_.judge(report.header, opened) == Verdict::kSame) {
    for (const Decided &one : attempt_->changes) {
      if (!one.answered) answer(one.change, one.result, one.words);
    }
    attempt_.reset();
  } else {
    decide_again();
  }
}

void Core::take_report(LoadedRows &report) {
  if (report.id == count_id_ && count_id_ != 0) return counting_->add(std::move(report.rows));
  if (report.id != load_id_ || load_id_ == 0) return;
  loading_->add(std::move(report.rows));
}

void Core::take_report(const Loaded &report) {
  if (report.id == count_id_ && count_id_ != 0) return finish_count(report);
  if (report.id != load_id_ || load_id_ == 0) return;
  be_in_contact(load_sent_);
  finish_load(report);
}

void Core::finish_load(const Loaded &report) {
  OpenedHeader opened;
  const Verdict verdict = memory_.judge(report.header, opened);
  const bool is_empty = verdict == Verdict::kMissing && !memory_.is_filled() && !loading_->has_rows();
  no_fleet_ = is_empty && !options_.make;
  if (is_empty) {
    if (options_.make) make_fleet();
    return load_again_at(now_ + kNoFleetPause);
  }
  const bool is_accepted =
      verdict == Verdict::kSame || verdict == Verdict::kLater ||
      (verdict == Verdict::kRestored && accepts(opened.header)) ||
      (verdict == Verdict::kRolledBack && opened.key == memory_.key_id() && is(Mutant::kRollBackAccepted));
  if (verdict == Verdict::kRestored) restored_to_ = opened.header.incarnation;
  if (!is_accepted) {
    return stop(standing_of(verdict),
                verdict == Verdict::kRestored ? std::to_string(restored_to_) : what_is_wrong(verdict));
  }
  if (is_out(opened.header)) return stop_as_out(opened.header);
  std::optional<Memory::Whole> whole = loading_->finish(opened);
  ask_for_beats();
  const std::optional<FleetKeyChange> &change = opened.header.key_change;
  if (!whole && change && change->moved != 0 && !memory_.holds(change->key_id)) {
    look_for_key(opened.header);
    return load_again_at(now_ + kReadInterval);
  }
  if (!whole || !loading_->is_sealed_as(opened)) {
    return stop(Standing::kTampered, "the rows aren't those of the header");
  }
  const Time as_of = load_sent_;
  phase_ = Phase::kFollowing;
  loading_.reset();
  load_id_ = 0;
  seen_ = report.revision;
  if (verdict == Verdict::kRestored) {
    accepted_once_ = 0;
    has_committed_ = is_registered_ = false;
    known_version_ = 0;
    ages_.clear();
    // What became of it in the life before, nobody can tell any more.
    if (attempt_ && attempt_->writes) refuse_attempt(KS_TIMEOUT);
  }
  show(std::move(*whole));
  if (lasts(lasting_)) return;
  young_as_of(as_of);
  count_at_ = now_ + options_.count_interval;
  watch();
}

void Core::take_report(const Changed &report) {
  if (report.id != watch_id_ || watch_id_ == 0 || report.revision <= seen_) return;
  seen_ = report.revision;
  const KeyValue *header = nullptr;
  bool has_rows = false;
  for (const KeyValue &put : report.puts) {
    if (put.key == kHeaderKey) header = &put;
    has_rows = has_rows || memory_.is_own_row(put.key);
    heed_machine(put, report.revision, true);
    if (lasts(lasting_)) return;
  }
  for (const std::string &key : report.deletes) {
    forget_machine(key, report.revision);
    has_rows = has_rows || key == kHeaderKey || memory_.is_own_row(key);
  }
  if (header == nullptr && !has_rows) return;
  // What memory has from its own commit already.
  if (header != nullptr && report.revision == memory_.revision() && hash_of(header->value) == memory_.hash()) return;
  std::optional<Memory::Step> step =
      report.revision > memory_.revision() ? memory_.next(report.revision, report.puts, report.deletes) : std::nullopt;
  // Something is missing, or was never made by a machine. What there is at one revision tells.
  if (!step) return load();
  show(std::move(*step));
}

void Core::take_report(const WatchBroken &report) {
  if (report.id != watch_id_ || watch_id_ == 0) return;
  watch_id_ = 0;
  watch_at_ = now_ + kRetryPause;
  if (report.compacted != 0) load();
}

void Core::take_report(const EngineGone &) {
  forget_requests();
  if (!attempt_ || !attempt_->under_way) return;
  attempt_->under_way = false;
  fail_attempt(attempt_->writes ? Failure::kUnknown : Failure::kNotSent);
}

// forget_requests takes no report on what was asked for so far, but on changes.
void Core::forget_requests() noexcept {
  reads_.clear();
  if (load_id_ != 0) load_again_at(now_ + kRetryPause);
  if (count_id_ != 0) count_again_soon();
  if (make_id_ != 0) make_id_ = 0;
  watch_id_ = 0;
  watch_at_ = now_ + kRetryPause;
}

// note_header takes a header that was there at an instant after `read.sent`.
void Core::note_header(const HeaderRead &read, const std::optional<KeyValue> &header) {
  be_in_contact(is(Mutant::kDishonestAge) ? now_ : read.sent);
  if (!memory_.is_filled()) return;
  OpenedHeader opened;
  const Verdict verdict = memory_.judge(header, opened);
  switch (verdict) {
    case Verdict::kSame:
      return young_as_of(is(Mutant::kDishonestAge) ? now_ : read.sent);
    case Verdict::kLater:
      if (is(Mutant::kAgeOfUnreached)) young_as_of(read.sent);
      return be_behind(opened.header.version, read.sent);
    case Verdict::kRestored:
      if (phase_ == Phase::kFollowing) load();
      return;
    case Verdict::kRolledBack: {
      // An answer may come late: what counts is what was known when it was asked for.
      const FleetHeader &found = opened.header;
      const bool was_there = found.incarnation > read.incarnation ||
                             (found.incarnation == read.incarnation && found.version >= read.version);
      if (was_there) {
        if (read.incarnation == memory_.header().incarnation) young_as_of(read.sent);
        return;
      }
      if (is(Mutant::kRollBackAccepted)) return;
      break;
    }
    case Verdict::kMissing:
      if (read.version == 0) return;  // asked for before this machine knew of any
      break;
    default:
      break;
  }
  stop(standing_of(verdict), what_is_wrong(verdict));
}

// be_behind knows of a header that memory has yet to reach.
void Core::be_behind(uint64_t version, Time as_of) {
  if (version <= memory_.header().version) return;
  if (known_version_ <= memory_.header().version) behind_since_ = now_;
  known_version_ = std::max(known_version_, version);
  ages_.push_back({version, as_of});
}

// be_in_contact knows that the store answered what was sent then. Who wasn't heard while it didn't may be alive.
void Core::be_in_contact(Time sent) {
  if (!in_contact()) listening_since_ = now_;
  contact_ = std::max(contact_, sent);
}

void Core::answer(const Change &change, KsResult result, std::string words) {
  if (change.ticket != kNobody) answers_.push_back({change.ticket, result, std::move(words)});
}

void Core::young_as_of(Time when) {
  young_as_of_ = std::max(young_as_of_.value_or(when), when);
}

// ---- Memory goes on ----

void Core::show(Memory::Step step) {
  std::vector<uint64_t> gone;
  for (const auto &[id, change] : step.changes) {
    if (!change.before) continue;
    if (!change.after || change.after->generation != change.before->generation) {
      gone.push_back(change.before->generation);
    }
  }
  const vault::RowChanges changes = step.changes;
  note_news(step.header);
  {
    const std::lock_guard lock(readers_);
    memory_.take(std::move(step));
  }
  readers_.shown(gone, &changes);
  reach_header();
}

void Core::show(Memory::Whole whole) {
  note_news(whole.header);
  {
    const std::lock_guard lock(readers_);
    memory_.take(whole);
  }
  readers_.shown(whole.gone, nullptr);
  reach_header();
}

void Core::reach_header() {
  const FleetHeader &header = memory_.header();
  behind_since_ = now_;  // it gets on
  for (const Reached &reached : ages_) {
    if (reached.version <= header.version) young_as_of(reached.as_of);
  }
  std::erase_if(ages_, [&](const Reached &reached) { return reached.version <= header.version; });
  if (const auto heard = heard_.find(header.author().machine); heard != heard_.end()) {
    heard->second.pause_until = Time{};
  }
  look_for_namesake();
  if (!lasts(lasting_)) settle();
  if (!lasts(lasting_) && !is(Mutant::kOutIgnored)) look_whether_out();
}

// look_for_namesake finds another machine that calls itself like this one. What an earlier life of this one still had
// under way may come in until the first change of the present.
void Core::look_for_namesake() {
  const WriterMark *mine = memory_.header().mark_of(options_.machine);
  if (mine == nullptr) return;
  const bool is_ours = mine->session == options_.session;
  if (is_ours && mine->sequence <= last_sequence_) {
    has_committed_ = true;
  } else if (is_ours || has_committed_) {
    stop_for_namesake();
  }
}

// settle finds out what became of an attempt, once memory has another header than the one that it was decided at. Only
// one transaction can have been the next there.
void Core::settle() {
  if (!attempt_) return;
  const FleetHeader &header = memory_.header();
  if (header.incarnation == attempt_->incarnation && header.version == attempt_->version) return;
  errand_at_ = now_;  // whose turn it was next
  const WriterMark *mine = header.any_mark_of(options_.machine);
  const bool happened = attempt_->writes && mine != nullptr && mine->session == options_.session &&
                        mine->sequence == attempt_->sequence && !is(Mutant::kRetryAfterUnknown);
  if (!happened) {
    if (attempt_->writes) lose();
    return decide_again();
  }
  ++counts_.commits;
  lost_in_a_row_ = 0;
  for (const Decided &one : attempt_->changes) {
    if (!one.answered) answer(one.change, one.result, one.words);
  }
  attempt_.reset();
}

// lose counts that another machine came before, and asks the others to pause when that happens again and again.
void Core::lose() {
  ++counts_.lost;
  if (++lost_in_a_row_ < kLostBeforeMark || now_ - marked_at_ < kWaitMarkInterval) return;
  marked_at_ = now_;
  send_beat(true);
}

// ---- Changes ----

void Core::go_on() {
  follow_restore();
  if (lasts(lasting_)) return;
  if (now_ >= next_read_at_) {
    next_read_at_ = now_ + kReadInterval;
    send_header_read();
  }
  std::erase_if(reads_, [this](const auto &one) { return now_ - one.second.sent >= kReadLimit + kReportGrace; });
  if (now_ >= next_beat_at_) send_beat(false);
  if (beats_id_ != 0 && now_ - beats_sent_ >= kReadLimit + kReportGrace) ask_for_beats();
  if (phase_ == Phase::kLoading) {
    if (load_id_ == 0 ? now_ >= load_at_ : now_ - load_sent_ >= kLoadLimit) load();
  } else if (known_version_ > memory_.header().version && now_ - behind_since_ >= kBehindLimit) {
    behind_since_ = now_;
    load();
  } else if (watch_id_ == 0 && now_ >= watch_at_) {
    watch();
  }
  if (phase_ == Phase::kFollowing) look_for_key(memory_.header());
  if (phase_ == Phase::kFollowing && now_ >= count_at_ && !is(Mutant::kNeverCounts)) count();
  give_up_late_ones();
  attempt_more();
}

void Core::give_up_late_ones() {
  if (is(Mutant::kLateAnswer)) return;
  const bool in_contact_now = in_contact();
  const auto is_over = [&](const Change &change) { return !in_contact_now || now_ >= change.deadline; };
  for (const Change &change : queue_) {
    if (is_over(change)) answer(change, KS_FW_COMM_ERROR);  // nothing of it was sent, or it came to nothing
  }
  if (!is(Mutant::kRefusedWritten)) std::erase_if(queue_, is_over);
  if (!attempt_) return;
  if (attempt_->under_way && now_ - attempt_->sent_last >= kCommitLimit + kReportGrace) {
    attempt_->under_way = false;
    fail_attempt(Failure::kUnknown);
    if (!attempt_) return;
  }
  const bool may_have_happened = attempt_->writes && (attempt_->in_doubt || attempt_->under_way || attempt_->refused);
  const KsResult unknown = is(Mutant::kSuccessWhenUnknown) ? KS_SUCCESS : KS_TIMEOUT;
  bool some_given_up = false;
  for (Decided &one : attempt_->changes) {
    const bool is_late = may_have_happened ? now_ >= one.change.deadline : is_over(one.change);
    if (one.answered || !is_late) continue;
    one.answered = some_given_up = true;
    answer(one.change, may_have_happened ? unknown : KS_FW_COMM_ERROR);
  }
  // What was given up must not be sent any more, with the others.
  if (some_given_up && !may_have_happened) return decide_again();
  drop_attempt_if_answered();
}

// What nobody waits for any more isn't sent again. The next change is decided at the header of before or a later one,
// so that one of them at most can happen.
void Core::drop_attempt_if_answered() {
  const bool all_answered =
      std::all_of(attempt_->changes.begin(), attempt_->changes.end(), [](const Decided &one) { return one.answered; });
  if (all_answered && !attempt_->under_way) attempt_.reset();
}

void Core::attempt_more() {
  if (phase_ != Phase::kFollowing || !in_contact()) return;
  if (attempt_) {
    const bool waits = attempt_->under_way || attempt_->refused || now_ < attempt_->again_at;
    if (!waits) send_attempt();
    return;
  }
  // At a header that is known to be past, nothing can be won.
  if (known_version_ > memory_.header().version || pauses()) return;
  if (queue_.empty() || !was_errand_) {  // else clients have their turn
    std::optional<Errand> errand = own_errand();
    if (errand) {
      queue_.push_front(
          {.ticket = kNobody, .decide = {}, .deadline = now_ + options_.write_wait, .errand = std::move(errand)});
    }
  }
  if (queue_.empty()) return;
  // {}: Clang 14 has no emplace() for a nested class with default member initializers.
  Attempt &attempt = attempt_.emplace(Attempt{});
  attempt.incarnation = memory_.header().incarnation;
  attempt.version = memory_.header().version;
  decide(attempt);
  if (attempt_) send_attempt();
}

// decide takes as many changes as go into one transaction, or one errand.
void Core::decide(Attempt &attempt) {
  was_errand_ = queue_.front().errand.has_value();
  if (was_errand_) return decide_errand(attempt);
  uint64_t last_version = memory_.state().header.last_version;
  vault::Group group(memory_.state(), options_.limits, last_version);
  const size_t most = one_by_one_ ? 1 : kLargestGroup;
  while (!queue_.empty() && !queue_.front().errand && attempt.changes.size() < most &&
         group.changes().size() < kMostRowsPerCommit && size_of(group) + kLargestRow <= kMostBytesPerCommit) {
    attempt.changes.push_back({std::move(queue_.front())});
    queue_.pop_front();
    attempt.changes.back().result = attempt.changes.back().change.decide(group);
  }
  one_by_one_ = one_by_one_ && !queue_.empty();
  attempt.writes = !group.changes().empty();
  if (!attempt.writes) return;
  std::optional<FleetHeader> next = memory_.successor(next_mark());
  if (!next) return refuse_too_many();
  attempt.sequence = last_sequence_;
  attempt.commit = memory_.commit_of_group(std::move(*next), group);
  attempt.commit.limit = kCommitLimit;
  if (is(Mutant::kNoCompare)) attempt.commit.header_revision.reset();
}

void Core::refuse_too_many() {
  passing_ = Standing::kTooManyMachines;
  refuse_attempt(KS_STORE_FULL);
}

void Core::send_attempt() {
  attempt_->under_way = true;
  attempt_->sent_last = now_;
  if (!attempt_->writes) {
    if (is(Mutant::kRefuseUnconfirmed)) {
      for (const Decided &one : attempt_->changes) answer(one.change, one.result);
      attempt_.reset();
      return;
    }
    send_header_read();
    attempt_->sent[last_id_] = now_;
    return;
  }
  attempt_->sent[send(attempt_->commit)] = now_;
  if (!is(Mutant::kApplyBeforeTheAnswer)) return;
  if (auto step = memory_.next(memory_.revision() + 1, attempt_->commit.puts, attempt_->commit.deletes)) {
    show(std::move(*step));
  }
}

void Core::fail_attempt(Failure kind) {
  attempt_->again_at = now_ + kRetryPause;
  if (kind == Failure::kUnknown && !attempt_->in_doubt) {
    attempt_->in_doubt = true;
    ++counts_.unknown;
  }
  // Of what may have happened already, no failure of another sending tells.
  if (!attempt_->in_doubt) {
    switch (kind) {
      case Failure::kNotSent:
      case Failure::kUnknown:
        break;
      case Failure::kTooLarge:
        if (attempt_->changes.size() == 1) return refuse_attempt(KS_STORE_FULL);
        one_by_one_ = true;
        return decide_again();
      case Failure::kNoSpace:
        passing_ = Standing::kNoSpace;
        return refuse_attempt(KS_STORE_FULL);
      case Failure::kDenied:
        passing_ = Standing::kDenied;
        return refuse_attempt(KS_FW_COMM_ERROR);
    }
  }
  drop_attempt_if_answered();
}

// doubt_attempt sends once more what has been under way for long, when a later question was answered meanwhile, and
// shows that it hasn't happened. So a transaction that was lost with the store's leader isn't waited for once there is
// another.
void Core::doubt_attempt(const HeaderRead &read, const HeaderIs &report) {
  if (!attempt_->under_way || read.sent - attempt_->sent_last < kOverdue) return;
  OpenedHeader opened;
  if (memory_.judge(report.header, opened) != Verdict::kSame || opened.header.version != attempt_->version) return;
  attempt_->under_way = false;
  fail_attempt(Failure::kUnknown);
}

// refuse_attempt answers all of it with `result`, but what needed no writing.
void Core::refuse_attempt(KsResult result) {
  for (const Decided &one : attempt_->changes) {
    if (!one.answered) answer(one.change, result);
  }
  attempt_.reset();
}

// decide_again has the changes of an attempt that came to nothing be the first of the next one.
void Core::decide_again() {
  for (auto one = attempt_->changes.rbegin(); one != attempt_->changes.rend(); ++one) {
    if (!one->answered && one->change.ticket != kNobody) queue_.push_front(std::move(one->change));
  }
  attempt_.reset();
}

bool Core::may_have_happened(Ticket ticket) const noexcept {
  return attempt_ && attempt_->writes && !attempt_->sent.empty() &&
         std::ranges::any_of(attempt_->changes, [&](const Decided &one) { return one.change.ticket == ticket; });
}

// What of them was sent may still happen: the next attempt is decided at the header of before, and comes to nothing
// then.
void Core::break_off() noexcept {
  requests_.clear();
  queue_.clear();
  attempt_.reset();
  forget_requests();
}

// pauses tells whether another machine is let in first. One that waits itself doesn't pause.
bool Core::pauses() const {
  if (lost_in_a_row_ >= kLostBeforeMark || is(Mutant::kSelfish)) return false;
  return std::any_of(heard_.begin(), heard_.end(), [this](const auto &one) { return one.second.pause_until > now_; });
}

void Core::stop(Standing standing, std::string why) {
  if (is(Mutant::kTamperingForgotten) && standing == Standing::kTampered) return load_again_at(now_ + kReadInterval);
  lasting_ = standing;
  why_ = std::move(why);
  accepted_once_ = 0;
  load_again_at(now_);
  reads_.clear();
  for (const Change &change : queue_) answer(change, KS_FW_BAD_CELL);
  queue_.clear();
  if (!attempt_) return;
  const bool may_have_happened = attempt_->writes && !attempt_->sent.empty();
  refuse_attempt(may_have_happened ? KS_TIMEOUT : KS_FW_BAD_CELL);
}

}  // namespace ksd::fleet
