// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// The part of the core that is about the fleet's machines and its master key. Each machine is known by its mark in the
// header, and heard by its heartbeats.
#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <utility>

#include "fleet/core.h"
#include "fleet/mutants.h"
#include "vault/master_key.h"

namespace ksd::fleet {
namespace {

constexpr PublicKey kNoKey{};

std::string seconds(Time time) {
  return fmt::format("{} s", time / std::chrono::seconds(1));
}

// machine_of_beat gives the machine whose heartbeat stands under a key, or nothing.
std::optional<std::string> machine_of_beat(std::string_view key) {
  constexpr std::string_view kFolder = kBeatFolder;
  if (!key.starts_with(kFolder)) return std::nullopt;
  return std::string(key.substr(kFolder.size()));
}

}  // namespace

// ---- What administrators ask for ----

void Core::leave(Time now, Ticket ticket, std::string machine, bool even_if_alive) {
  now_ = now;
  take_up({.ticket = ticket,
           .decide = {},
           .deadline = now + options_.write_wait,
           .errand = Errand{.kind = Errand::Kind::kLeave,
                            .machine = machine.empty() ? options_.machine : std::move(machine),
                            .even_if_alive = even_if_alive}});
}

void Core::change_key(Time now, Ticket ticket, const Fingerprint &compared) {
  now_ = now;
  take_up({.ticket = ticket,
           .decide = {},
           .deadline = now + options_.write_wait,
           .errand = Errand{.kind = Errand::Kind::kChangeKey, .compared = compared}});
}

std::vector<MachineSeen> Core::machines(Time now) const {
  std::map<std::string, MachineSeen> seen;
  for (const WriterMark &mark : memory_.header().writers) {
    MachineSeen &one = seen[mark.machine];
    one.is_member = true;
    one.public_key = mark.public_key;
  }
  for (const auto &[name, heard] : heard_) seen[name].beat = heard.beat;
  std::vector<MachineSeen> list;
  for (auto &[name, one] : seen) {
    one.name = name;
    one.is_this = name == options_.machine;
    if (one.is_this) {
      one.beat = beat_now();
    } else {
      const auto heard = heard_.find(name);
      one.silent_at_least = heard == heard_.end() || !heard->second.at;
      const Time since = one.silent_at_least ? listening_since_ : *heard->second.at;
      one.silent = std::chrono::duration_cast<std::chrono::milliseconds>(now - since);
    }
    list.push_back(std::move(one));
  }
  return list;
}

KeyChangeSeen Core::key_change() const {
  const FleetHeader &header = memory_.header();
  KeyChangeSeen seen{.key = memory_.key_id(), .change = header.key_change};
  seen.entries = memory_.state().table.size();
  if (memory_.is_filled()) seen.machines = fingerprint_of(header.writers);
  if (!header.key_change) return seen;
  seen.moved = memory_.state().table.behind(header.key_change->moved);
  seen.missing = who_lacks(header.key_change->key_id);
  return seen;
}

// ---- Heartbeats and boxes ----

void Core::ask_for_beats() {
  beats_sent_ = now_;
  beats_id_ = send(ReadBeats{.id = 0, .limit = kReadLimit});
}

void Core::take_report(const BeatsAre &report) {
  if (report.id != beats_id_ || beats_id_ == 0) return;
  beats_id_ = 0;
  for (const KeyValue &one : report.beats) heed_machine(one, one.mod_revision, false);
}

// heed_machine takes what is stored of a machine. It is news when it was stored while this one listens.
void Core::heed_machine(const KeyValue &put, Revision revision, bool is_news) {
  if (const auto machine = machine_of_beat(put.key)) heed_heartbeat(*machine, put, revision, is_news);
  if (put.key != kBoxFolder + options_.machine || revision <= box_revision_) return;
  box_ = put.value;
  box_revision_ = revision;
  key_at_ = now_;
}

void Core::forget_machine(const std::string &key, Revision revision) {
  if (const auto machine = machine_of_beat(key)) heard_.erase(*machine);
  if (key != kBoxFolder + options_.machine) return;
  box_.reset();
  box_revision_ = revision;
}

void Core::heed_heartbeat(const std::string &machine, const KeyValue &beat, Revision revision, bool is_news) {
  if (memory_.sealer() == nullptr) return;
  const std::optional<Heartbeat> opened =
      memory_.open([&](const vault::Sealer &sealer) { return open_heartbeat(beat.value, machine, sealer); });
  if (!opened) return;
  if (machine == options_.machine) {
    const bool is_other = opened->session != options_.session && is_news && now_ - listening_since_ >= kReadLimit;
    if (is_other && lacks_its_mark()) stop_for_namesake();
    return;
  }
  Heard &heard = heard_[machine];
  const bool is_again = opened->session == heard.beat.session && opened->number <= heard.beat.number;
  if (is_again || revision <= heard.revision) return;  // shown once more
  if (opened->keys != heard.beat.keys) key_goes_on_since_ = now_;
  heard.beat = *opened;
  heard.revision = revision;
  if (is_news) heard.at = now_;
  if (opened->waits && is_news) heard.pause_until = now_ + kPause;
}

// silent_since is when a machine was heard last, or when this one began to listen, if that was later.
Time Core::silent_since(const std::string &machine) const {
  const auto heard = heard_.find(machine);
  const std::optional<Time> at = heard == heard_.end() ? std::nullopt : heard->second.at;
  return std::max(listening_since_, at.value_or(listening_since_));
}

Heartbeat Core::beat_now() const {
  Heartbeat beat{.session = options_.session,
                 .number = beats_,
                 .version = memory_.header().version,
                 .waits = false,
                 .keys = {memory_.key_id()}};
  const std::optional<FleetKeyChange> &change = memory_.header().key_change;
  if (change && memory_.holds(change->key_id)) beat.keys.push_back(change->key_id);
  return beat;
}

void Core::send_beat(bool waits) {
  const bool speaks = memory_.sealer() != nullptr && is_registered_;
  next_beat_at_ = now_ + (speaks ? kBeatInterval : kReadInterval);
  if (!speaks) return;
  ++beats_;
  Heartbeat beat = beat_now();
  beat.waits = waits;
  beat_id_ = send(Beat{.id = 0,
                       .machine = options_.machine,
                       .value = seal_heartbeat(beat, options_.machine, *memory_.sealer()),
                       .limit = kReadLimit});
}

// ---- Who belongs to the fleet ----

// lacks_its_mark tells whether the mark of this machine's name is that of another one, or of this one before it lost
// its key.
bool Core::lacks_its_mark() const {
  const WriterMark *mine = memory_.header().mark_of(options_.machine);
  return mine != nullptr && mine->public_key != public_key_;
}

void Core::stop_for_namesake() {
  stop(Standing::kNamesake, "another machine of the fleet has the name " + options_.machine);
}

// is_out tells whether this machine has left the fleet, or was taken out, by that header. With another key of its own
// it is another machine, which may come.
bool Core::is_out(const FleetHeader &header) const {
  if (header.mark_of(options_.machine) != nullptr) return false;
  const WriterMark *departed = header.departed_mark_of(options_.machine);
  if (departed != nullptr && departed->public_key == public_key_) return true;
  return is_registered_ && header.incarnation == memory_.header().incarnation;
}

void Core::stop_as_out(const FleetHeader &header) {
  const std::string &author = header.author().machine;
  stop(Standing::kOut, author == options_.machine ? "it has left" : "it has left or was taken out");
}

void Core::look_whether_out() {
  const FleetHeader &header = memory_.header();
  if (is_out(header)) return stop_as_out(header);
  const WriterMark *mine = header.mark_of(options_.machine);
  if (mine == nullptr) return;
  if (mine->public_key == public_key_) {
    if (!std::exchange(is_registered_, true)) next_beat_at_ = now_;
  } else if (is_registered_) {
    stop_for_namesake();
  }
}

// note_news collects what a later header tells of machines and keys.
void Core::note_news(const OpenedHeader &later) {
  if (!memory_.is_filled()) return;
  const FleetHeader &before = memory_.header(), &after = later.header;
  if (before.key_change != after.key_change) key_goes_on_since_ = now_;
  for (const WriterMark &mark : after.writers) {
    const WriterMark *then = before.mark_of(mark.machine);
    if (then == nullptr) {
      news_.push_back(fmt::format("{} is a machine of the fleet now", mark.machine));
    } else if (then->public_key != mark.public_key) {
      news_.push_back(fmt::format("{} has another key of its own now", mark.machine));
    }
  }
  for (const WriterMark &mark : before.writers) {
    if (after.mark_of(mark.machine) != nullptr) continue;
    const std::string &author = after.author().machine;
    news_.push_back(author == mark.machine ? fmt::format("{} has left the fleet", author)
                                           : fmt::format("{} took {} out of the fleet", author, mark.machine));
  }
  const bool begins = after.key_change && !before.key_change, ends = !after.key_change && before.key_change;
  if (begins) news_.push_back(fmt::format("{} began to change the fleet's master key", after.key_change->begun_by));
  if (ends) news_.emplace_back("the fleet has another master key now");
  if (begins || ends) next_beat_at_ = now_;
}

// ---- The next master key ----

// look_for_key takes the next master key out of the box for this machine.
void Core::look_for_key(const FleetHeader &header) {
  const std::optional<FleetKeyChange> &change = header.key_change;
  if (!change || memory_.holds(change->key_id)) return key_trouble_.clear();
  if (!box_ || now_ < key_at_) return;
  key_at_ = now_ + kKeyRetryPause;
  const std::optional<BoxedKey> box =
      memory_.open([&](const vault::Sealer &sealer) { return open_box(*box_, options_.machine, sealer); });
  if (box && box->key_id != change->key_id) return;  // of another change
  const WriterMark *sender = box ? header.any_mark_of(box->sender) : nullptr;
  KeyPtr key = sender != nullptr && options_.machine_key != nullptr
                   ? unbox_key(*box, *options_.machine_key, sender->public_key)
                   : nullptr;
  if (key != nullptr) {
    key_trouble_ = keep_next_key(std::move(key));
  } else {
    key_trouble_ = fmt::format("it can't be opened; run `ksctl fleet rotate` once more on {}", change->begun_by);
  }
}

// keep_next_key gives why the key couldn't be kept, or nothing. Only then it is said that this machine holds it.
std::string Core::keep_next_key(KeyPtr key) {
  std::string why;
  if (!is(Mutant::kKeyNotKept)) {
    why = options_.keeper != nullptr ? options_.keeper->keep_next(*key, *memory_.master_key())
                                     : "there is no place for it on this machine";
  }
  if (!why.empty()) return why;
  memory_.hold(std::move(key));
  next_beat_at_ = now_;
  return why;
}

std::vector<std::string> Core::who_lacks(const vault::KeyId &key) const {
  std::vector<std::string> missing;
  for (const WriterMark &mark : memory_.header().writers) {
    const auto heard = heard_.find(mark.machine);
    const bool has_it =
        mark.machine == options_.machine ? memory_.holds(key) : heard != heard_.end() && holds(heard->second.beat, key);
    if (!has_it) missing.push_back(mark.machine);
  }
  return missing;
}

bool Core::all_hold(const vault::KeyId &key) const {
  return is(Mutant::kMovesTooEarly) ? memory_.holds(key) : who_lacks(key).empty();
}

// ---- Errands ----

// own_errand is what this machine does by itself, if it is time.
std::optional<Core::Errand> Core::own_errand() const {
  if (now_ < errand_at_) return std::nullopt;
  const FleetHeader &header = memory_.header();
  // A machine that has lost its own key makes another one known, unless it is one more of its name.
  const bool was_alone = now_ - listening_since_ >= kNameWait;
  if (header.mark_of(options_.machine) == nullptr || (lacks_its_mark() && was_alone)) return Errand{};
  const std::optional<FleetKeyChange> &change = header.key_change;
  if (!change || !all_hold(change->key_id)) return std::nullopt;
  const bool is_ours = change->begun_by == options_.machine || now_ - key_goes_on_since_ >= kTakeOver;
  return is_ours ? std::optional(Errand{.kind = Errand::Kind::kMoveRows}) : std::nullopt;
}

// next_own_errand is when there may be one, if nothing else happens.
std::optional<Time> Core::next_own_errand() const {
  std::optional<Time> next;
  const auto sooner = [&](Time when) {
    if (when > now_) next = std::min(next.value_or(when), when);
  };
  sooner(errand_at_);
  if (lacks_its_mark()) sooner(listening_since_ + kNameWait);
  if (memory_.header().key_change) {
    sooner(key_goes_on_since_ + kTakeOver);
    sooner(key_at_);
  }
  return next;
}

WriterMark Core::next_mark() {
  const WriterMark *mine = memory_.header().any_mark_of(options_.machine);
  // Never that of an attempt before, which may happen yet.
  last_sequence_ = std::max(last_sequence_, mine == nullptr ? 0 : mine->sequence) + 1;
  return {
      .machine = options_.machine, .session = options_.session, .sequence = last_sequence_, .public_key = public_key_};
}

void Core::decide_errand(Attempt &attempt) {
  Decided &one = attempt.changes.emplace_back(Decided{std::move(queue_.front())});
  queue_.pop_front();
  if (one.change.ticket == kNobody) errand_at_ = now_ + kErrandPause;  // unless it happens
  std::optional<FleetHeader> next = memory_.successor(next_mark());
  if (!next) return refuse_too_many();
  attempt.sequence = last_sequence_;
  const Errand errand = *one.change.errand;
  switch (errand.kind) {
    case Errand::Kind::kRegister:
      next->writers[next->writer].public_key = public_key_;
      attempt.commit = memory_.commit_of(*next);
      one.result = KS_SUCCESS;
      break;
    case Errand::Kind::kLeave:
      one.result = decide_leave(errand, std::move(*next), attempt.commit, one.words);
      break;
    case Errand::Kind::kChangeKey:
      one.result = decide_key_change(errand, std::move(*next), attempt.commit, one.words);
      break;
    case Errand::Kind::kMoveRows: {
      const size_t boxes = next->writers.size();
      attempt.commit = memory_.commit_of_move(std::move(*next), kMostRowsPerCommit - boxes);
      one.result = KS_SUCCESS;
    }
  }
  attempt.writes = !attempt.commit.puts.empty();
  attempt.commit.limit = kCommitLimit;
}

KsResult Core::decide_leave(const Errand &errand, FleetHeader next, Commit &commit, std::string &words) const {
  const std::string &name = errand.machine;
  const bool is_this = name == options_.machine;
  const auto found = std::ranges::find(next.writers, name, &WriterMark::machine);
  if (found == next.writers.end() && !heard_.contains(name)) {
    words = fmt::format("the fleet has no machine {}; `ksctl fleet list` shows those that it has", name);
    return KS_NOT_FOUND;
  }
  if (is_this && next.writers.size() == 1) {
    words = "this is the fleet's only machine, so it can't leave; to give the fleet up, stop the service";
    return KS_INVALID_ARGS;
  }
  const Time silent = now_ - silent_since(name);
  if (!is_this && !errand.even_if_alive && silent < kHeardLately) {
    const auto heard = heard_.find(name);
    words = heard != heard_.end() && heard->second.at
                ? fmt::format("{} was heard {} ago; run `ksctl fleet leave` on it, or add --even-if-alive", name,
                              seconds(silent))
                : fmt::format(
                      "this machine has listened for {} only, which is too short to know whether {} is alive; ask "
                      "again in {}, or add --even-if-alive",
                      seconds(silent), name, seconds(kHeardLately - silent));
    return KS_INVALID_ARGS;
  }
  if (found != next.writers.end()) {
    if (next.departed.size() == kMostDeparted) next.departed.erase(next.departed.begin());
    next.departed.push_back(std::move(*found));
    next.writers.erase(found);
    const auto author = std::ranges::find(next.writers, options_.machine, &WriterMark::machine);
    next.writer = static_cast<uint8_t>(is_this ? next.writers.size() + next.departed.size() - 1
                                               : static_cast<size_t>(author - next.writers.begin()));
  }
  commit = memory_.commit_of(next);
  commit.deletes = {kBeatFolder + name, kBoxFolder + name};
  return KS_SUCCESS;
}

KsResult Core::decide_key_change(const Errand &errand, FleetHeader next, Commit &commit, std::string &words) {
  if (fingerprint_of(memory_.header().writers) != errand.compared) {
    words = "the fleet's machines have another fingerprint; run `ksctl fleet status` on each of them and compare again";
    return KS_BAD_KEY;
  }
  std::vector<std::string> keyless;
  for (const WriterMark &mark : next.writers) {
    if (mark.public_key == kNoKey) keyless.push_back(mark.machine);
  }
  if (!keyless.empty()) {
    words = fmt::format("{}: has no key of its own that the next master key could be sealed for; its log says why",
                        fmt::join(keyless, ", "));
    return KS_INVALID_ARGS;
  }
  std::vector<std::string> receivers;
  if (!next.key_change) {
    if (drawn_ == nullptr || memory_.next_key() != drawn_) {
      drawn_ = vault::draw_master_key();
      words = keep_next_key(drawn_);
      if (!words.empty()) return KS_FW_BAD_CELL;
    }
    next.key_change = {.key_id = vault::key_id_of(*drawn_), .moved = 0, .begun_by = options_.machine};
    for (const WriterMark &mark : next.writers) receivers.push_back(mark.machine);
  } else if (memory_.holds(next.key_change->key_id)) {
    receivers = who_lacks(next.key_change->key_id);
  } else {
    words =
        fmt::format("{} has begun to change the master key, and this machine hasn't got the next one yet; ask there",
                    next.key_change->begun_by);
    return KS_INVALID_ARGS;
  }
  std::erase(receivers, options_.machine);
  if (receivers.empty() && memory_.header().key_change) return KS_SUCCESS;  // there is nothing to add
  commit = memory_.commit_of(next);
  for (const std::string &machine : receivers) {
    const std::optional<BoxedKey> box =
        box_key(*memory_.next_key(), options_.machine, *options_.machine_key, next.mark_of(machine)->public_key);
    if (!box) {
      commit = {};
      words = fmt::format("{}: has a key that nothing can be sealed for", machine);
      return KS_INVALID_ARGS;
    }
    commit.puts.push_back(
        {.key = kBoxFolder + machine, .value = seal_box(*box, machine, *memory_.sealer()), .mod_revision = 0});
  }
  return KS_SUCCESS;
}

}  // namespace ksd::fleet
