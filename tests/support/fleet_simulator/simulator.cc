// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "fleet_simulator/simulator.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <map>
#include <memory>
#include <set>

#include "base/bytes.h"
#include "fleet_simulator/checker.h"
#include "fleet_simulator/engine_model.h"

namespace ksd::fleet {

thread_local Mutant mutant_in_force = Mutant::kNone;

namespace {

constexpr size_t kMachines = 3;
constexpr FleetId kFleet{1, 2, 3};
constexpr Time kMaxAge = 1s;
constexpr std::chrono::milliseconds kCountInterval = 600ms;
constexpr Time kBusyUntil = 2s;  // then all heals, and the fleet has to come together
constexpr Time kEnd = 4500ms;
constexpr Time kEndOfKeyChange = 12s;  // of a schedule with one: others take over what somebody began
constexpr std::array<Time, 2> kWriteWaits{300ms, 1s};
constexpr int kClients = 2;  // of each machine
constexpr std::array<const char *, 6> kNames{"a", "b", "c", "d", "e", "f"};
constexpr Ticket kAdministration = 1'000'000;  // tickets from here on aren't clients'
constexpr vault::Limits kLimits{.entries = 5, .entries_per_user = 3};

std::shared_ptr<const SecretBytes> master_key() {
  static const auto key = SecretBytes::copy_of(std::vector<uint8_t>(vault::kMasterKeySize, 7));
  return key;
}

std::shared_ptr<const SecretBytes> machine_key(uint64_t number) {
  return SecretBytes::copy_of(std::vector<uint8_t>(32, static_cast<uint8_t>(number)));
}

// AllKeys knows every master key that there ever was.
class AllKeys {
 public:
  AllKeys() { add(*master_key()); }
  void add(const SecretBytes &key) { sealers_.try_emplace(vault::key_id_of(key), key, kFleet); }

  std::shared_ptr<const SecretBytes> open(vault::RecordKind kind, uint64_t row, Bytes sealed) const {
    for (const auto &[id, sealer] : sealers_) {
      if (auto plain = sealer.open(kind, row, sealed)) return plain;
    }
    return nullptr;
  }

 private:
  std::map<vault::KeyId, vault::Sealer> sealers_;
};

// KeyModel is where a machine's master keys are over its lives.
class KeyModel final : public KeyKeeper {
 public:
  explicit KeyModel(AllKeys &all) : all_(all) {}

  KeyPtr present = master_key(), next;
  bool is_full = false;

  bool holds(const vault::KeyId &key) const {
    return vault::key_id_of(*present) == key || (next != nullptr && vault::key_id_of(*next) == key);
  }
  std::string keep_next(const SecretBytes &key, const SecretBytes &fleets) override {
    if (is_full || vault::key_id_of(fleets) != vault::key_id_of(*present)) return "there is no room";
    next = SecretBytes::copy_of(key.bytes());
    all_.add(key);
    return "";
  }
  std::string use(const SecretBytes &key) override {
    present = SecretBytes::copy_of(key.bytes());
    next.reset();
    return "";
  }

 private:
  AllKeys &all_;
};

EntryName entry_of(const std::string &name) {
  return {.tag = KS_NAME_TAG_SECRET, .vdc_id = 7, .name = name};
}

// Machine is one machine through its lives.
class Machine final : public Readers {
 public:
  Machine(std::string name, Events &events, StoreModel &store, Random &random,
          std::function<void(const Commit &)> executed, AllKeys &all_keys)
      : link(events, store, random, std::move(executed)),
        keys(all_keys),
        name_(std::move(name)),
        events_(events),
        random_(random) {}

  LinkModel link;
  KeyModel keys;
  std::unique_ptr<Core> core;  // null: the machine is down
  std::function<void(Ticket, KsResult)> answered;
  Time write_wait = 1s;
  std::vector<Ticket> decided;    // in the order of the last group
  std::vector<Ticket> confirmed;  // if the group before, which was answered now, wrote nothing
  std::map<std::vector<uint8_t>, std::vector<Ticket>> commits;  // by their headers
  std::vector<KeyValue> written;                                // rows that it has sent, whatever became of them
  uint64_t life = 0;
  uint64_t version_read = 0;    // in this life
  uint64_t incarnation = 0;     // that it has known of in this life; 0: of none
  std::set<uint64_t> accepted;  // those that it was told of in this life, or has made
  uint64_t loads = 0;

  const std::string &name() const { return name_; }
  const PublicKey &public_key() const { return public_key_; }

  // take_key gives it the key of its own by which a fleet knows it.
  void take_key(KeyPtr key) {
    own_key_ = std::move(key);
    public_key_ = public_key_of(own_key_.get());
  }

