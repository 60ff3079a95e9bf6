// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "fleet_run/checker.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <map>
#include <unordered_map>

namespace fleet_run {
namespace {

constexpr size_t kMostWorded = 50;

// Event is what a version did to one key.
struct Event {
  uint64_t version = 0;
  Kind kind = Kind::kPut;
  uint64_t number = 0;  // of the change; 0 where the row doesn't tell: of removals and renames
  uint16_t key = 0;
  uint16_t other = 0;
};

std::string words_of(const Operation &operation) {
  static constexpr const char *kKinds[] = {"put", "metadata", "remove", "rename", "read", "exists"};
  char text[200];
  std::snprintf(text, sizeof text, "%s of %u by %u.%u.%llu, asked at %.3f s and answered %u%s after %.3f s",
                kKinds[static_cast<size_t>(operation.kind)], operation.key, machine_of(operation.number),
                static_cast<unsigned>(client_of(operation.number) & 0xffff),
                static_cast<unsigned long long>(operation.number & 0xff'ffff'ffff),
                static_cast<double>(operation.invoked) / 1e9, operation.result,
                operation.exchange_failed ? " (by the library)" : "",
                static_cast<double>(operation.answered - operation.invoked) / 1e9);
  return text;
}

class Checking {
 public:
  explicit Checking(const Run &run) : run_(run), operations_(run.operations) {}

  Findings check() {
    replay();
    match();
    find_earliest();
    sweep();
    return std::move(findings_);
  }

 private:
  // Held is what a key stood for from a version on; content 0 is nothing.
  struct Held {
    uint64_t from = 0;
    uint64_t content = 0;
  };

  struct Row {
    uint16_t key;
    uint64_t metadata, secret;
  };

  [[gnu::format(printf, 2, 3)]] void wrong(const char *format, ...) {
    ++findings_.violations;
    if (findings_.wrong.size() >= kMostWorded) return;
    char text[600];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    findings_.wrong.emplace_back(text);
  }

  static unsigned long long shown(uint64_t number) { return number; }

  // ---- The history ----

  void replay() {
    std::map<uint64_t, Row> rows;
    std::unordered_map<uint16_t, uint64_t> ids;
    uint64_t last_id = 0;
    for (const Version &version : run_.versions) {
      const uint64_t number = version.version;
      if (number != ++last_version_)
        return wrong("version %llu follows on %llu", shown(number), shown(last_version_ - 1));
      // All names that are given up are free for others of the same version.
      for (const uint64_t id : version.deletes) {
        const auto row = rows.find(id);
        if (row == rows.end()) {
          wrong("version %llu deletes row %llu, which isn't there", shown(number), shown(id));
          continue;
        }
        note(version, {.version = number, .kind = Kind::kRemove, .number = 0, .key = row->second.key, .other = 0});
        ids.erase(row->second.key);
        hold(number, row->second.key, 0);
        rows.erase(row);
      }
      for (const RowNote &put : version.puts) {
        const auto row = rows.find(put.id);
        if (row == rows.end() || row->second.key == put.key) continue;
        note(version,
             {.version = number, .kind = Kind::kRename, .number = 0, .key = row->second.key, .other = put.key});
        if (row->second.metadata != put.metadata || row->second.secret != put.secret) {
          wrong("version %llu changes row %llu while it renames it", shown(number), shown(put.id));
        }
        ids.erase(row->second.key);
        hold(number, row->second.key, 0);
      }
      for (const RowNote &put : version.puts) {
        const auto [row, is_new] = rows.try_emplace(put.id, Row{});
        if (is_new && put.id <= last_id) wrong("version %llu uses the id %llu again", shown(number), shown(put.id));
        last_id = std::max(last_id, put.id);
        const bool has_new_secret = is_new || put.secret != row->second.secret;
        const bool is_put = has_new_secret && put.metadata == put.secret;
        const bool is_metadata = !is_new && !has_new_secret && put.metadata != row->second.metadata;
        if (has_new_secret && !is_put)
          wrong("version %llu mixes two changes in row %llu", shown(number), shown(put.id));
        if (is_put || is_metadata) {
          note(version, {.version = number,
                         .kind = is_put ? Kind::kPut : Kind::kMetadata,
                         .number = put.metadata,
                         .key = put.key,
                         .other = 0});
        }
        if (const auto held = ids.find(put.key); held != ids.end() && held->second != put.id) {
          wrong("version %llu gives the name of key %u a second time", shown(number), put.key);
        }
        ids[put.key] = put.id;
        row->second = {.key = put.key, .metadata = put.metadata, .secret = put.secret};
        hold(number, put.key, put.metadata);
      }
      if (rows.size() != version.entry_count) {
        wrong("version %llu counts %llu entries, and there are %zu", shown(number), shown(version.entry_count),
              rows.size());
      }
    }
    for (const auto &[id, row] : rows) findings_.table.push_back({.key = row.key, .content = row.metadata});
  }

