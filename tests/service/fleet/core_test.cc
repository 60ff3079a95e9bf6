// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// The core by hand, where a schedule would meet a case once in ten thousand times.
#include "fleet/core.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <map>

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

std::shared_ptr<const SecretBytes> master_key(uint8_t fill = 7) {
  return SecretBytes::copy_of(std::vector<uint8_t>(vault::kMasterKeySize, fill));
}

// Machine is a core whose requests are carried out when the test says so.
class Machine final : private Readers {
 public:
  Machine(StoreModel &store, CoreOptions options) : store_(store), core(std::move(options), owners_, *this) {
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
  Restore::Progress::State restored() const { return core.restoring()->progress().state; }
  bool has(const std::string &name) const { return core.memory().state().table.find(secret_name(name)) != nullptr; }
  Standing standing() const { return core.standing(now); }

  void see_changes() {
    while (watch_ && watch_->from <= store_.revision()) {
      const StoreModel::Change change = store_.at(watch_->from);
      core.take(now, Changed{watch_->id, watch_->from++, change.puts, change.deletes});
    }
  }

  Time now{};

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
  void execute(const Beat &) {}
  void execute(const ReadBeats &) {}

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

// restored gives the store as a restore of what is in it would leave it.
void restore(StoreModel &store) {
  const vault::Sealer sealer(*master_key(), kFleet);
  const std::optional<HeaderFront> front = header_front(store.header()->value);
  FleetHeader header = *decode_header(sealer.open(vault::RecordKind::kFleetHeader, 0, front->sealed)->bytes());
  ++header.incarnation;
  header.version = 1;
  store.change({{.key = kHeaderKey, .value = seal_header(header, front->key, sealer), .mod_revision = 0}}, {});
}

TEST(FleetCore, MakesAFleetWhereThereIsNone) {
  StoreModel store;
  Machine x(store, Machine::options("x"));
  x.come_up();
  EXPECT_EQ(x.standing(), Standing::kGood);
  EXPECT_EQ(x.core.memory().header().version, 1u);
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

using State = Restore::Progress::State;

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
  EXPECT_EQ(x.restored(), State::kDone);
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
    was_done = restorer.restored() == State::kDone;

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
    EXPECT_EQ(z.restored(), State::kDone);
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
  ASSERT_EQ(y.restored(), State::kDone);
  while (x.carry_out_next()) {
  }
  EXPECT_EQ(x.restored(), State::kStopped);
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
  EXPECT_EQ(x.restored(), State::kDone);
  EXPECT_FALSE(x.has("in between"));
  EXPECT_EQ(x.core.memory().header().version, version + 1);
}

TEST_F(FleetRestore, EndsWhenItIsGivenUpBeforeItsLastStep) {
  x.core.restore(x.now, backup);
  for (int i = 0; i < 4; ++i) ASSERT_TRUE(x.carry_out_next());
  x.core.give_up_restore();
  while (x.carry_out_next()) {
  }
  EXPECT_EQ(x.restored(), State::kStopped);
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
  EXPECT_EQ(n.restored(), State::kDone);
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
  EXPECT_EQ(other.restored(), State::kStopped);
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
  EXPECT_EQ(x.restored(), State::kStopped);
  EXPECT_EQ(x.core.restoring()->progress().result, KS_STORE_FULL);
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
  EXPECT_EQ(x.restored(), State::kDone);
  EXPECT_EQ(x.core.memory().header().incarnation, 2u);
  EXPECT_EQ(x.standing(), Standing::kGood);
}

}  // namespace
}  // namespace ksd::fleet
