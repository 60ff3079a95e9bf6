// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// The core by hand, where a schedule would meet a case once in ten thousand times.
#include "fleet/core.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <functional>
#include <map>

#include "fixture.h"
#include "fleet_simulator/engine_model.h"
#include "vault_files/vault_files.h"

namespace ksd::fleet {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using vault::bytes_of;
using vault::secret_name;

constexpr FleetId kFleet{1, 2, 3};

MATCHER_P2(Answers, ticket, result, "") {
  return arg.ticket == static_cast<Ticket>(ticket) && arg.result == static_cast<KsResult>(result);
}

// Machine is a core whose requests are carried out when the test says so.
class Machine final : private Readers {
 public:
  Machine(StoreModel &store, CoreOptions options, Time start = {})
      : now(start), store_(store), core(std::move(options), owners_, *this) {
    core.begin(now);
  }

  static CoreOptions options(const std::string &name, uint64_t session = 1) {
    return {.machine = name, .session = session, .master_key = master_key(), .make = kFleet};
  }

  // carry_out brings all requests to the store and all reports back, until nothing is left to do.
  void carry_out() {
    for (std::vector<Request> requests = core.take_requests(); !requests.empty(); requests = core.take_requests()) {
      for (const Request &request : requests) {
        std::visit([this](const auto &one) { execute(one); }, request);
      }
    }
    see_changes();
  }
  // carry_out_next does so with the first request alone, as long as there is one.
  bool carry_out_next() {
    for (Request &request : core.take_requests()) waiting_.push_back(std::move(request));
    if (waiting_.empty()) return false;
    const Request request = std::move(waiting_.front());
    waiting_.pop_front();
    std::visit([this](const auto &one) { execute(one); }, request);
    return true;
  }
  void pass(Time time) {
    now += time;
    core.tick(now);
  }
  void come_up() {
    for (int i = 0; i < 20 && !core.memory().is_filled(); ++i) {
      carry_out();
      pass(100ms);
    }
    carry_out();
  }

  // last_commit takes what is to be sent, and gives the commit in it.
  std::optional<Commit> last_commit() {
    std::optional<Commit> commit;
    for (Request &request : core.take_requests()) {
      if (auto *found = std::get_if<Commit>(&request)) commit = std::move(*found);
    }
    return commit;
  }
  void put(Ticket ticket, const std::string &name) {
    core.change(now, ticket, vault::decide_put(secret_name(name), std::nullopt, bytes_of("secret"), {}, 1));
  }
  std::vector<std::string> names() const {
    std::vector<std::string> names;
    const vault::Table &table = core.memory().state().table;
    for (size_t i = 0; i < table.size(); ++i) names.push_back(table.at(i)->name.name);
    return names;
  }
  // backed_up gives what a backup of this machine's memory restores.
  Restore::Wanted backed_up(uint64_t folder) const {
    const vault::State &state = core.memory().state();
    Restore::Wanted wanted{.rows = state.table.rows(),
                           .last_id = state.header.last_id,
                           .last_version = state.header.last_version,
                           .fleet = kFleet,
                           .folder = folder};
    std::ranges::sort(wanted.rows, {}, [](const vault::RowPtr &row) { return row->id; });
    return wanted;
  }
  RestoreState restored() const { return core.restoring()->progress().state; }
  bool has(const std::string &name) const { return core.memory().state().table.find(secret_name(name)) != nullptr; }
  Standing standing() const { return core.standing(now); }

  void see_changes() {
    while (!is_deaf && watch_ && watch_->from <= store_.revision()) {
      const StoreModel::Change change = store_.at(watch_->from);
      core.take(now, Changed{watch_->id, watch_->from++, change.puts, change.deletes});
    }
  }

  Time now{};
  bool is_silent = false;  // its heartbeats get nowhere
  bool is_deaf = false;    // its watch tells nothing
  RequestId watch_id() const { return watch_->id; }

  void execute(const Commit &commit) {
    if (!store_.compare_and_change(commit)) {
      return core.take(now, Refused{commit.id, store_.header(), store_.revision()});
    }
    core.take(now, Committed{commit.id, store_.revision()});
  }
  void execute(const ReadHeader &read) { core.take(now, HeaderIs{read.id, store_.header(), store_.revision()}); }
  void execute(const Load &load) {
    LoadedRows rows{load.id, {}};
    for (const auto &[key, value] : store_.live()) {
      if (key.starts_with(kRowFolder)) rows.rows.push_back(value);
    }
    core.take(now, std::move(rows));
    core.take(now, Loaded{load.id, store_.header(), store_.revision()});
  }
  void execute(const Watch &watch) { watch_ = watch; }
  void execute(const Beat &beat) {
    if (is_silent) return;
    store_.change({{.key = kBeatFolder + beat.machine, .value = beat.value, .mod_revision = 0}}, {});
  }
  void execute(const ReadBeats &read) {
    BeatsAre beats{read.id, {}, store_.revision()};
    for (const auto &[key, value] : store_.live()) {
      if (key.starts_with(kBeatFolder) || key.starts_with(kBoxFolder)) beats.beats.push_back(value);
    }
    core.take(now, std::move(beats));
  }

 private:
  void lock() override {}
  void unlock() override {}
  void shown(const std::vector<uint64_t> &, const vault::RowChanges *) override {}

  StoreModel &store_;
  Owners owners_{{{1, "one"}}};
  std::optional<Watch> watch_;
  std::deque<Request> waiting_;

 public:
  Core core;
};

// SmallKeeper keeps a next key if it has room.
struct SmallKeeper final : KeyKeeper {
  std::string keep_next(const SecretBytes &key, const SecretBytes &) override {
    if (is_full) return "there is no room";
    next = SecretBytes::copy_of(key.bytes());
    return "";
  }
  std::string use(const SecretBytes &) override { return ""; }

  bool is_full = false;
  KeyPtr next;
};

// Fleet is some machines with keys of their own, which come one after the other.
class Fleet : public testing::Test {
 protected:
  Machine &start(const std::string &name, uint8_t own_key, KeyPtr master = master_key(), KeyPtr next = nullptr) {
    CoreOptions options = Machine::options(name, ++sessions_);
    options.master_key = std::move(master);
    options.next_key = std::move(next);
    options.machine_key = SecretBytes::copy_of(std::vector<uint8_t>(32, own_key));
    options.keeper = &keeper[name];
    auto &machine = machines[name];
    machine = std::make_unique<Machine>(store, std::move(options), now_);
    machine->come_up();
    go_on();
    return *machine;
  }

  // go_on carries out all that there is to do, some steps of time long.
  void go_on(int steps = 4, Time step = 10ms) {
    for (int i = 0; i < steps; ++i) {
      for (auto &[name, machine] : machines) {
        machine->carry_out();
        for (Answer &answer : machine->core.take_answers()) answers[answer.ticket] = std::move(answer);
        machine->pass(step);
        now_ = std::max(now_, machine->now);
      }
    }
    for (auto &[name, machine] : machines) machine->carry_out();
  }