  void hold(uint64_t version, uint16_t key, uint64_t content) {
    std::vector<Held> &held = held_[key];
    if (!held.empty() && held.back().from == version) held.pop_back();
    held.push_back({.from = version, .content = content});
  }

  void note(const Version &version, const Event &event) {
    const uint16_t thread = event.key / kKeysPerThread;
    const uint64_t client = uint64_t{version.machine} << 16 | thread;
    if (event.number != 0 && client_of(event.number) != client) {
      wrong("version %llu of machine %u has a change of machine %u", shown(event.version), version.machine,
            machine_of(event.number));
    }
    events_[client].push_back(event);
  }

  // ---- Which change is which event ----

  static bool is_same(const Event &event, const Operation &operation) {
    if (event.kind != operation.kind || event.key != operation.key) return false;
    if (event.kind == Kind::kRename) return event.other == operation.other;
    return event.number == 0 || event.number == operation.number;
  }

  // A client that doesn't know what became of a change makes nothing but puts until one is acknowledged. So one removal
  // or rename at most stands between two changes that are certain.
  void match() {
    std::sort(operations_.begin(), operations_.end(),
              [](const Operation &a, const Operation &b) { return a.number < b.number; });
    happened_.assign(operations_.size(), 0);
    for (size_t first = 0; first < operations_.size();) {
      const uint64_t client = client_of(operations_[first].number);
      size_t end = first;
      while (end < operations_.size() && client_of(operations_[end].number) == client) ++end;
      match_client(first, end, events_[client]);
      events_.erase(client);
      first = end;
    }
    for (const auto &[client, events] : events_) {
      for (const Event &event : events)
        wrong("nobody asked for the change of key %u in version %llu", event.key, shown(event.version));
    }
  }

  void match_client(size_t first, size_t end, const std::vector<Event> &events) {
    size_t next = 0;
    std::vector<size_t> pending;  // operations whose outcome isn't known
    const auto settle_until = [&](size_t event) {
      size_t candidate = 0;
      for (; next < event; ++next) {
        while (candidate < pending.size() && !is_same(events[next], operations_[pending[candidate]])) ++candidate;
        if (candidate == pending.size()) {
          wrong("version %llu has a change of key %u that was refused, or made twice, or asked for by nobody",
                shown(events[next].version), events[next].key);
        } else {
          happened_[pending[candidate++]] = events[next].version;
          ++findings_.unknown_happened;
        }
      }
      pending.clear();
    };
    for (size_t i = first; i < end; ++i) {
      const Operation &operation = operations_[i];
      if (!is_change(operation.kind)) continue;
      if (operation.is_unknown()) pending.push_back(i);
      if (operation.is_unknown() || operation.result != KS_SUCCESS) continue;
      size_t found = next;
      while (found < events.size() && !is_same(events[found], operation)) ++found;
      if (found == events.size()) {
        wrong("it was acknowledged, and isn't there: %s", words_of(operation).c_str());
        continue;
      }
      settle_until(found);
      happened_[i] = events[next++].version;
    }
    settle_until(events.size());
  }

  // A version can't have been there before all that is in it, or in one before, was asked for.
  void find_earliest() {
    earliest_.assign(last_version_ + 1, INT64_MIN);
    for (size_t i = 0; i < operations_.size(); ++i) {
      int64_t &earliest = earliest_[happened_[i]];
      if (happened_[i] != 0) earliest = std::max(earliest, operations_[i].invoked);
    }
    for (size_t version = 1; version < earliest_.size(); ++version) {
      earliest_[version] = std::max(earliest_[version], earliest_[version - 1]);
    }
  }