  void start(CoreOptions options, std::optional<Core::Kept> kept) {
    options.machine = name_;
    // A mirror that is sealed under the next key is from behind the change.
    const bool is_past = kept && keys.next != nullptr && kept->whole.header.key == vault::key_id_of(*keys.next);
    options.master_key = is_past ? keys.next : keys.present;
    options.next_key = is_past ? nullptr : keys.next;
    options.machine_key = own_key_;
    options.keeper = &keys;
    options.max_age = std::chrono::duration_cast<std::chrono::milliseconds>(kMaxAge);
    options.count_interval = kCountInterval;
    options.write_wait = std::chrono::duration_cast<std::chrono::milliseconds>(write_wait);
    ++life;
    version_read = 0;
    accepted.clear();
    incarnation = kept ? kept->whole.header.header.incarnation : 0;
    core = std::make_unique<Core>(std::move(options), owners_, *this);
    link.use([this](Report report) {
      if (core) call([&] { core->take(events_.now(), std::move(report)); });
    });
    call([&] { core->begin(events_.now(), std::move(kept)); });
  }

  std::optional<Core::Kept> kill(bool keeps) {
    std::optional<Core::Kept> kept;
    if (keeps && core && core->memory().is_filled() && core->readable_until()) {
      const Memory &memory = core->memory();
      // {}: Clang 14 has no emplace() for a nested class with default member initializers.
      kept.emplace(Core::Kept{});
      kept->whole.state = memory.state();
      kept->whole.header = {
          .header = memory.header(), .hash = memory.hash(), .fleet = kFleet, .revision = 0, .key = memory.key_id()};
      const Time age = events_.now() - (*core->readable_until() - kMaxAge);
      kept->age = std::chrono::duration_cast<std::chrono::milliseconds>(age) + 1ms;
    }
    if (core) loads += core->counts().loads;
    core.reset();
    link.use(nullptr);
    return kept;
  }

  void change(Ticket ticket, const Operation &operation) {
    const vault::Decide decide = decision(operation);
    call([&] {
      core->change(events_.now(), ticket, [this, ticket, decide](vault::Group &group) {
        decided.push_back(ticket);
        return decide(group);
      });
    });
  }

  bool is_of_clients(const Commit &commit) const {
    if (commit.puts.empty() || commit.puts.front().key != kHeaderKey) return false;
    return core->restoring() == nullptr || !core->restoring()->has_sent(commit.puts.front().value);
  }

  // call does one step of the core, and all that comes of it.
  template <typename Step>
  void call(Step step) {
    decided.clear();
    step();
    const std::vector<Answer> answers = core->take_answers();
    confirmed = last_decided_;
    if (!decided.empty()) last_decided_ = decided;
    for (const Request &request : core->take_requests()) {
      if (const auto *commit = std::get_if<Commit>(&request); commit != nullptr && is_of_clients(*commit)) {
        commits.try_emplace(commit->puts.front().value, decided);
        last_decided_.clear();
        written.insert(written.end(), commit->puts.begin() + 1, commit->puts.end());
      }
      link.send(request);
    }
    for (const Answer &answer : answers) answered(answer.ticket, answer.result);
    if (!keys_in_place() && random_.one_in(3)) keys.use(*core->memory().master_key());
    plan_tick();
  }

 private:
  static vault::Decide decision(const Operation &operation) {
    using Kind = Operation::Kind;
    const EntryName name = entry_of(operation.name);
    switch (operation.kind) {
      case Kind::kPut: {
        const std::optional<EntryName> alias =
            operation.other.empty() ? std::nullopt : std::optional(entry_of(operation.other));
        return vault::decide_put(name, alias, bytes_of(operation.value), bytes_of("of " + operation.value),
                                 operation.owner);
      }
      case Kind::kMetadata:
        return vault::decide_metadata(name, bytes_of(operation.value));
      case Kind::kRemove:
        return vault::decide_remove(name);
      case Kind::kRename:
        break;
    }
    return vault::decide_rename(name, entry_of(operation.other));
  }

  bool keys_in_place() const { return core->memory().key_id() == vault::key_id_of(*keys.present); }

  void plan_tick() {
    const Time next = std::max(core->next_tick(), events_.now() + 1ms);
    if (next >= kEndOfKeyChange * 2 || (tick_at_ > events_.now() && tick_at_ <= next && tick_life_ == life)) return;
    tick_at_ = next;
    tick_life_ = life;
    events_.at(next, [this, next, now_living = life] {
      if (!core || life != now_living || tick_at_ != next) return;
      tick_at_ = Time{};
      call([&] { core->tick(events_.now()); });
    });
  }

  void lock() override {}
  void unlock() override {}
  void shown(const std::vector<uint64_t> &, const vault::RowChanges *) override {}