  const Answer &answer(Ticket ticket) { return answers[ticket]; }
  const Answer &leave(Machine &at, const std::string &name = "", bool even_if_alive = false) {
    at.core.leave(at.now, ++last_, name, even_if_alive);
    go_on();
    return answer(last_);
  }
  const Answer &change_key(Machine &at) {
    at.core.change_key(at.now, ++last_, *at.core.key_change().machines);
    go_on();
    return answer(last_);
  }
  void put_many(Machine &at, int count) {
    for (int i = 0; i < count; ++i) at.put(++last_, "n" + std::to_string(i));
    go_on();
  }
  std::vector<std::string> members(Machine &at) {
    std::vector<std::string> names;
    for (const WriterMark &mark : at.core.memory().header().writers) names.push_back(mark.machine);
    return names;
  }

  StoreModel store;
  std::map<std::string, SmallKeeper> keeper;
  std::map<std::string, std::unique_ptr<Machine>> machines;
  std::map<Ticket, Answer> answers;

 private:
  Time now_{};
  uint64_t sessions_ = 0;
  Ticket last_ = 0;
};

// change_header does what somebody could who has the fleet's key.
void change_header(StoreModel &store, const std::function<void(FleetHeader &header)> &change) {
  const vault::Sealer sealer(*master_key(), kFleet);
  const std::optional<HeaderFront> front = header_front(store.header()->value);
  FleetHeader header = *decode_header(sealer.open(vault::RecordKind::kFleetHeader, 0, front->sealed)->bytes());
  change(header);
  store.change({{.key = kHeaderKey, .value = seal_header(header, front->key, sealer), .mod_revision = 0}}, {});
}

// restored gives the store as a restore of what is in it would leave it.
void restore(StoreModel &store) {
  change_header(store, [](FleetHeader &header) {
    ++header.incarnation;
    header.version = 1;
  });
}

TEST(FleetCore, SleepsUntilThereIsSomethingToDo) {
  StoreModel store;
  Machine x(store, Machine::options("x"));
  x.come_up();
  for (const bool store_answers : {true, false}) {
    SCOPED_TRACE(store_answers);
    if (!store_answers) x.put(1, "a");
    const Time end = x.now + 8s;
    for (int ticks = 0; x.now < end; ++ticks) {
      if (store_answers) x.carry_out();
      x.core.take_requests();
      ASSERT_GT(x.core.next_tick(), x.now);
      ASSERT_LT(ticks, 100);
      x.pass(x.core.next_tick() - x.now);
    }
  }
}

TEST(FleetCore, SleepsAgainOnceItHasCaughtUp) {
  StoreModel store;
  Machine x(store, Machine::options("x")), y(store, Machine::options("y", 2));
  x.come_up();
  y.come_up();
  x.see_changes();
  x.is_deaf = true;
  y.put(1, "a");
  y.carry_out();
  for (Time passed{}; passed < 900ms; passed += 100ms) {
    x.pass(100ms);
    x.carry_out();  // also a question for the header, by which it knows that it is behind
  }
  x.is_deaf = false;
  x.see_changes();
  ASSERT_TRUE(x.has("a"));
  x.pass(2s);
  x.carry_out();
  EXPECT_GT(x.core.next_tick(), x.now);
}

TEST(FleetCore, MakesAFleetWhereThereIsNone) {
  StoreModel store;
  Machine x(store, Machine::options("x"));
  x.come_up();
  EXPECT_EQ(x.standing(), Standing::kGood);
  EXPECT_EQ(x.core.memory().header().version, 1u);
}

TEST(FleetCore, CountsItsCommitsAndThoseThatAnotherMachineCameBefore) {
  StoreModel store;
  Machine x(store, Machine::options("x")), y(store, Machine::options("y"));
  x.come_up();
  y.come_up();
  EXPECT_EQ(x.core.counts().commits, 0u) << "it is in the fleet that it made";
  EXPECT_EQ(y.core.counts().commits, 1u) << "it has entered itself";
  const uint64_t loads = x.core.counts().loads;
  x.see_changes();
  x.put(1, "a");
  x.carry_out();
  EXPECT_EQ(x.core.counts().commits, 1u);
  EXPECT_EQ(x.core.counts().lost, 0u);

  x.put(2, "b");
  const std::optional<Commit> late = x.last_commit();
  ASSERT_TRUE(late);
  y.see_changes();
  y.put(1, "c");
  y.carry_out();
  x.execute(*late);
  x.see_changes();
  x.pass(100ms);
  x.carry_out();
  EXPECT_EQ(x.core.counts().lost, 1u);
  EXPECT_EQ(x.core.counts().commits, 2u);
  EXPECT_EQ(x.core.counts().unknown, 0u);
  EXPECT_EQ(x.core.counts().loads, loads);
  EXPECT_EQ(y.core.counts().commits, 2u);
}

TEST(FleetCore, AsksOthersToPauseOnceItWasTooLateThreeTimesInARow) {
  StoreModel store;
  Machine x(store, Machine::options("x")), y(store, Machine::options("y", 2));
  x.come_up();
  y.come_up();
  x.see_changes();
  x.pass(200ms);
  x.carry_out();
  std::optional<Commit> commit;
  // asks takes what is to be sent, keeps the commit in it, and tells whether a heartbeat is there.
  const auto asks = [&] {
    bool found = false;
    for (Request &request : x.core.take_requests()) {
      found = found || std::holds_alternative<Beat>(request);
      if (auto *const sent = std::get_if<Commit>(&request)) commit = std::move(*sent);
    }
    return found;
  };
  x.put(1, "a");
  asks();
  for (int lost = 1; lost <= 3; ++lost) {
    SCOPED_TRACE(lost);
    for (int i = 0; i < 20 && !commit; ++i) {
      x.pass(10ms);
      asks();
    }
    ASSERT_TRUE(commit);
    y.put(static_cast<Ticket>(lost), "y" + std::to_string(lost));
    y.carry_out();
    x.execute(*std::exchange(commit, std::nullopt));
    x.see_changes();
    EXPECT_EQ(asks(), lost == 3);
  }
}

TEST(FleetCore, SendsAChangeAgainThatHasntHappenedWhenALaterQuestionIsAnswered) {
  StoreModel store;
  Machine x(store, Machine::options("x"));
  x.come_up();
  x.put(1, "lost");
  const std::optional<Commit> lost = x.last_commit();
  ASSERT_TRUE(lost);
  x.pass(200ms);
  x.carry_out();  // a question of so soon says nothing
  EXPECT_FALSE(x.last_commit());
  x.pass(200ms);
  x.carry_out();
  EXPECT_EQ(x.core.counts().unknown, 1u);
  x.pass(100ms);
  const std::optional<Commit> again = x.last_commit();
  ASSERT_TRUE(again);
  EXPECT_EQ(again->puts, lost->puts) << "another transaction could happen beside it";
  // The first one was only late, and the second comes behind it.
  ASSERT_TRUE(store.compare_and_change(*lost));
  EXPECT_FALSE(store.compare_and_change(*again));
  x.core.take(x.now, Refused{again->id, store.header(), store.revision()});
  x.see_changes();
  EXPECT_THAT(x.core.take_answers(), ElementsAre(Answers(1, KS_SUCCESS)));
}

TEST(FleetCore, FindsARowThatDisappearsBehindTheWatchWithinFiveMinutes) {
  StoreModel store;
  Machine x(store, Machine::options("x"));
  x.come_up();
  x.put(1, "a");
  x.carry_out();
  store.forget(row_key({.folder = 0, .id = 1}));
  for (Time passed{}; passed < 299s; passed += 200ms) {
    x.pass(200ms);
    x.carry_out();
  }
  EXPECT_EQ(x.standing(), Standing::kGood);
  for (Time passed{}; passed < 1s; passed += 200ms) {
    x.pass(200ms);
    x.carry_out();
  }
  EXPECT_EQ(x.standing(), Standing::kTampered);
  EXPECT_EQ(x.core.why(), "the rows aren't those of the header");
}

TEST(FleetCore, CountsAgainSoonWhereTheStoreFailedMeanwhile) {
  StoreModel store;
  Machine x(store, Machine::options("x"));
  x.come_up();
  const auto time_to_next_count = [&](bool fails) {
    const Time start = x.now;
    for (bool counted = false; !counted && x.now - start < 400s; x.pass(200ms)) {
      for (const Request &request : x.core.take_requests()) {
        const auto *const count = std::get_if<Load>(&request);
        counted = counted || count != nullptr;
        if (count != nullptr && fails) {
          x.core.take(x.now, Failed{count->id, Failure::kNotSent, ""});
        } else {
          std::visit([&x](const auto &one) { x.execute(one); }, request);
        }
      }
      x.see_changes();
    }
    return x.now - start;
  };
  EXPECT_GT(time_to_next_count(true), 250s);
  EXPECT_LT(time_to_next_count(false), 15s);
  EXPECT_GT(time_to_next_count(false), 250s);
}

// Rows that are counted at a header which memory has yet to reach.
TEST(FleetCore, FindsARowThatDisappearsAlsoWhenTheStoreIsAhead) {
  StoreModel store;
  Machine x(store, Machine::options("x"));
  Machine y(store, Machine::options("y", 2));
  x.come_up();
  x.put(1, "a");
  x.carry_out();
  y.come_up();
  for (Time passed{}; passed < 290s; passed += 200ms) {
    x.pass(200ms);
    x.carry_out();
  }
  store.forget(row_key({.folder = 0, .id = 1}));
  y.pass(290s);
  y.carry_out();
  y.put(1, "b");
  y.carry_out();
  x.is_deaf = true;
  const uint64_t loads = x.core.counts().loads;
  for (Time passed{}; passed < 10s && x.core.counts().loads == loads; passed += 100ms) {
    x.pass(100ms);
    for (const Request &request : x.core.take_requests()) {
      if (const auto *count = std::get_if<Load>(&request)) x.execute(*count);
    }
  }
  EXPECT_GT(x.core.counts().loads, loads) << "it looks at once, and not after the next five minutes";
  x.carry_out();
  EXPECT_EQ(x.standing(), Standing::kTampered);
}

TEST(FleetCore, PassesOverAChangeThatItHasSeen) {
  StoreModel store;
  Machine x(store, Machine::options("x"));
  x.come_up();
  x.put(1, "a");
  x.carry_out();
  x.put(2, "b");
  x.carry_out();
  const uint64_t loads = x.core.counts().loads;
  for (Revision revision = 1; revision <= store.revision(); ++revision) {
    const StoreModel::Change &change = store.at(revision);
    x.core.take(x.now, Changed{x.watch_id(), revision, change.puts, change.deletes});
  }
  EXPECT_EQ(x.core.counts().loads, loads);
  EXPECT_THAT(x.names(), ElementsAre("a", "b"));
}

TEST(FleetCore, MakesNoFleetUnasked) {
  StoreModel store;
  CoreOptions options = Machine::options("x");
  options.make.reset();
  Machine x(store, options);
  x.come_up();
  EXPECT_EQ(x.standing(), Standing::kNoFleet);
  EXPECT_EQ(store.revision(), 0u);
  EXPECT_FALSE(x.core.readable(x.now));
}

TEST(FleetCore, StopsAtARestoredFleetUntilItIsToldThatThisWasMeant) {
  StoreModel store;
  Machine x(store, Machine::options("x"));
  x.come_up();
  x.put(1, "wifi");
  x.carry_out();
  ASSERT_THAT(x.core.take_answers(), ElementsAre(Answers(1, KS_SUCCESS)));
  restore(store);
  x.see_changes();
  x.carry_out();
  EXPECT_EQ(x.standing(), Standing::kRestored);
  x.put(2, "other");
  EXPECT_THAT(x.core.take_answers(), ElementsAre(Answers(2, KS_FW_BAD_CELL)));

  x.core.accept(x.now, 1);
  EXPECT_EQ(x.standing(), Standing::kRestored) << "another restore than that";
  x.carry_out();
  EXPECT_EQ(x.standing(), Standing::kRestored);
  x.core.accept(x.now, 2);
  x.carry_out();
  EXPECT_EQ(x.standing(), Standing::kGood);
  x.put(3, "other");
  x.carry_out();
  EXPECT_THAT(x.core.take_answers(), ElementsAre(Answers(3, KS_SUCCESS)));
  EXPECT_EQ(x.core.memory().header().incarnation, 2u);
}

TEST(FleetCore, TakesAnEarlierIncarnationForAStoreThatWasSetBack) {
  StoreModel store;
  Machine x(store, Machine::options("x"));
  x.come_up();
  const StoreModel before = store;
  restore(store);
  x.core.accept(x.now, 2);
  x.see_changes();
  x.carry_out();
  ASSERT_EQ(x.standing(), Standing::kGood);
  store.set_back(before);
  x.pass(250ms);
  x.carry_out();
  EXPECT_EQ(x.standing(), Standing::kTampered);
}

// Such as that of a store which was set back, and in which others then made as many changes as were lost.
TEST(FleetCore, LeavesAStoreAloneWhoseHeaderDoesntFollow) {
  const std::function<void(FleetHeader &)> changes[] = {
      [](FleetHeader &header) {
        header.version += 1;
        header.before[0] ^= 1;
      },
      [](FleetHeader &header) {
        header.version += 2;
        header.writers[0].sequence -= 1;
      },
  };
  for (const auto &change : changes) {
    SCOPED_TRACE(&change - changes);
    StoreModel store;
    Machine x(store, Machine::options("x"));
    x.come_up();
    x.put(1, "a");
    x.carry_out();
    change_header(store, change);
    for (int i = 0; i < 5; ++i) {
      x.carry_out();
      x.pass(250ms);
    }
    EXPECT_EQ(x.standing(), Standing::kTampered);
    EXPECT_EQ(x.core.why(), "the header isn't a successor of the one that was there");
  }
}

TEST(FleetCore, NoticesAnotherMachineOfItsName) {
  StoreModel store;
  Machine x(store, Machine::options("x", 1)), other(store, Machine::options("x", 2));
  x.come_up();
  other.come_up();
  x.put(1, "a");
  x.carry_out();
  other.see_changes();
  ASSERT_EQ(other.standing(), Standing::kGood) << "it may be what an earlier life of this one had under way";
  other.put(1, "b");
  other.carry_out();
  x.see_changes();
  EXPECT_EQ(x.standing(), Standing::kNamesake);
  EXPECT_THAT(x.core.why(), HasSubstr("name x"));
}

TEST(FleetCore, LeavesAFleetOfAnotherKeyAlone) {
  StoreModel store;
  Machine x(store, Machine::options("x"));
  x.come_up();
  x.put(1, "wifi");
  x.carry_out();
  CoreOptions options = Machine::options("y");
  options.master_key = master_key(8);
  Machine y(store, options);
  y.come_up();
  EXPECT_EQ(y.standing(), Standing::kOtherKey);
}

TEST(FleetCore, LeavesAnotherFleetAlone) {
  StoreModel store;
  Machine x(store, Machine::options("x"));
  x.come_up();
  x.put(1, "wifi");
  x.carry_out();
  CoreOptions options = Machine::options("y");
  options.fleet = FleetId{9};
  Machine y(store, options);
  y.come_up();
  EXPECT_EQ(y.standing(), Standing::kOtherFleet);
}

// The number tells them apart, although both were decided at one header.
TEST(FleetCore, DoesntTakeALateChangeForTheOneThatCameAfterIt) {
  StoreModel store;
  CoreOptions options = Machine::options("x");
  options.write_wait = 300ms;
  Machine x(store, options);
  x.is_silent = true;  // so that revisions are those of changes
  x.come_up();
  x.put(1, "early");
  std::optional<Commit> early = x.last_commit();
  ASSERT_TRUE(early);
  x.core.take(x.now, EngineGone{"it has died"});
  x.core.take_requests();
  x.pass(310ms);
  EXPECT_THAT(x.core.take_answers(), ElementsAre(Answers(1, KS_TIMEOUT)));
  x.core.take_requests();
  x.put(2, "late");
  std::optional<Commit> late = x.last_commit();
  ASSERT_TRUE(late);
  ASSERT_EQ(late->header_revision, early->header_revision);

  ASSERT_TRUE(store.compare_and_change(*early)) << "it was only slow";
  ASSERT_FALSE(store.compare_and_change(*late));
  x.core.take(x.now, Refused{late->id, store.header(), store.revision()});
  EXPECT_THAT(x.core.take_answers(), IsEmpty());
  for (int i = 0; i < 10; ++i) {
    x.pass(100ms);
    x.carry_out();
  }
  EXPECT_TRUE(x.has("early"));
  EXPECT_TRUE(x.has("late") || store.revision() == 2) << "decided again, unless its time was over";
  const std::vector<Answer> answers = x.core.take_answers();
  ASSERT_EQ(answers.size(), 1u);
  EXPECT_EQ(answers[0].result == KS_SUCCESS, x.has("late"));
}

TEST(FleetCore, PutsAtMostAHundredRowsIntoACommit) {
  StoreModel store;
  Machine x(store, Machine::options("x"));
  x.come_up();
  x.put(0, "first");  // is under way while the others come
  for (Ticket ticket = 1; ticket <= 150; ++ticket) x.put(ticket, "n" + std::to_string(ticket));
  const std::optional<Commit> first = x.last_commit();
  ASSERT_TRUE(first);
  ASSERT_TRUE(store.compare_and_change(*first));
  x.core.take(x.now, Committed{first->id, store.revision()});
  const std::optional<Commit> second = x.last_commit();
  ASSERT_TRUE(second);
  EXPECT_EQ(second->puts.size(), 1 + kMostRowsPerCommit);
  x.core.take(x.now, Failed{second->id, Failure::kNotSent, ""});
  x.pass(100ms);
  x.carry_out();
  EXPECT_EQ(x.core.memory().state().table.size(), 151u);
}

TEST(FleetCore, PutsAtMostAMebibyteIntoACommit) {
  StoreModel store;
  Machine x(store, Machine::options("x"));
  x.come_up();
  const std::vector<uint8_t> large(UINT16_MAX, 1);
  for (Ticket ticket = 0; ticket < 40; ++ticket) {
    x.core.change(x.now, ticket,
                  vault::decide_put(secret_name("n" + std::to_string(ticket)), std::nullopt, large, large, 1));
  }
  size_t commits = 0;
  for (std::optional<Commit> commit = x.last_commit(); commit; commit = x.last_commit(), ++commits) {
    size_t bytes = 0;
    for (const KeyValue &put : commit->puts) bytes += put.key.size() + put.value.size();
    EXPECT_LE(bytes, kMostBytesPerCommit);
    ASSERT_TRUE(store.compare_and_change(*commit));
    x.core.take(x.now, Committed{commit->id, store.revision()});
  }
  EXPECT_EQ(x.core.take_answers().size(), 40u);
  EXPECT_LT(commits, 12u) << "several went together";
}

TEST(FleetCore, TriesAGroupOneByOneThatIsTooLargeForTheStore) {
  StoreModel store;
  Machine x(store, Machine::options("x"));
  x.come_up();
  x.put(1, "a");
  const std::optional<Commit> first = x.last_commit();
  x.put(2, "b");
  x.put(3, "c");
  ASSERT_TRUE(store.compare_and_change(*first));
  x.core.take(x.now, Committed{first->id, store.revision()});
  const std::optional<Commit> both = x.last_commit();
  ASSERT_EQ(both->puts.size(), 3u);
  x.core.take(x.now, Failed{both->id, Failure::kTooLarge, ""});
  const std::optional<Commit> one = x.last_commit();
  ASSERT_EQ(one->puts.size(), 2u);
  x.core.take(x.now, Failed{one->id, Failure::kTooLarge, ""});
  x.carry_out();
  EXPECT_THAT(x.core.take_answers(),
              ElementsAre(Answers(1, KS_SUCCESS), Answers(2, KS_STORE_FULL), Answers(3, KS_SUCCESS)));
}

// ---- Restore ----

class FleetRestore : public testing::Test {
 protected:
  // A fleet of some entries, of which x has a backup, and which has changed since.
  FleetRestore() {
    x.come_up();
    for (Ticket ticket = 0; ticket < 250; ++ticket) x.put(ticket, "n" + std::to_string(ticket));
    x.carry_out();
    backup = x.backed_up(7);
    x.put(300, "later");
    x.core.change(x.now, 301, vault::decide_remove(secret_name("n0")));
    x.carry_out();
    y.come_up();
    x.see_changes();  // that y is there
    x.core.take_answers();
  }