  uint64_t latest_at(int64_t when) const {
    return static_cast<uint64_t>(std::upper_bound(earliest_.begin(), earliest_.end(), when) - earliest_.begin()) - 1;
  }

  // ---- What was told when ----

  struct Moment {
    int64_t when;
    uint32_t operation;
    bool is_answer;
  };

  // Known is which version was certainly there at a time.
  struct Known {
    int64_t when;
    uint64_t version;
  };

  struct Machine {
    std::vector<int64_t> starts;
    size_t life = 0;
    uint64_t version = 0;  // that its memory had reached in that life
  };

  // Asked is what was certain when an operation began.
  struct Asked {
    uint64_t version = 0;  // of the store
    uint64_t memory = 0;   // of the machine's memory, at least
    size_t life = 0;
  };

  void sweep() {
    for (const Start &start : run_.starts) machines_[start.machine].starts.push_back(start.when);
    for (auto &[number, machine] : machines_) std::sort(machine.starts.begin(), machine.starts.end());
    std::vector<Moment> moments;
    moments.reserve(operations_.size() * 2);
    for (uint32_t i = 0; i < operations_.size(); ++i) {
      moments.push_back({operations_[i].invoked, i, false});
      moments.push_back({operations_[i].answered, i, true});
    }
    // What is answered in the very nanosecond in which another begins comes behind that.
    std::sort(moments.begin(), moments.end(), [](const Moment &a, const Moment &b) {
      return a.when != b.when ? a.when < b.when : a.is_answer < b.is_answer;
    });
    asked_.resize(operations_.size());
    known_.push_back({INT64_MIN, 0});
    for (const Moment &moment : moments) {
      if (moment.is_answer) {
        answered(moment.operation);
      } else {
        asked(moment.operation);
      }
    }
  }

  static size_t life_at(const Machine &machine, int64_t when) {
    return static_cast<size_t>(std::upper_bound(machine.starts.begin(), machine.starts.end(), when) -
                               machine.starts.begin());
  }

  void asked(uint32_t i) {
    const Operation &operation = operations_[i];
    Machine &machine = machines_[machine_of(operation.number)];
    Asked &asked = asked_[i];
    asked.version = known_.back().version;
    asked.life = life_at(machine, operation.invoked);
    if (asked.life != machine.life) machine = {.starts = std::move(machine.starts), .life = asked.life, .version = 0};
    asked.memory = machine.version;
  }

  // know notes that `version` was there when the operation was answered, and in the memory of its machine.
  void know(const Operation &operation, const Asked &asked, uint64_t version) {
    if (version > known_.back().version) known_.push_back({operation.answered, version});
    Machine &machine = machines_[machine_of(operation.number)];
    const bool is_of_one_life = asked.life == machine.life && asked.life == life_at(machine, operation.answered);
    if (is_of_one_life) machine.version = std::max(machine.version, version);
  }

  uint64_t known_at(int64_t when) const {
    const auto behind = std::upper_bound(known_.begin(), known_.end(), when,
                                         [](int64_t time, const Known &known) { return time <= known.when; });
    return behind == known_.begin() ? 0 : std::prev(behind)->version;
  }

  // found_within gives the first version of `from` to `to` in which the key's content is as it should be; nothing when
  // there is none.
  template <typename Wanted>
  std::optional<uint64_t> found_within(uint16_t key, uint64_t from, uint64_t to, Wanted wanted) const {
    static const std::vector<Held> kNever;
    const auto found = held_.find(key);
    const std::vector<Held> &held = found == held_.end() ? kNever : found->second;
    auto next = std::upper_bound(held.begin(), held.end(), from,
                                 [](uint64_t version, const Held &one) { return version < one.from; });
    if (wanted(next == held.begin() ? 0 : std::prev(next)->content) && from <= to) return from;
    for (; next != held.end() && next->from <= to; ++next) {
      if (wanted(next->content)) return next->from;
    }
    return std::nullopt;
  }

  static bool overlaps(const std::vector<Span> &spans, unsigned machine, int64_t from, int64_t to) {
    return std::any_of(spans.begin(), spans.end(), [&](const Span &span) {
      return (span.machine == 0 || span.machine == machine) && span.from <= to && from <= span.to;
    });
  }

