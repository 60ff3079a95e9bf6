// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// engine_model.h: a store that keeps all revisions, as far as they aren't compacted, and the ways to it.
#ifndef TESTS_SUPPORT_FLEET_SIMULATOR_ENGINE_MODEL_H
#define TESTS_SUPPORT_FLEET_SIMULATOR_ENGINE_MODEL_H

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <queue>
#include <set>
#include <vector>

#include "fleet/core.h"

namespace ksd::fleet {

using namespace std::chrono_literals;

// Random gives numbers that a seed decides.
class Random {
 public:
  explicit Random(uint64_t seed) : state_(seed) {}

  uint64_t next() {  // splitmix64
    uint64_t z = state_ += 0x9e3779b97f4a7c15;
    z = (z ^ z >> 30) * 0xbf58476d1ce4e5b9;
    z = (z ^ z >> 27) * 0x94d049bb133111eb;
    return z ^ z >> 31;
  }
  uint64_t below(uint64_t bound) { return next() % bound; }
  bool one_in(uint64_t n) { return n != 0 && below(n) == 0; }
  Time between(Time from, Time to) {
    return from + Time(static_cast<int64_t>(below(static_cast<uint64_t>((to - from).count()) + 1)));
  }

 private:
  uint64_t state_;
};

// Events happens in the order of their times, and at one time in the order in which they were planned.
class Events {
 public:
  Time now() const { return now_; }
  void at(Time when, std::function<void()> what) { queue_.push({std::max(when, now_), ++last_, std::move(what)}); }
  void after(Time wait, std::function<void()> what) { at(now_ + wait, std::move(what)); }

  // run gives false when nothing is left before `end`.
  bool step(Time end) {
    if (queue_.empty() || queue_.top().when > end) return false;
    Planned next = std::move(const_cast<Planned &>(queue_.top()));
    queue_.pop();
    now_ = next.when;
    next.what();
    return true;
  }

 private:
  struct Planned {
    Time when;
    uint64_t number;
    std::function<void()> what;
    bool operator<(const Planned &other) const {
      return when != other.when ? when > other.when : number > other.number;
    }
  };
  std::priority_queue<Planned> queue_;
  Time now_{};
  uint64_t last_ = 0;
};

// StoreModel is what the engine keeps.
class StoreModel {
 public:
  struct Change {
    std::vector<KeyValue> puts;
    std::vector<std::string> deletes;
  };

  Revision revision() const { return history_.size(); }
  Revision compacted() const { return compacted_; }
  const std::map<std::string, KeyValue> &live() const { return live_; }
  std::optional<KeyValue> header() const {
    const auto found = live_.find(kHeaderKey);
    return found == live_.end() ? std::nullopt : std::optional(found->second);
  }

  // change makes one revision, whatever is there.
  void change(std::vector<KeyValue> puts, std::vector<std::string> deletes) {
    const Revision revision = history_.size() + 1;
    for (KeyValue &put : puts) {
      put.mod_revision = revision;
      live_[put.key] = put;
    }
    for (const std::string &key : deletes) live_.erase(key);
    history_.push_back({std::move(puts), std::move(deletes)});
  }

  // forget loses a row, and no watch hears of it.
  void forget(const std::string &key) { live_.erase(key); }

  // revision_of is when a key was put; 0 when it isn't there.
  Revision revision_of(const char *key) const {
    const auto found = live_.find(key);
    return found == live_.end() ? 0 : found->second.mod_revision;
  }

  // compare_and_change is a commit; false: what it compares is another one.
  bool compare_and_change(const Commit &commit) {
    if (commit.header_revision && *commit.header_revision != revision_of(kHeaderKey)) return false;
    if (commit.restore_revision && *commit.restore_revision != revision_of(kRestoreKey)) return false;
    change(commit.puts, commit.deletes);
    return true;
  }

  void compact(Revision upto) { compacted_ = std::max(compacted_, upto); }
  const Change &at(Revision revision) const { return history_[revision - 1]; }

  // set_back is what the restore of an old snapshot does.
  void set_back(const StoreModel &snapshot) { *this = snapshot; }