  const std::string name_;
  Events &events_;
  Random &random_;
  Owners owners_{{{1, "one"}, {2, "two"}}};
  KeyPtr own_key_;
  PublicKey public_key_{};  // of it: whoever asks often shouldn't compute it each time
  std::vector<Ticket> last_decided_;
  uint64_t tick_life_ = 0;
  Time tick_at_{};
};

class Simulation {
 public:
  explicit Simulation(const Schedule &schedule)
      : schedule_(schedule),
        random_(schedule.seed),
        write_wait_(kWriteWaits[random_.below(kWriteWaits.size())]),
        checker_(kLimits, write_wait_, events_) {
    mutant_in_force = schedule.mutant;
    for (size_t i = 0; i < kMachines; ++i) {
      machines_.push_back(std::make_unique<Machine>(
          std::string(1, static_cast<char>('x' + i)), events_, store_, random_,
          [this](const Commit &commit) { executed(commit); }, all_keys_));
      machines_[i]->take_key(machine_key(i + 1));
      machines_[i]->write_wait = write_wait_;
      machines_[i]->answered = [this, i](Ticket ticket, KsResult result) { answered(i, ticket, result); };
    }
  }
  ~Simulation() { mutant_in_force = Mutant::kNone; }

  Outcome run() {
    plan();
    while (checker_.violation().empty() && events_.step(end_)) {
    }
    if (checker_.violation().empty()) look_at_the_end();
    outcome_.violation = checker_.violation();
    for (const auto &machine : machines_) {
      outcome_.lost_deletes += machine->link.lost_deletes;
      outcome_.loads += machine->loads + (machine->core ? machine->core->counts().loads : 0);
    }
    outcome_.trace = trace_;
    return outcome_;
  }

 private:
  // note makes an event part of the trace. What is drawn anew in each run, such as nonces, never is.
  void note(const std::string &what) {
    for (const char c : what) trace_ = (trace_ ^ static_cast<uint8_t>(c)) * 0x100000001b3;
    trace_ = (trace_ ^ static_cast<uint64_t>(events_.now().count())) * 0x100000001b3;
    if (schedule_.tells)
      std::fprintf(stderr, "%9.3f ms %s\n", static_cast<double>(events_.now() / 1us) / 1000, what.c_str());
  }

  void plan() {
    const bool is_calm = random_.one_in(4);
    for (auto &machine : machines_) {
      if (is_calm) machine->link.weather = {.slow_one_in = 0, .lost_one_in = 0, .doubled_one_in = 0};
      machine->link.lose_deletes = random_.one_in(2);
    }
    for (size_t i = 0; i < kMachines; ++i) {
      start(i, {});
      for (int client = 0; client < kClients; ++client) next_change(i, random_.between(10ms, 400ms));
    }
    const uint64_t mishaps = is_calm ? 0 : random_.below(6);
    for (uint64_t i = 0; i < mishaps; ++i) {
      events_.at(random_.between(100ms, kBusyUntil), [this] { mishap(); });
    }
    const bool will_restore = random_.one_in(3);
    if (will_restore) {
      for (uint64_t i = random_.below(3); i < 3; ++i) {
        events_.at(random_.between(300ms, kBusyUntil), [this] { back_up(); });
      }
      for (Time at = kBusyUntil; at < kEnd; at += 200ms) {
        events_.at(at, [this] { accept_all(); });
      }
    }
    will_tamper_ = !will_restore && random_.one_in(3);
    if (will_tamper_) events_.at(random_.between(500ms, kBusyUntil), [this] { tamper(); });
    is_calm_ = is_calm;
    if (random_.one_in(4)) plan_administration();
    for (Time at = 150ms; at < end_; at += random_.between(50ms, 600ms)) {
      events_.at(at, [this] { read_all(); });
    }
    events_.at(kBusyUntil, [this] { heal(); });
  }

  // plan_administration has administrators change the master key, maybe several at once, and machines leave.
  void plan_administration() {
    end_ = kEndOfKeyChange;
    const uint64_t changes = random_.below(3);
    const Time first = random_.between(100ms, kBusyUntil);
    for (uint64_t i = 0; i < changes; ++i) {
      events_.at(random_.one_in(2) ? first : random_.between(100ms, kBusyUntil),
                 [this, index = random_.below(kMachines)] { change_key(index); });
    }
    // Machines that have come in the meantime need to be given the key, too.
    for (const Time again : {3s, 5s, 7s}) {
      events_.at(again, [this] {
        for (size_t i = 0; i < kMachines; ++i) {
          if (machines_[i]->core && machines_[i]->core->key_change().change) change_key(i);
        }
      });
    }
    if (random_.one_in(3)) {
      events_.at(random_.between(200ms, kBusyUntil),
                 [this] { leave(random_.below(kMachines), random_.below(kMachines)); });
    }
    if (random_.one_in(4)) {
      KeyModel &keys = machines_[random_.below(kMachines)]->keys;
      keys.is_full = true;
      events_.at(kBusyUntil, [&keys] { keys.is_full = false; });
    }
  }

  void change_key(size_t index) {
    Machine &machine = *machines_[index];
    if (!machine.core) return;
    const std::optional<Fingerprint> compared = machine.core->key_change().machines;
    if (!compared) return;
    note(fmt::format("{} is to change the master key", index));
    machine.call([&] { machine.core->change_key(events_.now(), kAdministration + ++last_asked_, *compared); });
  }