  void answered(uint32_t i) {
    const Operation &operation = operations_[i];
    if (is_change(operation.kind)) {
      change_answered(operation, asked_[i], happened_[i]);
    } else {
      read_answered(operation, asked_[i]);
    }
    const bool failed = operation.is_unknown() || operation.result == KS_FW_COMM_ERROR;
    if (failed && !overlaps(run_.trouble, 0, operation.invoked, operation.answered)) ++findings_.failed_without_trouble;
  }

  void change_answered(const Operation &operation, const Asked &asked, uint64_t version) {
    const int64_t took = operation.answered - operation.invoked;
    const unsigned machine = machine_of(operation.number);
    if (!operation.exchange_failed && !overlaps(run_.frozen, machine, operation.invoked, operation.answered)) {
      findings_.slowest_change = std::max(findings_.slowest_change, took);
      if (took > run_.answered_within) wrong("it took too long: %s", words_of(operation).c_str());
    }
    if (version != 0 && version <= asked.version) {
      wrong("it is in version %llu, when %llu was there before it began: %s", shown(version), shown(asked.version),
            words_of(operation).c_str());
    }
    if (operation.is_unknown()) {
      ++findings_.unknown;
      return;
    }
    if (operation.result == KS_SUCCESS) {
      ++findings_.acknowledged;
      return know(operation, asked, version);
    }
    ++findings_.refused;
    const uint64_t latest = latest_at(operation.answered);
    const auto is_there = [](uint64_t content) { return content != 0; };
    const auto is_missing = [](uint64_t content) { return content == 0; };
    switch (operation.result) {
      case KS_FW_COMM_ERROR:
        return;
      case KS_NOT_FOUND:
        if (!found_within(operation.key, asked.version, latest, is_missing)) {
          wrong("it was there all the time: %s", words_of(operation).c_str());
        }
        return;
      case KS_INVALID_ARGS:
        if (operation.kind != Kind::kRename || !found_within(operation.other, asked.version, latest, is_there)) {
          wrong("its new name was free all the time: %s", words_of(operation).c_str());
        }
        return;
      case KS_STORE_FULL:
        if (!overlaps(run_.full, 0, operation.invoked, operation.answered)) {
          wrong("there was space: %s", words_of(operation).c_str());
        }
        return;
      default:
        wrong("nothing can be the reason for this: %s", words_of(operation).c_str());
    }
  }

  void read_answered(const Operation &operation, const Asked &asked) {
    if (operation.exchange_failed) return;
    ++findings_.reads;
    uint64_t content = operation.content;
    const bool tells_content = operation.kind == Kind::kRead;
    switch (operation.result) {
      case KS_SUCCESS:
        break;
      case KS_NOT_FOUND:
        content = 0;
        break;
      case KS_FW_COMM_ERROR:
        ++findings_.too_old;
        return;
      default:
        return wrong("nothing can be the reason for this: %s", words_of(operation).c_str());
    }
    const uint64_t from = std::max(asked.memory, known_at(operation.invoked - run_.max_age));
    const uint64_t to = latest_at(operation.answered);
    const auto is_it = [&](uint64_t held) { return tells_content ? held == content : (held != 0) == (content != 0); };
    const std::optional<uint64_t> found = found_within(operation.key, from, to, is_it);
    if (found) return know(operation, asked, *found);
    wrong("no version from %llu (%llu in memory) to %llu has %llx there: %s", shown(from), shown(asked.memory),
          shown(to), shown(content), words_of(operation).c_str());
  }

  const Run &run_;
  std::vector<Operation> operations_;  // by number
  std::vector<uint64_t> happened_;     // the version of each; 0: none
  std::unordered_map<uint16_t, std::vector<Held>> held_;
  std::map<uint64_t, std::vector<Event>> events_;  // by client
  uint64_t last_version_ = 0;
  std::vector<int64_t> earliest_;  // by version
  std::map<unsigned, Machine> machines_;
  std::vector<Asked> asked_;
  std::vector<Known> known_;  // grows in time and version
  Findings findings_;
};

}  // namespace

Findings check(const Run &run) {
  return Checking(run).check();
}

}  // namespace fleet_run