  // rows_in counts rows by their folders.
  std::map<uint64_t, size_t> rows_in_folders() const {
    std::map<uint64_t, size_t> count;
    for (const auto &[key, value] : store.live()) {
      if (const std::optional<RowPlace> place = row_place(key)) ++count[place->folder];
    }
    return count;
  }

  StoreModel store;
  Machine x{store, Machine::options("x")}, y{store, Machine::options("y", 2)};
  Restore::Wanted backup;
};

TEST_F(FleetRestore, PutsABackupInThePlaceOfAllThatThereIs) {
  const uint64_t version = x.core.memory().header().version;
  x.core.restore(x.now, backup);
  x.carry_out();
  EXPECT_EQ(x.restored(), RestoreState::kDone);
  EXPECT_EQ(x.standing(), Standing::kGood);
  EXPECT_EQ(x.names().size(), 250u);
  EXPECT_EQ(x.names().front(), "n0") << "in its place";
  EXPECT_EQ(x.core.memory().header().incarnation, 2u);
  EXPECT_EQ(x.core.memory().header().version, version + 1);
  EXPECT_EQ(rows_in_folders(), (std::map<uint64_t, size_t>{{7, 250}}));
  EXPECT_EQ(store.revision_of(kRestoreKey), 0u);
  x.put(1, "after");
  x.carry_out();
  EXPECT_THAT(x.core.take_answers(), ElementsAre(Answers(1, KS_SUCCESS)));

  y.see_changes();
  y.carry_out();
  EXPECT_EQ(y.standing(), Standing::kRestored);
  EXPECT_TRUE(y.has("later")) << "what it had is read on";
  y.core.accept(y.now, y.core.restored_to());
  y.carry_out();
  EXPECT_EQ(y.names(), x.names());
}

TEST_F(FleetRestore, PutsRowsOfAMebibyteAtMostIntoACommit) {
  const auto row_of = [](uint64_t id, size_t metadata) {
    vault::EntryRow row = vault::example_row(id, 1);
    row.owner = 1;
    row.metadata = vault::metadata_of(std::vector<uint8_t>(metadata));
    return std::make_shared<const vault::EntryRow>(std::move(row));
  };
  const vault::Sealer sealer(*master_key(), kFleet);
  const auto size_of = [&](const vault::RowPtr &row) {
    return row_key({.folder = 7, .id = row->id}).size() +
           sealer.seal(vault::RecordKind::kFleetRow, row->id, encode_row(*row, "one")->bytes()).size();
  };
  // rows_of_first_commit restores two rows of as many bytes together, and a small one.
  const auto rows_of_first_commit = [&](Machine &machine, size_t together) {
    const vault::RowPtr first = row_of(1, 500'000);
    const size_t beside = size_of(first) + size_of(row_of(2, 0));
    backup.rows = {first, row_of(2, together - beside), row_of(3, 0)};
    EXPECT_EQ(size_of(backup.rows[0]) + size_of(backup.rows[1]), together);
    machine.core.restore(machine.now, backup);
    for (int i = 0; i < 20; ++i) {
      for (const Request &request : machine.core.take_requests()) {
        const auto *const commit = std::get_if<Commit>(&request);
        const auto is_of_backup = [](const KeyValue &put) {
          const std::optional<RowPlace> place = row_place(put.key);
          return place && place->folder == 7;
        };
        if (const auto rows = commit != nullptr ? std::ranges::count_if(commit->puts, is_of_backup) : 0) return rows;
        std::visit([&](const auto &one) { machine.execute(one); }, request);
      }
    }
    return std::ptrdiff_t{0};
  };
  EXPECT_EQ(rows_of_first_commit(x, kMostBytesPerCommit), 2);
  EXPECT_EQ(rows_of_first_commit(y, kMostBytesPerCommit + 1), 1);
}

TEST_F(FleetRestore, IsWholeOrNothingWhereverItIsCutShort) {
  std::vector<std::string> before = x.names(), after;
  for (const vault::RowPtr &row : backup.rows) after.push_back(row->name.name);
  const StoreModel present = store;
  bool was_switched = false, was_done = false;
  for (int steps = 1; !was_done; ++steps) {
    SCOPED_TRACE(steps);
    ASSERT_LT(steps, 100);
    store.set_back(present);
    Machine restorer(store, Machine::options("x", 3));
    restorer.come_up();
    restorer.core.restore(restorer.now, backup);
    for (int i = 0; i < steps && restorer.carry_out_next(); ++i) {
    }
    was_done = restorer.restored() == RestoreState::kDone;

    Machine z(store, Machine::options("z", 4));  // which knows nothing
    z.come_up();
    ASSERT_EQ(z.standing(), Standing::kGood);
    const bool is_switched = z.core.memory().header().incarnation == 2;
    EXPECT_EQ(z.names(), is_switched ? after : before);
    EXPECT_GE(is_switched, was_switched) << "and stays so";
    was_switched = is_switched;

    // Begun again, it comes to its end, and nothing is left of the first one.
    Restore::Wanted again = backup;
    again.folder = 8;
    z.core.restore(z.now, again);
    z.carry_out();
    EXPECT_EQ(z.restored(), RestoreState::kDone);
    EXPECT_EQ(z.names(), after);
    EXPECT_EQ(rows_in_folders(), (std::map<uint64_t, size_t>{{8, 250}}));
  }
  EXPECT_TRUE(was_switched);
}

TEST_F(FleetRestore, GivesWayToOneThatBeginsLater) {
  x.core.restore(x.now, backup);
  for (int i = 0; i < 4; ++i) ASSERT_TRUE(x.carry_out_next());
  Restore::Wanted others = y.backed_up(9);
  y.core.restore(y.now, others);
  y.carry_out();
  ASSERT_EQ(y.restored(), RestoreState::kDone);
  while (x.carry_out_next()) {
  }
  EXPECT_EQ(x.restored(), RestoreState::kStopped);
  EXPECT_THAT(x.core.restoring()->progress().why, HasSubstr("another restore has begun"));
  EXPECT_EQ(rows_in_folders(), (std::map<uint64_t, size_t>{{9, 250}}));
}

TEST_F(FleetRestore, TakesAChangeThatComesInBetweenForPartOfWhatItReplaces) {
  x.core.restore(x.now, backup);
  for (int i = 0; i < 5; ++i) ASSERT_TRUE(x.carry_out_next());
  y.put(1, "in between");
  y.carry_out();
  ASSERT_THAT(y.core.take_answers(), ElementsAre(Answers(1, KS_SUCCESS)));
  const uint64_t version = y.core.memory().header().version;
  while (x.carry_out_next()) {
  }
  EXPECT_EQ(x.restored(), RestoreState::kDone);
  EXPECT_FALSE(x.has("in between"));
  EXPECT_EQ(x.core.memory().header().version, version + 1);
}

TEST_F(FleetRestore, EndsWhenItIsGivenUpBeforeItsLastStep) {
  x.core.restore(x.now, backup);
  for (int i = 0; i < 4; ++i) ASSERT_TRUE(x.carry_out_next());
  x.core.give_up_restore();
  while (x.carry_out_next()) {
  }
  EXPECT_EQ(x.restored(), RestoreState::kStopped);
  EXPECT_TRUE(x.has("later"));
  EXPECT_EQ(x.standing(), Standing::kGood);
}

TEST_F(FleetRestore, MendsAStoreThatWasSetBackOrEmptied) {
  const auto restores = [&](const char *what) {
    SCOPED_TRACE(what);
    x.pass(250ms);
    x.carry_out();
    ASSERT_EQ(x.standing(), Standing::kTampered);
    const uint64_t incarnation = x.core.memory().header().incarnation;
    ++backup.folder;
    x.core.restore(x.now, backup);
    x.carry_out();
    EXPECT_EQ(x.standing(), Standing::kGood);
    EXPECT_EQ(x.core.memory().header().incarnation, incarnation + 1);
    EXPECT_EQ(x.names().size(), 250u);
    // The other has left the store alone as well, and is told by its operator.
    y.pass(250ms);
    y.carry_out();
    EXPECT_TRUE(lasts(y.standing()));
    y.core.accept(y.now, incarnation + 1);
    y.carry_out();
    EXPECT_EQ(y.standing(), Standing::kGood);
    EXPECT_EQ(y.names(), x.names());
  };
  StoreModel before = store;
  x.put(1, "last");
  x.carry_out();
  y.see_changes();
  store.set_back(before);
  restores("set back");
  store.set_back(StoreModel());
  restores("emptied");
}

TEST_F(FleetRestore, MakesAFleetOfABackupOverAnEmptyStore) {
  StoreModel empty;
  CoreOptions options = Machine::options("n");
  options.make.reset();
  Machine n(empty, options);
  n.come_up();
  ASSERT_EQ(n.standing(), Standing::kNoFleet);
  n.core.restore(n.now, backup);
  n.come_up();
  EXPECT_EQ(n.restored(), RestoreState::kDone);
  EXPECT_EQ(n.standing(), Standing::kGood);
  EXPECT_EQ(n.names().size(), 250u);
  EXPECT_EQ(n.core.memory().fleet(), kFleet) << "so that machines that were there before know it again";
}

TEST_F(FleetRestore, LeavesAnotherFleetAlone) {
  CoreOptions options = Machine::options("x");
  options.fleet = FleetId{9};
  Machine other(store, options);
  other.come_up();
  other.core.restore(other.now, backup);
  other.carry_out();
  EXPECT_EQ(other.restored(), RestoreState::kStopped);
  EXPECT_THAT(other.core.restoring()->progress().why, HasSubstr("another fleet"));
  options.fleet.reset();
  options.master_key = master_key(8);
  Machine third(store, options);
  third.come_up();
  third.core.restore(third.now, backup);
  third.carry_out();
  EXPECT_THAT(third.core.restoring()->progress().why, HasSubstr("another master key"));
  EXPECT_EQ(rows_in_folders(), (std::map<uint64_t, size_t>{{0, 250}}));
}

TEST_F(FleetRestore, StopsWhenTheStoreHasNoRoom) {
  x.core.restore(x.now, backup);
  ASSERT_TRUE(x.carry_out_next());
  ASSERT_TRUE(x.carry_out_next());
  const std::optional<Commit> drafts = x.last_commit();
  ASSERT_TRUE(drafts);
  x.core.take(x.now, Failed{drafts->id, Failure::kNoSpace, ""});
  EXPECT_EQ(x.restored(), RestoreState::kStopped);
  EXPECT_EQ(x.core.restoring()->progress().result, KS_STORE_FULL);
}

TEST_F(FleetRestore, WaitsForALookAsLongAsALargeStoreMayTake) {
  const auto looks = [this] {
    return std::ranges::count_if(x.core.take_requests(),
                                 [](const Request &request) { return std::holds_alternative<Load>(request); });
  };
  x.core.restore(x.now, backup);
  ASSERT_TRUE(x.carry_out_next());
  EXPECT_EQ(looks(), 1);
  for (Time passed{}; passed < 10s; passed += 500ms) x.pass(500ms);
  EXPECT_EQ(looks(), 0);
  x.pass(500ms);
  x.pass(100ms);
  EXPECT_EQ(looks(), 1) << "it is asked for once more";
}

TEST_F(FleetRestore, FindsOutWhetherItsLastStepCameToBe) {
  x.core.restore(x.now, backup);
  std::optional<Commit> last;
  while (!last) {
    for (Request &request : x.core.take_requests()) {
      auto *commit = std::get_if<Commit>(&request);
      if (commit != nullptr && commit->header_revision && commit->restore_revision) {
        last = *commit;
      } else {
        std::visit([this](auto &one) { x.execute(one); }, request);
      }
    }
  }
  ASSERT_TRUE(store.compare_and_change(*last)) << "it was made, but nobody is told";
  x.core.take(x.now, Failed{last->id, Failure::kUnknown, ""});
  for (int i = 0; i < 5; ++i) {
    x.pass(100ms);
    x.carry_out();
  }
  EXPECT_EQ(x.restored(), RestoreState::kDone);
  EXPECT_EQ(x.core.memory().header().incarnation, 2u);
  EXPECT_EQ(x.standing(), Standing::kGood);
}

// ---- Machines ----

TEST_F(Fleet, KnowsAMachineFromItsStartOn) {
  Machine &x = start("x", 1), &y = start("y", 2);
  go_on();
  EXPECT_THAT(members(x), ElementsAre("x", "y"));
  const std::vector<MachineSeen> seen = x.core.machines(x.now);
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_TRUE(seen[0].is_this);
  EXPECT_FALSE(seen[0].silent_at_least);
  EXPECT_TRUE(seen[1].is_member);
  ASSERT_TRUE(seen[1].beat);
  EXPECT_FALSE(seen[1].silent_at_least);
  EXPECT_LT(seen[1].silent, 1s);
  EXPECT_EQ(seen[1].public_key, y.core.machines(y.now)[1].public_key);
  EXPECT_EQ(x.core.key_change().machines, y.core.key_change().machines);
}

TEST_F(Fleet, DoesntKnowHowLongAgoWasWhatItHasNotHeard) {
  start("x", 1);
  start("y", 2);
  machines.erase("y");
  Machine &x = start("x", 1);
  x.pass(5s);
  const std::vector<MachineSeen> seen = x.core.machines(x.now);
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_TRUE(seen[1].silent_at_least);
  EXPECT_GE(seen[1].silent, 5s);
}

TEST_F(Fleet, LetsAMachineLeave) {
  Machine &x = start("x", 1), &y = start("y", 2);
  put_many(y, 1);
  EXPECT_EQ(leave(y).result, KS_SUCCESS);
  EXPECT_EQ(y.standing(), Standing::kOut);
  EXPECT_EQ(y.core.why(), "it has left");
  EXPECT_FALSE(y.core.readable(y.now)) << "nothing of the fleet is served";
  EXPECT_THAT(members(x), ElementsAre("x"));
  EXPECT_FALSE(store.live().contains("m/y"));
  EXPECT_EQ(x.core.machines(x.now).size(), 1u);
  y.put(1000, "late");
  EXPECT_THAT(y.core.take_answers(), ElementsAre(Answers(1000, KS_FW_BAD_CELL)));
  put_many(x, 2);
  EXPECT_EQ(x.standing(), Standing::kGood);
}

TEST_F(Fleet, KeepsItsLastMachine) {
  Machine &x = start("x", 1);
  EXPECT_EQ(leave(x).result, KS_INVALID_ARGS);
  EXPECT_THAT(answer(1).words, HasSubstr("only machine"));
  EXPECT_EQ(leave(x, "y").result, KS_NOT_FOUND);
}

TEST_F(Fleet, TakesOutAMachineThatHasBeenSilentOnly) {
  Machine &x = start("x", 1), &y = start("y", 2);
  go_on();
  EXPECT_EQ(leave(x, "y").result, KS_INVALID_ARGS);
  EXPECT_THAT(answer(1).words, HasSubstr("y was heard 0 s ago"));
  y.is_silent = true;
  go_on(130, 500ms);
  EXPECT_EQ(leave(x, "y").result, KS_SUCCESS);
  EXPECT_EQ(y.standing(), Standing::kOut) << "it was there all the time";
  EXPECT_THAT(y.core.why(), HasSubstr("taken out"));
}

TEST_F(Fleet, DoesntTakeItsOwnDeafnessForSilence) {
  start("x", 1);
  start("y", 2);
  machines.erase("y");
  Machine &x = start("x", 1);
  go_on();
  EXPECT_EQ(leave(x, "y").result, KS_INVALID_ARGS);
  EXPECT_THAT(answer(1).words, HasSubstr("has listened for 0 s only"));
  EXPECT_EQ(leave(x, "y", true).result, KS_SUCCESS);
}

TEST_F(Fleet, StaysOutUntilItIsAnotherMachine) {
  Machine &x = start("x", 1);
  start("y", 2);
  machines.erase("y");
  ASSERT_EQ(leave(x, "y", true).result, KS_SUCCESS);
  EXPECT_EQ(start("y", 2).standing(), Standing::kOut) << "it starts without knowing";
  EXPECT_THAT(members(x), ElementsAre("x"));
  EXPECT_EQ(start("y", 3).standing(), Standing::kGood) << "with another key of its own it has joined anew";
  go_on();
  EXPECT_THAT(members(x), ElementsAre("x", "y"));
  put_many(*machines["y"], 3);
  EXPECT_EQ(x.standing(), Standing::kGood);
}

TEST_F(Fleet, LetsNoMachineRestoreThatHasLeft) {
  Machine &x = start("x", 1), &y = start("y", 2);
  put_many(x, 2);
  const Restore::Wanted backup = y.backed_up(7);
  ASSERT_EQ(leave(y).result, KS_SUCCESS);
  y.core.restore(y.now, backup);
  go_on();
  EXPECT_EQ(y.restored(), RestoreState::kStopped);
  EXPECT_THAT(y.core.restoring()->progress().why, HasSubstr("isn't one of the fleet"));
  EXPECT_EQ(x.core.memory().header().incarnation, 1u);

  x.core.restore(x.now, x.backed_up(8));
  go_on();
  EXPECT_EQ(x.restored(), RestoreState::kDone);
  EXPECT_EQ(start("y", 2).standing(), Standing::kOut) << "a restore doesn't bring it back";
}

TEST_F(Fleet, HasAPlaceForAnotherMachineOnceOneHasLeft) {
  for (size_t i = 0; i < kMostMachines; ++i) {
    start(std::string(1, static_cast<char>('a' + i / 26)) + static_cast<char>('a' + i % 26),
          static_cast<uint8_t>(i + 1));
    if (i > 0) machines.erase(std::next(machines.begin()));  // they need not listen
  }
  Machine &first = *machines.begin()->second;
  Machine &late = start("z", 99);
  EXPECT_EQ(late.standing(), Standing::kTooManyMachines);
  late.put(1, "wifi");
  EXPECT_THAT(late.core.take_answers(), ElementsAre(Answers(1, KS_STORE_FULL)));
  ASSERT_EQ(leave(first, "ab", true).result, KS_SUCCESS);
  go_on(20, 100ms);
  EXPECT_EQ(late.standing(), Standing::kGood);
  EXPECT_NE(late.core.memory().header().mark_of("z"), nullptr);
}

TEST_F(Fleet, GivesANameWithAnotherKeyToAMachineThatNobodyElseSpeaksFor) {
  start("x", 1);
  Machine &again = start("x", 2);
  EXPECT_EQ(members(again).size(), 1u);
  go_on(31, 1s);
  EXPECT_EQ(again.core.machines(again.now)[0].public_key,
            public_key_of(SecretBytes::copy_of(std::vector<uint8_t>(32, 2)).get()));

  CoreOptions namesake = Machine::options("x", 77);
  namesake.machine_key = SecretBytes::copy_of(std::vector<uint8_t>(32, 3));
  Machine other(store, namesake, again.now);
  other.come_up();
  for (int i = 0; i < 30; ++i) {
    go_on(1, 1s);
    other.pass(1s);
    other.carry_out();
  }
  EXPECT_EQ(other.standing(), Standing::kNamesake) << "the one that was there speaks";
  EXPECT_EQ(again.standing(), Standing::kGood);
}

// ---- Another master key ----

TEST_F(Fleet, ChangesItsMasterKeyAndSealsAllAnew) {
  Machine &x = start("x", 1), &y = start("y", 2), &z = start("z", 3);
  put_many(x, 250);
  const vault::KeyId before = x.core.memory().key_id();
  const auto loads_of_others = [&] { return x.core.counts().loads + z.core.counts().loads; };
  const uint64_t loads = loads_of_others();
  EXPECT_EQ(change_key(y).result, KS_SUCCESS);
  go_on(20);
  for (Machine *machine : {&x, &y, &z}) {
    EXPECT_NE(machine->core.memory().key_id(), before);
    EXPECT_EQ(machine->core.memory().key_id(), y.core.memory().key_id());
    EXPECT_FALSE(machine->core.key_change().change);
    EXPECT_EQ(machine->standing(), Standing::kGood);
    EXPECT_EQ(machine->core.memory().state().table.size(), 250u);
  }
  EXPECT_EQ(loads_of_others(), loads) << "they followed step by step";
  for (const auto &[name, one] : keeper) EXPECT_EQ(vault::key_id_of(*one.next), y.core.memory().key_id()) << name;
  const vault::Sealer sealer(*y.core.memory().master_key(), kFleet);
  for (const auto &[key, stored] : store.live()) {
    EXPECT_FALSE(key.starts_with(kBoxFolder)) << key;
    if (const auto place = row_place(key)) {
      EXPECT_NE(sealer.open(vault::RecordKind::kFleetRow, place->id, stored.value), nullptr) << key;
    }
  }
  put_many(z, 3);
  EXPECT_EQ(x.core.memory().header().version, z.core.memory().header().version);
  Machine &late = start("w", 4, y.core.memory().master_key());
  EXPECT_EQ(late.core.memory().state().table.size(), 250u) << "all of it loads with the one key";
  EXPECT_EQ(start("v", 5).standing(), Standing::kOtherKey);
}

TEST_F(Fleet, GivesNoKeyToMachinesThatNobodyCompared) {
  Machine &x = start("x", 1);
  const Fingerprint alone = *x.core.key_change().machines;
  start("y", 2);
  go_on();
  x.core.change_key(x.now, 1, alone);
  go_on();
  EXPECT_EQ(answer(1).result, KS_BAD_KEY);
  EXPECT_FALSE(x.core.key_change().change);
  EXPECT_EQ(keeper["x"].next, nullptr) << "nothing was drawn";
}

TEST_F(Fleet, WaitsForAMachineThatIsAwayOrIsTakenOut) {
  Machine &x = start("x", 1);
  start("y", 2);
  put_many(x, 5);
  machines.erase("y");
  EXPECT_EQ(change_key(x).result, KS_SUCCESS);
  go_on(20, 500ms);
  EXPECT_THAT(x.core.key_change().missing, ElementsAre("y"));
  EXPECT_EQ(x.core.key_change().moved, 0u);
  put_many(x, 6);
  EXPECT_EQ(x.standing(), Standing::kGood) << "all else goes on";
  Machine &again = start("y", 2);
  go_on(20);
  EXPECT_FALSE(again.core.key_change().change);
  EXPECT_EQ(again.core.memory().key_id(), x.core.memory().key_id());

  machines.erase("y");
  ASSERT_EQ(change_key(x).result, KS_SUCCESS);
  go_on(20);
  ASSERT_TRUE(x.core.key_change().change);
  ASSERT_EQ(leave(x, "y", true).result, KS_SUCCESS);
  go_on(20);
  EXPECT_FALSE(x.core.key_change().change);
}

TEST_F(Fleet, TellsWhereTheNextKeyCantBeKept) {
  Machine &x = start("x", 1), &y = start("y", 2);
  keeper["y"].is_full = true;
  ASSERT_EQ(change_key(x).result, KS_SUCCESS);
  go_on(20);
  EXPECT_EQ(y.standing(), Standing::kKeyNotKept);
  EXPECT_EQ(y.core.why(), "there is no room");
  EXPECT_THAT(x.core.key_change().missing, ElementsAre("y"));
  keeper["y"].is_full = false;
  go_on(20, 500ms);
  EXPECT_EQ(y.standing(), Standing::kGood);
  EXPECT_FALSE(x.core.key_change().change);

  keeper["x"].is_full = true;
  EXPECT_EQ(change_key(x).result, KS_FW_BAD_CELL);
  EXPECT_EQ(answer(2).words, "there is no room");
  EXPECT_FALSE(x.core.key_change().change) << "nothing has begun";
}

TEST_F(Fleet, GoesOnWithAChangeOfTheKeyWhoseMachineWasKilled) {
  Machine &x = start("x", 1);
  start("y", 2);
  put_many(x, 250);
  machines["y"]->is_silent = true;  // so that it begins, and nothing more
  ASSERT_EQ(change_key(x).result, KS_SUCCESS);
  go_on();
  ASSERT_EQ(x.core.key_change().moved, 0u);
  machines.erase("x");
  Machine &y = *machines["y"];
  ASSERT_TRUE(keeper["y"].next);
  y.is_silent = false;
  go_on(5, 1s);
  EXPECT_TRUE(y.core.key_change().change) << "x holds it, but has never said so";
  Machine &again = start("x", 1, master_key(), keeper["x"].next);
  go_on(60, 100ms);
  EXPECT_FALSE(y.core.key_change().change);
  EXPECT_EQ(again.core.memory().key_id(), y.core.memory().key_id());
}

TEST_F(Fleet, OpensWhatIsSealedUnderEitherKeyAfterAKillInTheMiddle) {
  Machine &x = start("x", 1);
  start("y", 2);
  put_many(x, 250);
  machines["y"]->is_silent = true;
  ASSERT_EQ(change_key(x).result, KS_SUCCESS);
  machines["y"]->is_silent = false;
  machines["y"]->pass(11s);
  machines["y"]->carry_out();  // it says that it holds both
  x.see_changes();
  const std::optional<Commit> first = x.last_commit();
  ASSERT_TRUE(first && store.compare_and_change(*first));
  x.core.take(x.now, Committed{first->id, store.revision()});
  ASSERT_NE(x.core.key_change().moved, 0u);
  ASSERT_LT(x.core.key_change().moved, 250u);
  for (const char *name : {"x", "y"}) machines.erase(name);
  Machine &y = start("y", 2);  // its next key was lost
  go_on(10, 100ms);
  EXPECT_EQ(y.standing(), Standing::kGood) << "its box has it still";
  EXPECT_EQ(y.core.memory().state().table.size(), 250u);
  Machine &again = start("x", 1, master_key(), keeper["x"].next);
  EXPECT_EQ(again.core.memory().state().table.size(), 250u);
  go_on(60, 100ms);
  EXPECT_FALSE(y.core.key_change().change);
  EXPECT_EQ(again.core.memory().key_id(), y.core.memory().key_id());
}

TEST_F(Fleet, MakesOneChangeOfTheKeyOfTwoThatAreAskedForAtOnce) {
  Machine &x = start("x", 1), &y = start("y", 2);
  go_on();
  const Fingerprint compared = *x.core.key_change().machines;
  x.core.change_key(x.now, 101, compared);
  y.core.change_key(y.now, 102, compared);
  go_on(30);
  EXPECT_FALSE(x.core.key_change().change);
  EXPECT_EQ(x.core.memory().key_id(), y.core.memory().key_id());
  EXPECT_NE(x.core.memory().key_id(), vault::key_id_of(*master_key()));
  EXPECT_TRUE(answers.contains(101) && answers.contains(102));
}

// Who knows the present key can put anything into the store under it.
TEST_F(Fleet, TakesNoKeyFromWhoDoesntHoldTheSendersOwn) {
  Machine &x = start("x", 1), &y = start("y", 2);
  y.is_silent = true;
  ASSERT_EQ(change_key(x).result, KS_SUCCESS);
  machines.erase("y");
  const vault::Sealer sealer(*master_key(), kFleet);
  const KeyPtr planted = master_key(9), thief = SecretBytes::copy_of(std::vector<uint8_t>(32, 66));
  std::optional<BoxedKey> box =
      box_key(*planted, "x", *thief, public_key_of(SecretBytes::copy_of(std::vector<uint8_t>(32, 2)).get()));
  box->key_id = x.core.key_change().change->key_id;
  store.change({{.key = "k/y", .value = seal_box(*box, "y", sealer), .mod_revision = 0}}, {});
  keeper["y"].next.reset();
  Machine &again = start("y", 2);
  go_on(20);
  EXPECT_EQ(again.standing(), Standing::kKeyNotKept);
  EXPECT_THAT(again.core.why(), HasSubstr("can't be opened"));
  EXPECT_EQ(keeper["y"].next, nullptr);
  ASSERT_EQ(change_key(x).result, KS_SUCCESS) << "asked once more, it sends the key again";
  go_on(60, 100ms);
  EXPECT_FALSE(x.core.key_change().change);
  EXPECT_EQ(again.core.memory().key_id(), x.core.memory().key_id());
}

TEST_F(Fleet, TakesAHeaderUnderTheKeyOfBeforeForAStoreThatWasSetBack) {
  Machine &x = start("x", 1);
  put_many(x, 2);
  const StoreModel before = store;
  ASSERT_EQ(change_key(x).result, KS_SUCCESS);
  go_on(10);
  ASSERT_NE(x.core.memory().key_id(), vault::key_id_of(*master_key()));
  store.set_back(before);
  go_on(10, 100ms);
  EXPECT_EQ(x.standing(), Standing::kTampered);
}

}  // namespace
}  // namespace ksd::fleet