  void leave(size_t index, size_t leaver) {
    Machine &machine = *machines_[index];
    if (!machine.core) return;
    note(fmt::format("{} is to take out {}", index, leaver));
    machine.call(
        [&] { machine.core->leave(events_.now(), kAdministration + ++last_asked_, machines_[leaver]->name(), true); });
    if (random_.one_in(2)) return;
    // Another machine comes in its place, or it comes back as it was.
    const bool is_another = random_.one_in(2);
    events_.after(random_.between(100ms, 1s), [this, leaver, is_another] {
      Machine &again = *machines_[leaver];
      if (!is_departed(leaver) || tampered_) return;
      again.kill(false);
      if (is_another) {
        again.take_key(machine_key(leaver + 10));
        again.keys.use(*key_of_fleet());
      }
      start(leaver, {});
      for (int client = 0; client < kClients; ++client) next_change(leaver, random_.between(1ms, 300ms));
    });
  }

  // is_departed tells whether a machine has left, as it is now.
  bool is_departed(size_t index) const {
    const Machine &machine = *machines_[index];
    return std::ranges::any_of(header_.departed, [&](const WriterMark &mark) {
      return mark.machine == machine.name() && mark.public_key == machine.public_key();
    });
  }

  // is_excused tells whether a machine need not follow: it has left, or wasn't there yet when the key was changed.
  bool is_excused(size_t index) const {
    return is_departed(index) || (header_.mark_of(machines_[index]->name()) == nullptr && key_of_header_ != first_key_);
  }

  KeyPtr key_of_fleet() const {
    for (const auto &machine : machines_) {
      if (vault::key_id_of(*machine->keys.present) == key_of_header_) return machine->keys.present;
      if (machine->keys.holds(key_of_header_)) return machine->keys.next;
    }
    return master_key();
  }

  void start(size_t index, std::optional<Core::Kept> kept) {
    CoreOptions options{.session = random_.next(), .fleet = kFleet, .make = kFleet, .limits = kLimits};
    note(fmt::format("{} starts{}", index, kept ? " with a mirror" : ""));
    machines_[index]->start(std::move(options), std::move(kept));
  }

  // Backup is what a machine had once.
  struct Backup {
    std::vector<vault::RowPtr> rows;
    vault::Header header;
    PlainTable table;
  };

  // back_up takes one, which some machine restores later.
  void back_up() {
    const Machine &machine = *machines_[random_.below(kMachines)];
    const size_t restorer = random_.below(kMachines);
    const Time wait = random_.between(1ms, 600ms);
    if (!machine.core || !machine.core->readable(events_.now())) return;
    const Memory &memory = machine.core->memory();
    Backup backup{.rows = memory.state().table.rows(),
                  .header = memory.state().header,
                  .table = checker_.table_at(memory.header().version)};
    std::ranges::sort(backup.rows, {}, [](const vault::RowPtr &row) { return row->id; });
    events_.after(wait, [this, restorer, backup] { restore(restorer, backup); });
    // Now and then two operators do it at once.
    const Time meanwhile = wait + random_.between(1ms, 25ms);
    const size_t other = (restorer + 1) % kMachines;
    if (random_.one_in(2)) events_.after(meanwhile, [this, other, backup] { restore(other, backup); });
  }

  void restore(size_t index, const Backup &backup) {
    Machine &machine = *machines_[index];
    const uint64_t folder = random_.next();
    if (!machine.core || events_.now() >= kBusyUntil) return;
    note(fmt::format("{} restores {} rows", index, backup.rows.size()));
    ++outcome_.restores;
    backups_.emplace(folder, std::pair(index, backup.table));
    machine.call([&] {
      machine.core->restore(events_.now(), {.rows = backup.rows,
                                            .last_id = backup.header.last_id,
                                            .last_version = backup.header.last_version,
                                            .fleet = kFleet,
                                            .folder = folder,
                                            .incarnation = 0});
    });
  }

  // accept_all is an operator who tells each machine that has stopped at a restore that it was meant.
  void accept_all() {
    for (size_t i = 0; i < kMachines; ++i) accept(i);
  }
  void accept(size_t index) {
    Machine &machine = *machines_[index];
    if (!machine.core || machine.core->restored_to() == 0) return;
    const uint64_t incarnation = machine.core->restored_to();
    machine.accepted.insert(incarnation);
    note(fmt::format("{} is told of incarnation {}", index, incarnation));
    machine.call([&] { machine.core->accept(events_.now(), incarnation); });
  }