 private:
  std::map<std::string, KeyValue> live_;
  std::vector<Change> history_;
  Revision compacted_ = 0;
};

// Weather is what a link does to what goes over it.
struct Weather {
  Time shortest = 200us, longest = 3ms;
  uint64_t slow_one_in = 50;  // takes up to half a second
  uint64_t lost_one_in = 100;
  uint64_t doubled_one_in = 200;  // reaches the store twice, and the second answer counts
};

// LinkModel is the engine of one machine: it carries requests to the store and reports back, if nothing goes wrong.
class LinkModel {
 public:
  // `executed` is told of each commit that the store has made.
  LinkModel(Events &events, StoreModel &store, Random &random, std::function<void(const Commit &)> executed)
      : events_(events), store_(store), random_(random), executed_(std::move(executed)) {}

  Weather weather;
  bool full = false;          // the store has no space for changes
  bool lose_deletes = false;  // where a watch begins at a compacted revision
  uint64_t lost_deletes = 0;

  // use has reports go to `report` from now on, as for a daemon that has just started; what was under way for the one
  // before is lost, but may still reach the store.
  void use(std::function<void(Report)> report) {
    ++life_;
    report_ = std::move(report);
    watch_.reset();
    waiting_.clear();
  }
  void go_down() {
    up_ = false;
    if (watch_) watch_->is_first = true;  // it is begun anew, behind the daemon's back
  }
  void come_up() {
    up_ = true;
    deliver_soon();
  }

  // die is the end of the engine's process.
  void die() {
    ++life_;
    watch_.reset();
    waiting_.clear();
    later(100us, EngineGone{"it has died"});
  }

  // die_at_next_commit has the engine die with a commit under way, and the link go down with it.
  void die_at_next_commit(bool dies = true) { dies_at_commit_ = dies; }

  void send(const Request &request) {
    std::visit([this](const auto &one) { carry(one); }, request);
  }

  void store_changed() { deliver_soon(); }

 private:
  struct WatchModel {
    RequestId id;
    Revision next;
    bool is_first = true;
    bool planned = false;
  };

  Time delay() {
    if (random_.one_in(weather.slow_one_in)) return random_.between(weather.longest, 500ms);
    return random_.between(weather.shortest, weather.longest);
  }

  // later reports something, unless the daemon or the engine is another one by then.
  void later(Time wait, Report report) {
    events_.after(wait, [this, life = life_, report = std::move(report)] {
      if (life == life_ && report_) report_(report);
    });
  }

  // answer reports what waits for an answer, once.
  void answer(RequestId id, Time wait, Report report) {
    events_.after(wait, [this, life = life_, id, report = std::move(report)] {
      if (life == life_ && waiting_.erase(id) != 0) report_(report);
    });
  }

  // round_trip brings a request to the store, and the answer back, each with its own mishaps.
  template <typename Execute>
  void round_trip(RequestId id, Time limit, Execute execute, bool repeatable) {
    waiting_.insert(id);
    if (!up_ && random_.one_in(2)) return answer(id, 100us, Failed{id, Failure::kNotSent, "no connection"});
    answer(id, limit, Failed{id, Failure::kUnknown, "no answer"});
    if (!up_ || random_.one_in(weather.lost_one_in)) return;
    const auto arrive = [this, life = life_, id, execute] {
      if (!up_ && random_.one_in(2)) return;  // else it was past the cut already
      const std::vector<Report> reports = execute();
      if (!random_.one_in(weather.lost_one_in)) {
        events_.after(delay(), [this, life, id, reports] {
          if (life != life_ || !up_ || waiting_.erase(id) == 0) return;
          for (const Report &report : reports) report_(report);
        });
      }
    };
    if (repeatable && random_.one_in(weather.doubled_one_in)) {
      events_.after(delay(), [this, execute] {
        if (up_) execute();
      });
    }
    events_.after(delay(), arrive);
  }

