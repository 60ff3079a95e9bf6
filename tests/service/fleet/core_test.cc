// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// The core by hand, where a schedule would meet a case once in ten thousand times.
#include "fleet/core.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

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
  bool has(const std::string &name) const { return core.memory().state().table.find(secret_name(name)) != nullptr; }
  Standing standing() const { return core.standing(now); }

  void see_changes() {
    while (watch_ && watch_->from <= store_.revision()) {
      const StoreModel::Change change = store_.at(watch_->from);
      core.take(now, Changed{watch_->id, watch_->from++, change.puts, change.deletes});
    }
  }

  Time now{};

 private:
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

  void lock() override {}
  void unlock() override {}
  void shown(const std::vector<uint64_t> &, const vault::RowChanges *) override {}

  StoreModel &store_;
  Owners owners_{{{1, "one"}}};
  std::optional<Watch> watch_;

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
  store.forget(row_key(1));
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

}  // namespace
}  // namespace ksd::fleet