  // switched follows a header that has another folder than the one before.
  void switched(const FleetHeader &header, const KeyValue &stored) {
    const auto backup = backups_.find(header.folder);
    if (backup == backups_.end()) return checker_.fail("a fleet was restored from no backup");
    const auto &[restorer, table] = backup->second;
    note(fmt::format("restored by {}, version {}", restorer, header.version));
    ++outcome_.restored;
    std::vector<PlainRow> rows;
    for (const auto &[key, value] : store_.live()) {
      const std::optional<RowPlace> place = row_place(key);
      const std::optional<PlainRow> row = place && place->folder == header.folder ? opened(value) : std::nullopt;
      if (row) rows.push_back(*row);
    }
    checker_.restored(header, hash_of(stored.value), table, rows);
    restored_at_ = events_.now();
    machines_[restorer]->accepted.insert(header.incarnation);
    for (size_t i = 0; i < kMachines; ++i) {
      if (random_.one_in(2)) events_.after(random_.between(1ms, 1s), [this, i] { accept(i); });
    }
  }

  // look_at_incarnation finds a machine that follows a restore without having been told. One that knew nothing takes
  // what is there.
  void look_at_incarnation(size_t index) {
    Machine &machine = *machines_[index];
    if (!machine.core->memory().is_filled()) return;
    const uint64_t now = machine.core->memory().header().incarnation;
    const bool is_later = machine.incarnation != 0 && now > machine.incarnation;
    if (is_later && !machine.accepted.contains(now)) checker_.fail(fmt::format("{} follows a restore unasked", index));
    machine.incarnation = now;
  }

  // Each client asks for one change after the other.
  void next_change(size_t index, Time wait) {
    events_.after(wait, [this, index] {
      if (events_.now() >= kBusyUntil) return;
      if (!machines_[index]->core) return next_change(index, 200ms);
      Operation operation = draw();
      operation.machine = index;
      operation.life = machines_[index]->life;
      operation.invoked = events_.now();
      operation.version_when_invoked = checker_.version();
      const Ticket ticket = checker_.operations.size();
      operation.value = fmt::format("v{}", ticket);
      note(fmt::format("{} asks for {}: {} {} {}", index, ticket, static_cast<int>(operation.kind), operation.name,
                       operation.other));
      checker_.operations.push_back(operation);
      machines_[index]->change(ticket, operation);
    });
  }

  Operation draw() {
    using Kind = Operation::Kind;
    constexpr std::array kKinds{Kind::kPut, Kind::kPut, Kind::kPut, Kind::kMetadata, Kind::kRemove, Kind::kRename};
    Operation operation;
    operation.kind = kKinds[random_.below(kKinds.size())];
    operation.name = kNames[random_.below(kNames.size())];
    operation.owner = random_.one_in(3) ? 2 : 1;
    const bool has_other = operation.kind == Kind::kRename || (operation.kind == Kind::kPut && random_.one_in(4));
    if (has_other) operation.other = kNames[random_.below(kNames.size())];
    return operation;
  }

  void answered(size_t index, Ticket ticket, KsResult result) {
    note(fmt::format("{} answers {}: {}", index, ticket, result));
    if (ticket >= kAdministration) return;
    checker_.answered(ticket, result, *machines_[index]->core, machines_[index]->confirmed);
    checker_.read(*machines_[index]->core, kMaxAge, machines_[index]->version_read);
    look_at_incarnation(index);
    const bool is_acknowledged = result == KS_SUCCESS;
    outcome_.changes += is_acknowledged;
    outcome_.unknown += result == KS_TIMEOUT;
    outcome_.refused += !is_acknowledged && result != KS_TIMEOUT;
    next_change(index, random_.between(1ms, 500ms));
  }

  // executed follows each change of the store.
  void executed(const Commit &commit) {
    for (auto &machine : machines_) machine->link.store_changed();
    if (commit.puts.empty() || commit.puts.front().key != kHeaderKey) {  // a heartbeat, or a step of a restore
      const auto is_of_fleet = [this](const std::string &key) {
        const std::optional<RowPlace> place = row_place(key);
        return place && place->folder == checker_.folder();
      };
      const bool changes_rows = std::ranges::any_of(commit.deletes, is_of_fleet) ||
                                std::ranges::any_of(commit.puts, is_of_fleet, &KeyValue::key);
      if (changes_rows) checker_.fail("a restore changes rows of the fleet");
      return;
    }
    if (will_tamper_ && !tampered_) {
      snapshots_.push_back(store_);
      if (snapshots_.size() > 6) snapshots_.erase(snapshots_.begin());
    }
    const std::optional<HeaderFront> front = header_front(commit.puts.front().value);
    const auto plain = front ? all_keys_.open(vault::RecordKind::kFleetHeader, 0, front->sealed) : nullptr;
    const std::optional<FleetHeader> header = plain ? decode_header(plain->bytes()) : std::nullopt;
    if (!header) return checker_.fail("a header doesn't open");
    // What was under way when the store was set back may be made once more. No machine takes it for good.
    if (tampered_ && header->version <= checker_.version()) return;
    look_at_machines(*header, front->key);
    if (header->folder != checker_.folder()) return switched(*header, commit.puts.front());
    std::vector<PlainRow> rows;
    for (size_t i = 1; i < commit.puts.size(); ++i) {
      if (!commit.puts[i].key.starts_with(kRowFolder)) continue;
      const std::optional<PlainRow> row = opened(commit.puts[i]);
      if (!row) return checker_.fail("a row doesn't open");
      rows.push_back(*row);
    }
    for (const auto &machine : machines_) {
      const auto found = machine->commits.find(commit.puts.front().value);
      if (found == machine->commits.end()) continue;
      note(fmt::format("version {} at revision {}", header->version, store_.revision()));
      checker_.happened(commit, *header, rows, found->second);
      // What a machine writes over may be just what was tampered with.
      if (tampered_) healed_ = healed_ || is_whole();
      return;
    }
    checker_.fail("there is a commit of nobody's");
  }