  // An engine that says that there is no space has made sure that nothing was made, and that nothing more is under way.
  void carry(const Commit &commit) {
    const auto is_over = std::make_shared<bool>(false);
    round_trip(
        commit.id, commit.limit,
        [this, commit, is_over]() -> std::vector<Report> {
          if (*is_over) return {};
          if (full) {
            *is_over = commit.header_revision == store_.revision_of(kHeaderKey);
            return {Failed{commit.id, *is_over ? Failure::kNoSpace : Failure::kUnknown, "no space"}};
          }
          if (!store_.compare_and_change(commit)) return {Refused{commit.id, store_.header(), store_.revision()}};
          const Revision revision = store_.revision();
          executed_(commit);
          return {Committed{commit.id, revision}};
        },
        true);
    if (!std::exchange(dies_at_commit_, false)) return;
    events_.after(random_.between(100us, 2ms), [this] {
      die();
      go_down();
    });
    events_.after(random_.between(100ms, 1s), [this] { come_up(); });
  }

  void carry(const ReadHeader &read) {
    round_trip(
        read.id, read.limit,
        [this, id = read.id]() -> std::vector<Report> {
          return {HeaderIs{id, store_.header(), store_.revision()}};
        },
        false);
  }

  void carry(const Load &load) {
    round_trip(
        load.id, 1500ms,
        [this, id = load.id]() -> std::vector<Report> {
          LoadedRows rows{id, {}};
          for (const auto &[key, value] : store_.live()) {
            if (key.starts_with(kRowFolder)) rows.rows.push_back(value);
          }
          return {std::move(rows), Loaded{id, store_.header(), store_.revision()}};
        },
        false);
  }

  void carry(const Watch &watch) {
    watch_ = WatchModel{watch.id, watch.from};
    deliver_soon();
  }

  void carry(const Beat &beat) {
    round_trip(
        beat.id, beat.limit,
        [this, beat]() -> std::vector<Report> {
          if (full) return {Failed{beat.id, Failure::kNoSpace, "no space"}};
          store_.change({{.key = kBeatFolder + beat.machine, .value = beat.value, .mod_revision = 0}}, {});
          executed_({});
          return {Committed{beat.id, store_.revision()}};
        },
        false);
  }

  void carry(const ReadBeats &read) {
    round_trip(
        read.id, read.limit,
        [this, id = read.id]() -> std::vector<Report> {
          BeatsAre beats{id, {}, store_.revision()};
          for (const auto &[key, value] : store_.live()) {
            if (key.starts_with(kBeatFolder) || key.starts_with(kBoxFolder)) beats.beats.push_back(value);
          }
          return {std::move(beats)};
        },
        false);
  }

  void deliver_soon() {
    if (!watch_ || watch_->planned || !up_ || watch_->next > store_.revision()) return;
    watch_->planned = true;
    events_.after(delay(), [this, life = life_, id = watch_->id] {
      if (life == life_ && watch_ && watch_->id == id) deliver();
    });
  }

  void deliver() {
    watch_->planned = false;
    if (!up_) return;
    while (watch_ && watch_->next <= store_.revision()) {
      const Revision revision = watch_->next;
      const bool may_lose = lose_deletes && watch_->is_first && revision == store_.compacted();
      if (revision <= store_.compacted() && !may_lose) {
        const RequestId id = watch_->id;
        watch_.reset();
        report_(WatchBroken{id, store_.compacted()});
        return;
      }
      StoreModel::Change change = store_.at(revision);
      if (may_lose && !change.deletes.empty()) {
        change.deletes.clear();
        ++lost_deletes;
      }
      watch_->is_first = false;
      ++watch_->next;
      report_(Changed{watch_->id, revision, std::move(change.puts), std::move(change.deletes)});
    }
  }

  Events &events_;
  StoreModel &store_;
  Random &random_;
  const std::function<void(const Commit &)> executed_;
  std::function<void(Report)> report_;
  uint64_t life_ = 0;
  bool up_ = true;
  bool dies_at_commit_ = false;
  std::optional<WatchModel> watch_;
  std::set<RequestId> waiting_;
};

}  // namespace ksd::fleet

#endif