  // look_at_machines compares a header with the one before it, as to machines and keys.
  void look_at_machines(const FleetHeader &header, const vault::KeyId &key) {
    for (const WriterMark &mark : header.writers) {
      const WriterMark *departed = header_.departed_mark_of(mark.machine);
      if (departed != nullptr && departed->public_key == mark.public_key) {
        checker_.fail(fmt::format("{} is back, who has left", mark.machine));
      }
    }
    const bool needs_next = key != key_of_header_ || (header.key_change && header.key_change->moved != 0);
    const vault::KeyId &needed = header.key_change ? header.key_change->key_id : key;
    for (size_t i = 0; i < kMachines && needs_next; ++i) {
      if (header.mark_of(machines_[i]->name()) == nullptr || machines_[i]->keys.holds(needed)) continue;
      checker_.fail(fmt::format("rows are sealed under a key that {} doesn't hold", i));
    }
    outcome_.key_changes += key != key_of_header_;
    header_ = header;
    key_of_header_ = key;
  }

  std::optional<PlainRow> opened(const KeyValue &stored) const {
    const std::optional<RowPlace> place = row_place(stored.key);
    const auto plain = place ? all_keys_.open(vault::RecordKind::kFleetRow, place->id, stored.value) : nullptr;
    const std::optional<DecodedRow> decoded = plain ? decode_row(place->id, plain->bytes()) : std::nullopt;
    if (!decoded) return std::nullopt;
    const vault::EntryRow &row = decoded->row;
    return PlainRow{.id = place->id,
                    .name = row.name.name,
                    .alias = row.alias ? row.alias->name : "",
                    .value = {row.secret->bytes().begin(), row.secret->bytes().end()},
                    .metadata = {row.metadata->begin(), row.metadata->end()},
                    .owner = decoded->owner == "one" ? 1u : 2u};
  }

  void read_all() {
    for (size_t i = 0; i < kMachines; ++i) {
      const auto &machine = machines_[i];
      if (!machine->core) continue;
      look_at_incarnation(i);
      ++outcome_.reads;
      checker_.read(*machine->core, kMaxAge, machine->version_read);
      const Standing standing = machine->core->standing(events_.now());
      if (!tampered_ && !is_excused(i) && lasts(standing) && standing != Standing::kRestored) {
        checker_.fail(fmt::format("a machine found tampering where there was none: {}", machine->core->why()));
      }
    }
  }

  void mishap() {
    if (events_.now() >= kBusyUntil) return;
    const size_t index = random_.below(kMachines);
    Machine &machine = *machines_[index];
    switch (random_.below(8)) {
      case 0:
      case 1:
        note(fmt::format("{} is cut off", index));
        machine.link.go_down();
        events_.after(random_.between(10ms, 4s), [this, index] { come_up(index); });
        return;
      case 2:
        note("all are cut off");
        for (size_t i = 0; i < kMachines; ++i) {
          machines_[i]->link.go_down();
          events_.after(random_.between(100ms, 4s), [this, i] { come_up(i); });
        }
        return;
      case 3: {
        if (!machine.core) return;
        // After tampering, one that remembers nothing can't know what there was.
        const bool keeps = tampered_ || random_.one_in(2);
        note(fmt::format("{} is killed", index));
        std::optional<Core::Kept> kept = machine.kill(keeps);
        if (tampered_ && !kept) return;
        events_.after(random_.between(1ms, 1s), [this, index, kept = std::move(kept)]() mutable {
          if (kept) kept->age += 1s;  // at least as much as it was down
          start(index, std::move(kept));
          for (int client = 0; client < kClients; ++client) next_change(index, random_.between(1ms, 300ms));
        });
        return;
      }
      case 4:
      case 5:
        note(fmt::format("the engine of {} dies", index));
        if (random_.one_in(3)) {
          machine.link.die();
        } else {
          machine.link.die_at_next_commit();
        }
        return;
      case 6:
        note("compaction");
        store_.compact(store_.revision() - std::min(store_.revision(), random_.below(4)));
        return;
      default: {
        note("the store is full");
        checker_.was_refused_for_space = true;
        for (auto &one : machines_) one->link.full = true;
        events_.after(random_.between(10ms, 2s), [this] {
          for (auto &one : machines_) one->link.full = false;
        });
      }
    }
  }

  void come_up(size_t index) {
    note(fmt::format("{} is back", index));
    machines_[index]->link.come_up();
  }

  void heal() {
    note("all heals");
    for (size_t i = 0; i < kMachines; ++i) {
      machines_[i]->link.weather = {.slow_one_in = 0, .lost_one_in = 0, .doubled_one_in = 0};
      machines_[i]->link.full = false;
      machines_[i]->link.die_at_next_commit(false);
      come_up(i);
    }
  }

  // is_whole tells whether the store holds what the machines have made.
  bool is_whole() const {
    const PlainTable &table = checker_.table();
    size_t rows = 0;
    for (const auto &[key, value] : store_.live()) {
      if (!key.starts_with(kRowFolder)) continue;
      const std::optional<PlainRow> row = opened(value);
      const std::optional<RowPlace> place = row_place(key);
      if (!row || !place || place->id != row->id) return false;
      if (std::count(table.rows.begin(), table.rows.end(), *row) == 0) return false;
      ++rows;
    }
    return rows == table.rows.size();
  }

  // tamper does to the store what only who controls it can. Machines that are there have to notice.
  void tamper() {
    if (events_.now() >= kBusyUntil || snapshots_.size() < 3) return;
    std::vector<KeyValue> rows;
    for (const auto &[key, value] : store_.live()) {
      if (key.starts_with(kRowFolder)) rows.push_back(value);
    }
    const StoreModel old = snapshots_[random_.below(snapshots_.size() - 2)];
    const uint64_t kind = random_.below(8);
    // Who doesn't know of what is taken back can't miss it.
    const bool all_know = std::all_of(machines_.begin(), machines_.end(), [&](const auto &machine) {
      return machine->core && machine->core->memory().is_filled() &&
             machine->core->memory().header().version + 1 >= checker_.version();
    });
    if (kind >= 4 && !all_know) return;
    const std::map<std::string, KeyValue> live = store_.live();
    switch (kind) {
      case 0: {  // a row as it was, or as it never came to be
        std::vector<KeyValue> others;
        for (const auto &machine : machines_) {
          for (const KeyValue &value : machine->written) {
            if (row_place(value.key) && live.contains(value.key) && opened(live.at(value.key)) != opened(value))
              others.push_back(value);
          }
        }
        if (others.empty()) return;
        store_.change({others[random_.below(others.size())]}, {});
        break;
      }
      case 1:  // a row less
        if (rows.empty()) return;
        store_.change({}, {rows[random_.below(rows.size())].key});
        break;
      case 2:  // a row in the place of another
        if (rows.size() < 2) return;
        rows[1].value = rows[0].value;
        store_.change({rows[1]}, {});
        break;
      case 3:  // a row less, and nobody is told
        if (rows.empty()) return;
        store_.forget(rows[random_.below(rows.size())].key);
        break;
      case 4:  // the header of before
        store_.change({*old.header()}, {});
        break;
      case 5: {  // header and rows of before
        std::vector<KeyValue> puts;
        std::vector<std::string> deletes;
        for (const auto &[key, value] : old.live()) {
          if (!key.starts_with(kBeatFolder)) puts.push_back(value);
        }
        for (const auto &[key, value] : live) {
          if (key.starts_with(kRowFolder) && !old.live().contains(key)) deletes.push_back(key);
        }
        store_.change(std::move(puts), std::move(deletes));
        break;
      }
      case 6:  // a snapshot
        store_.set_back(StoreModel(old));
        break;
      default:
        store_.change({}, {kHeaderKey});
    }
    note(fmt::format("tampering of kind {}", kind));
    tampered_ = true;
    ++outcome_.tampered;
    for (size_t i = 0; i < kMachines; ++i) {
      Machine &machine = *machines_[i];
      machine.link.store_changed();
      if (!is_calm_ || !machine.core) continue;  // others have until the end
      events_.after(1s, [this, i, life = machine.life] {
        const Machine &now = *machines_[i];
        if (now.core && now.life == life) look_for_finding(i);
      });
    }
  }

  void look_for_finding(size_t index) {
    // Its watch may have left out just the delete that was the tampering. The next load would find it.
    if (machines_[index]->link.lost_deletes != 0) return;
    if (healed_ || is_excused(index) || lasts(machines_[index]->core->standing(events_.now()))) return;
    checker_.fail(fmt::format("{} noticed no tampering", index));
  }

  void look_at_the_end() {
    checker_.ended();
    const bool is_just_restored = restored_at_ && events_.now() - *restored_at_ < 1s;  // by one that was held up long
    for (size_t i = 0; i < kMachines; ++i) {
      const Core *core = machines_[i]->core.get();
      if (core == nullptr) continue;
      if (tampered_) {
        look_for_finding(i);
        continue;
      }
      if (is_just_restored) continue;
      if (is_departed(i) && !core->readable(events_.now())) continue;
      if (is_excused(i) && lasts(core->standing(events_.now()))) continue;
      if (core->key_change().change) {
        checker_.fail(fmt::format("the change of the key isn't over: {} waits", i));
      }
      if (core->standing(events_.now()) == Standing::kLoading || !core->readable(events_.now())) {
        checker_.fail(fmt::format("{} doesn't come back", i));
      } else if (core->memory().header().version != checker_.version()) {
        checker_.fail(
            fmt::format("{} stays at version {} of {}", i, core->memory().header().version, checker_.version()));
      }
    }
    for (size_t i = 0; i < checker_.operations.size(); ++i) {
      const Operation &operation = checker_.operations[i];
      const Machine &machine = *machines_[operation.machine];
      const bool should_be = machine.core != nullptr && machine.life == operation.life;
      if (should_be && !operation.is_answered) checker_.fail(fmt::format("change {} was never answered", i));
    }
  }

  const Schedule schedule_;
  Events events_;
  Random random_;
  const Time write_wait_;
  StoreModel store_;
  Checker checker_;
  AllKeys all_keys_;
  std::vector<std::unique_ptr<Machine>> machines_;
  std::vector<StoreModel> snapshots_;
  std::map<uint64_t, std::pair<size_t, PlainTable>> backups_;  // that are restored, by folder; and by whom
  bool is_calm_ = false, will_tamper_ = false, tampered_ = false, healed_ = false;
  std::optional<Time> restored_at_;
  Time end_ = kEnd;
  Ticket last_asked_ = 0;
  FleetHeader header_;  // the last one
  const vault::KeyId first_key_ = vault::key_id_of(*master_key());
  vault::KeyId key_of_header_ = first_key_;
  uint64_t trace_ = 0xcbf29ce484222325;
  Outcome outcome_;
};

}  // namespace

void Outcome::add(const Outcome &other) {
  changes += other.changes;
  refused += other.refused;
  unknown += other.unknown;
  reads += other.reads;
  loads += other.loads;
  lost_deletes += other.lost_deletes;
  tampered += other.tampered;
  restored += other.restored;
  restores += other.restores;
  key_changes += other.key_changes;
  if (violation.empty()) violation = other.violation;
}

Outcome run(const Schedule &schedule) {
  return Simulation(schedule).run();
}

Shares contend(uint64_t seed, Mutant mutant) {
  constexpr Time kLong = 1500ms;
  constexpr Weather kNear{.shortest = 200us, .longest = 600us, .slow_one_in = 0, .lost_one_in = 0, .doubled_one_in = 0};
  constexpr Weather kFar{.shortest = 5ms, .longest = 7ms, .slow_one_in = 0, .lost_one_in = 0, .doubled_one_in = 0};
  mutant_in_force = mutant;
  Random random(seed);
  Events events;
  StoreModel store;
  AllKeys all_keys;
  std::vector<std::unique_ptr<Machine>> machines;
  std::array<uint64_t, kMachines> made{};
  std::map<Ticket, Time> asked;  // by the machine and the client, which has one change at a time
  Time longest{};
  const auto ask = [&](Ticket ticket) {
    asked[ticket] = events.now();
    Operation operation;
    operation.name = fmt::format("n{}", ticket);
    operation.value = fmt::format("{}", events.now().count());
    machines[ticket % kMachines]->change(ticket, operation);
  };
  for (size_t i = 0; i < kMachines; ++i) {
    machines.push_back(std::make_unique<Machine>(
        std::string(1, static_cast<char>('x' + i)), events, store, random,
        [&](const Commit &) {
          for (auto &one : machines) one->link.store_changed();
        },
        all_keys));
    Machine &machine = *machines.back();
    machine.link.weather = i == 0 ? kFar : kNear;
    machine.answered = [&, i](Ticket ticket, KsResult result) {
      made[i] += result == KS_SUCCESS;
      if (i == 0) longest = std::max(longest, events.now() - asked[ticket]);
      events.after(50us, [&, ticket] { ask(ticket); });
    };
    CoreOptions options{.session = random.next(), .fleet = kFleet, .make = kFleet};
    machine.start(std::move(options), {});
  }
  for (Ticket ticket = 0; ticket < 8 * kMachines; ++ticket) events.at(500ms, [&, ticket] { ask(ticket); });
  while (events.step(kLong)) {
  }
  mutant_in_force = Mutant::kNone;
  for (const auto &[ticket, when] : asked) {
    if (ticket % kMachines == 0) longest = std::max(longest, kLong - when);  // or has taken so far
  }
  return {.far = made[0], .near = (made[1] + made[2]) / 2, .longest_ms = longest / 1ms};
}

}  // namespace ksd::fleet
