// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "fleet/shared_vault.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <thread>

#include "fixture.h"
#include "fleet/belonging.h"
#include "fleet/clock.h"
#include "fleet_simulator/prompt_engine.h"
#include "log_lines.h"
#include "vault/database.h"
#include "vault_files/vault_files.h"

namespace ksd::fleet {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using vault::bytes_of;
using vault::metadata_in;
using vault::names_in;
using vault::put;
using vault::secret_in;
using vault::secret_name;

// eventually waits until `what` holds.
template <typename What>
bool eventually(What what) {
  const Time end = clock_now() + kSoon;
  while (!what()) {
    if (clock_now() > end) return false;
    poll(nullptr, 0, 1);
  }
  return true;
}

class SharedVaultTest : public testing::Test {
 protected:
  static SharedOptions options(const std::string &machine) {
    return {
        .machine = machine, .master_key = master_key(), .create = true, .owners = {{1000, "radius"}, {1001, "eap"}}};
  }

  // open starts a machine; `engine_of` has its engine.
  std::unique_ptr<SharedVault> open(const SharedOptions &options) {
    auto engine = std::make_unique<PromptEngine>(store);
    engine_of[options.machine] = engine.get();
    return std::make_unique<SharedVault>(options, std::move(engine));
  }
  std::unique_ptr<SharedVault> loaded(const SharedOptions &options) {
    auto vault = open(options);
    EXPECT_TRUE(vault->wait_until_loaded(kSoon));
    return vault;
  }
  void cut(const std::string &machine, bool cut, bool in_doubt = false) { engine_of[machine]->cut(cut, in_doubt); }

  SharedStore store;
  std::map<std::string, PromptEngine *> engine_of;
};

// code_of gives the code that a read is refused with, or success.
KsResult code_of_read(const vault::Store &vault, const std::string &name) {
  try {
    vault.find(secret_name(name));
    return KS_SUCCESS;
  } catch (const vault::Unavailable &unavailable) {
    return unavailable.code();
  }
}

TEST_F(SharedVaultTest, ReadsItsOwnChangesAndThoseOfOthers) {
  const auto x = loaded(options("x")), y = loaded(options("y"));
  EXPECT_EQ(put(*x, "wifi", "correct horse", "channel 11"), KS_SUCCESS);
  EXPECT_EQ(secret_in(*x, secret_name("wifi")), "correct horse");
  EXPECT_TRUE(eventually([&] { return secret_in(*y, secret_name("wifi")) == "correct horse"; }));

  EXPECT_EQ(y->set_metadata(secret_name("wifi"), bytes_of("channel 6")), KS_SUCCESS);
  EXPECT_EQ(y->rename(secret_name("wifi"), secret_name("home")), KS_SUCCESS);
  EXPECT_TRUE(eventually([&] { return metadata_in(*x, secret_name("home")) == "channel 6"; }));
  EXPECT_EQ(x->remove(secret_name("home")), KS_SUCCESS);
  EXPECT_TRUE(eventually([&] { return y->count() == 0; }));
  EXPECT_EQ(x->status().standing, Standing::kGood);
}

TEST_F(SharedVaultTest, RefusesBySomebodyElsesChangeAtOnce) {
  const auto x = loaded(options("x")), y = loaded(options("y"));
  ASSERT_EQ(put(*x, "wifi", "1"), KS_SUCCESS);
  // Whether or not y has heard of it.
  EXPECT_EQ(y->rename(secret_name("none"), secret_name("wifi")), KS_NOT_FOUND);
  EXPECT_EQ(y->remove(secret_name("wifi")), KS_SUCCESS);
  EXPECT_EQ(x->remove(secret_name("wifi")), KS_NOT_FOUND);
}

TEST_F(SharedVaultTest, HasTheSamePositionsOnAllMachines) {
  const auto x = loaded(options("x")), y = loaded(options("y"));
  std::vector<std::thread> clients;
  for (int i = 0; i < 8; ++i) {
    clients.emplace_back([&, i] {
      for (int k = 0; k < 10; ++k) {
        EXPECT_EQ(put(i % 2 ? *x : *y, std::to_string(i) + "-" + std::to_string(k), "secret"), KS_SUCCESS);
      }
    });
  }
  for (std::thread &client : clients) client.join();
  EXPECT_TRUE(eventually([&] { return x->status().version == y->status().version; }));
  EXPECT_EQ(names_in(*x), names_in(*y));
  EXPECT_EQ(x->count(), 80u);
}

TEST_F(SharedVaultTest, CountsAnOwnerByNameWhateverTheUserNumber) {
  SharedOptions there = options("y");
  there.owners = {{2000, "radius"}};
  there.limits.entries_per_user = 1;
  const auto x = loaded(options("x")), y = loaded(there);
  ASSERT_EQ(put(*x, "wifi", "1", "", 1000), KS_SUCCESS);
  EXPECT_EQ(put(*y, "other", "1", "", 2000), KS_STORE_FULL);
  EXPECT_EQ(put(*y, "other", "1", "", 2001), KS_SUCCESS) << "of one without a name of its own";
  const std::vector<vault::Owner> owners = y->owners(0, 10);
  ASSERT_EQ(owners.size(), 2u);
  EXPECT_EQ(owners[0].uid, 2000u);
}

TEST_F(SharedVaultTest, TellsWhichContentsAreGone) {
  const auto x = loaded(options("x")), y = open(options("y"));
  std::mutex mutex;
  std::vector<uint64_t> gone;
  y->on_retired([&](uint64_t generation) {
    const std::lock_guard lock(mutex);
    gone.push_back(generation);
  });
  ASSERT_TRUE(y->wait_until_loaded(kSoon));
  ASSERT_EQ(put(*x, "wifi", "1"), KS_SUCCESS);
  ASSERT_TRUE(eventually([&] { return y->exists(secret_name("wifi")); }));
  const uint64_t first = y->find(secret_name("wifi"))->generation;
  ASSERT_EQ(x->set_metadata(secret_name("wifi"), bytes_of("channel 6")), KS_SUCCESS);
  ASSERT_TRUE(eventually([&] { return metadata_in(*y, secret_name("wifi")) == "channel 6"; }));
  EXPECT_EQ(y->find(secret_name("wifi"))->generation, first) << "the secret is the same";

  const uint64_t epoch = y->epoch();
  ASSERT_EQ(put(*x, "wifi", "2"), KS_SUCCESS);
  EXPECT_TRUE(eventually([&] {
    const std::lock_guard lock(mutex);
    return gone == std::vector{first};
  }));
  EXPECT_NE(y->find(secret_name("wifi"))->generation, first);
  EXPECT_NE(y->epoch(), epoch);
}

TEST_F(SharedVaultTest, SaysThatItDoesntKnowRatherThanNoOnceMemoryIsTooOld) {
  SharedOptions short_lived = options("x");
  short_lived.max_age = 400ms;
  const auto x = loaded(short_lived);
  ASSERT_EQ(put(*x, "wifi", "1"), KS_SUCCESS);
  cut("x", true);
  const uint64_t epoch = x->epoch();
  EXPECT_TRUE(eventually([&] { return code_of_read(*x, "wifi") != KS_SUCCESS; }));
  EXPECT_EQ(code_of_read(*x, "wifi"), KS_FW_COMM_ERROR);
  EXPECT_EQ(code_of_read(*x, "none"), KS_FW_COMM_ERROR);
  EXPECT_THROW(x->exists(secret_name("wifi")), vault::Unavailable);
  EXPECT_THROW(x->at(0), vault::Unavailable);
  EXPECT_THROW(x->count(), vault::Unavailable);
  EXPECT_THROW(x->snapshot(), vault::Unavailable);
  EXPECT_TRUE(eventually([&] { return x->epoch() != epoch; })) << "keys that threads remember are too old as well";
  cut("x", false);
  EXPECT_TRUE(eventually([&] { return code_of_read(*x, "wifi") == KS_SUCCESS; }));
}

TEST_F(SharedVaultTest, SaysOnceThatThereAreEntriesHoweverTheFleetGetsOn) {
  const LogLines log;
  {
    const auto x = loaded(options("x"));
    const auto is_well = [&] { return x->status().standing == Standing::kGood; };
    ASSERT_TRUE(eventually(is_well));
    cut("x", true);
    ASSERT_TRUE(eventually([&] { return !is_well(); }));
    cut("x", false);
    ASSERT_TRUE(eventually(is_well));
  }
  const std::string said = log.text();
  const auto times_of = [&](const std::string &words) {
    int times = 0;
    for (size_t at = said.find(words); at != said.npos; at = said.find(words, at + 1)) ++times;
    return times;
  };
  EXPECT_EQ(times_of(" entries as of change "), 1) << said;
  EXPECT_EQ(times_of("too old to be read"), 0) << said;
  EXPECT_EQ(times_of("the fleet is followed, and changes are taken\n"), 2) << said;
}

TEST_F(SharedVaultTest, RefusesChangesThatItCantSend) {
  const auto x = loaded(options("x"));
  cut("x", true);
  EXPECT_EQ(put(*x, "wifi", "1"), KS_FW_COMM_ERROR);
  EXPECT_TRUE(eventually([&] { return x->status().standing == Standing::kNoContact; }));
  EXPECT_THAT(x->condition().refusal, HasSubstr("doesn't answer"));
  const Time before = clock_now();
  EXPECT_EQ(put(*x, "wifi", "1"), KS_FW_COMM_ERROR);
  EXPECT_LT(clock_now() - before, 1s) << "at once, when that is known";
  cut("x", false);
  EXPECT_TRUE(eventually([&] { return put(*x, "wifi", "2") == KS_SUCCESS; }));
  EXPECT_TRUE(eventually([&] { return x->condition().refusal.empty(); }));
}

TEST_F(SharedVaultTest, SaysSoWhenItDoesntKnowWhatBecameOfAChange) {
  SharedOptions hasty = options("x");
  hasty.write_wait = 300ms;
  const auto x = loaded(hasty);
  cut("x", true, true);
  EXPECT_EQ(put(*x, "wifi", "1"), KS_TIMEOUT);
}

TEST_F(SharedVaultTest, SaysThatTheStoreIsFull) {
  const auto x = loaded(options("x"));
  engine_of["x"]->fill();
  EXPECT_EQ(put(*x, "wifi", "1"), KS_STORE_FULL);
  EXPECT_THAT(x->condition().refusal, HasSubstr("quota"));
}

TEST_F(SharedVaultTest, StopsChangingAStoreThatWasTamperedWith) {
  const auto x = loaded(options("x"));
  ASSERT_EQ(put(*x, "wifi", "1"), KS_SUCCESS);
  {
    const std::lock_guard lock(store.mutex);
    store.model.change({}, {row_key({.folder = 0, .id = 1})});
  }
  cut("x", false);  // has it look at the store
  EXPECT_TRUE(eventually([&] { return x->status().standing == Standing::kTampered; }));
  EXPECT_TRUE(x->condition().until_restart);
  EXPECT_EQ(put(*x, "other", "1"), KS_FW_BAD_CELL);
  EXPECT_EQ(secret_in(*x, secret_name("wifi")), "1") << "what was checked is read on";
}

// ---- Entries of a vault ----

class Import : public SharedVaultTest {
 protected:
  // from_vault gives the entries of a vault of three, of two owners, of which one has an alias.
  std::vector<vault::RowPtr> from_vault(SharedVault &into) const {
    {
      const auto own = folder.open();
      vault::put(*own, "wifi", "correct horse", "channel 11", 1000);
      own->put(secret_name("eap"), secret_name("eap-tls"), bytes_of("battery"), bytes_of(""), 1001);
      vault::put(*own, "vpn", "staple", "", 1007);
    }
    size_t unnamed = 0;
    const auto rows = into.of_fleet(vault::read_vault(folder.options()), unnamed);
    EXPECT_EQ(unnamed, 1u);
    return rows;
  }

  vault::Folder folder;
};

TEST_F(Import, TakesAllOfAnEntryAndKeepsTheOrder) {
  const auto x = loaded(options("x"));
  ASSERT_EQ(put(*x, "first", "1"), KS_SUCCESS);
  const auto rows = from_vault(*x);
  const ImportPlan plan = x->plan_import(rows, vault::Taken::kRefuse);
  EXPECT_EQ(plan.counts.added, 3u);
  EXPECT_TRUE(plan.taken.empty());
  EXPECT_EQ(x->count(), 1u) << "nothing was changed";
  ImportCounts counts;
  EXPECT_EQ(x->import(rows, vault::Taken::kRefuse, counts), KS_SUCCESS);
  EXPECT_EQ(counts.added, 3u);
  EXPECT_THAT(names_in(*x), ElementsAre("first", "wifi", "eap", "vpn"));
  EXPECT_EQ(secret_in(*x, secret_name("wifi")), "correct horse");
  EXPECT_EQ(metadata_in(*x, secret_name("wifi")), "channel 11");
  EXPECT_EQ(secret_in(*x, secret_name("eap-tls")), "battery");
  const std::vector<vault::Owner> owners = x->owners(1001, 10);
  ASSERT_FALSE(owners.empty());
  EXPECT_EQ(owners[0].uid, 1001u);
  EXPECT_EQ(owners[0].entries, 1u);
  EXPECT_EQ(vault::read_vault(folder.options()).size(), 3u) << "the vault is as it was";
}

TEST_F(Import, FindsThereWhatAnEarlierOneHasTakenIn) {
  const auto x = loaded(options("x"));
  const auto rows = from_vault(*x);
  ImportCounts counts;
  ASSERT_EQ(x->import(std::span(rows).first(2), vault::Taken::kRefuse, counts), KS_SUCCESS);
  const uint64_t version = x->status().version;
  const ImportPlan plan = x->plan_import(rows, vault::Taken::kRefuse);
  EXPECT_EQ(plan.counts.same, 2u);
  EXPECT_EQ(plan.counts.added, 1u);
  ImportCounts again;
  EXPECT_EQ(x->import(rows, vault::Taken::kRefuse, again), KS_SUCCESS);
  EXPECT_EQ(again.same, 2u);
  EXPECT_EQ(x->status().version, version + 1);
  EXPECT_THAT(names_in(*x), ElementsAre("wifi", "eap", "vpn"));
}

TEST_F(Import, RefusesLeavesOutOrReplacesWhatHasAnotherContent) {
  const auto x = loaded(options("x"));
  const auto rows = from_vault(*x);
  ASSERT_EQ(put(*x, "eap-tls", "other", "", 1000), KS_SUCCESS);  // the alias of one of them
  const ImportPlan plan = x->plan_import(rows, vault::Taken::kRefuse);
  ASSERT_EQ(plan.taken.size(), 1u);
  EXPECT_EQ(plan.taken[0], secret_name("eap"));
  EXPECT_EQ(x->plan_import(rows, vault::Taken::kSkip).counts.skipped, 1u);
  EXPECT_EQ(x->plan_import(rows, vault::Taken::kReplace).counts.replaced, 1u);

  ImportCounts counts;
  EXPECT_EQ(x->import(rows, vault::Taken::kSkip, counts), KS_SUCCESS);
  EXPECT_EQ(secret_in(*x, secret_name("eap-tls")), "other");
  EXPECT_EQ(x->import(rows, vault::Taken::kReplace, counts), KS_SUCCESS);
  EXPECT_EQ(secret_in(*x, secret_name("eap-tls")), "battery");
  EXPECT_THAT(names_in(*x), ElementsAre("eap", "wifi", "vpn")) << "in the place of what it replaces";

  ASSERT_EQ(x->remove(secret_name("eap")), KS_SUCCESS);
  ASSERT_EQ(put(*x, "eap", "one"), KS_SUCCESS);
  ASSERT_EQ(put(*x, "eap-tls", "two"), KS_SUCCESS);
  EXPECT_EQ(x->plan_import(rows, vault::Taken::kReplace).taken.size(), 1u) << "it would take the places of two";
}

TEST_F(Import, TakesWhatDiffersInAnyPartForAnotherContent) {
  const auto x = loaded(options("x"));
  const auto rows = from_vault(*x);
  const auto same_as = [&](const std::string &name, const std::string &alias, const std::string &secret,
                           const std::string &metadata, uid_t owner) {
    std::optional<EntryName> second;
    if (!alias.empty()) second = secret_name(alias);
    EXPECT_EQ(x->put(secret_name(name), second, bytes_of(secret), bytes_of(metadata), owner), KS_SUCCESS);
    const size_t same = x->plan_import(rows, vault::Taken::kRefuse).counts.same;
    EXPECT_EQ(x->remove(secret_name(name)), KS_SUCCESS);
    return same == 1;
  };
  EXPECT_TRUE(same_as("wifi", "", "correct horse", "channel 11", 1000));
  EXPECT_FALSE(same_as("wifi", "wlan", "correct horse", "channel 11", 1000));
  EXPECT_FALSE(same_as("wifi", "", "correct", "channel 11", 1000));
  EXPECT_FALSE(same_as("wifi", "", "correct house", "channel 11", 1000));
  EXPECT_FALSE(same_as("wifi", "", "correct horse", "channel 12", 1000));
  EXPECT_FALSE(same_as("wifi", "", "correct horse", "channel 11", 1001));
  EXPECT_TRUE(same_as("eap", "eap-tls", "battery", "", 1001));
  EXPECT_FALSE(same_as("eap", "eap-ttls", "battery", "", 1001));
  EXPECT_FALSE(same_as("eap", "", "battery", "", 1001));
}

TEST_F(Import, TellsTheLimitInItsWay) {
  SharedOptions narrow = options("x");
  narrow.limits.entries = 2;
  const auto x = loaded(narrow);
  const ImportPlan plan = x->plan_import(from_vault(*x), vault::Taken::kRefuse);
  ASSERT_TRUE(plan.limit);
  EXPECT_STREQ(plan.limit->limit_name, "entries");
}

class MirrorTest : public SharedVaultTest {
 protected:
  SharedOptions mirrored(const std::string &machine) const {
    SharedOptions with = options(machine);
    with.mirror = folder.path() + "/mirror.db";
    return with;
  }

  vault::Folder folder;
};

TEST_F(MirrorTest, ServesAStartWithoutTheStore) {
  {
    const auto x = loaded(mirrored("x"));
    ASSERT_EQ(put(*x, "wifi", "correct horse"), KS_SUCCESS);
    ASSERT_EQ(put(*x, "other", "1"), KS_SUCCESS);
    ASSERT_EQ(x->remove(secret_name("other")), KS_SUCCESS);
  }
  auto engine = std::make_unique<PromptEngine>(store);
  engine->cut(true);
  SharedVault x(mirrored("x"), std::move(engine));
  ASSERT_TRUE(x.wait_until_loaded(0ms)) << "from the beginning";
  EXPECT_EQ(secret_in(x, secret_name("wifi")), "correct horse");
  EXPECT_THAT(names_in(x), ElementsAre("wifi"));
  EXPECT_EQ(put(x, "more", "1"), KS_FW_COMM_ERROR);
}

TEST_F(MirrorTest, WritesNoRowAgainAtAStartThatFindsNothingNew) {
  const std::string path = mirrored("x").mirror;
  const auto sealed_rows = [&] {
    std::map<uint64_t, std::vector<uint8_t>> rows;
    vault::Database(path).for_each_entry(
        [&](uint64_t id, Bytes sealed) { rows[id].assign(sealed.begin(), sealed.end()); });
    return rows;
  };
  { ASSERT_EQ(put(*loaded(mirrored("x")), "wifi", "1"), KS_SUCCESS); }
  const auto before = sealed_rows();
  ASSERT_EQ(before.size(), 1u);
  loaded(mirrored("x"));
  EXPECT_EQ(sealed_rows(), before) << "a row that is sealed once more has other bytes";
  // What others changed meanwhile is written.
  { ASSERT_EQ(put(*loaded(options("y")), "other", "1"), KS_SUCCESS); }
  loaded(mirrored("x"));
  EXPECT_EQ(sealed_rows().size(), 2u);
}

TEST_F(MirrorTest, LetsNoRestartMakeWhatItHoldsYounger) {
  SharedOptions short_lived = mirrored("x");
  short_lived.max_age = 500ms;
  {
    const auto x = loaded(short_lived);
    ASSERT_EQ(put(*x, "wifi", "1"), KS_SUCCESS);
  }
  poll(nullptr, 0, 600);  // the time that passes is what is tested
  auto engine = std::make_unique<PromptEngine>(store);
  engine->cut(true);
  SharedVault x(short_lived, std::move(engine));
  EXPECT_EQ(code_of_read(x, "wifi"), KS_FW_COMM_ERROR);
}

// A machine may be put back to an earlier state, with the kernel that runs on it, and without its disk.
TEST_F(MirrorTest, IsNoYoungerWhereTheKernelsClockWasPutBack) {
  {
    const auto x = loaded(mirrored("x"));
    ASSERT_EQ(put(*x, "wifi", "1"), KS_SUCCESS);
  }
  {
    constexpr size_t kClock = 56;
    vault::Database database(folder.path() + "/mirror.db");
    const vault::VaultIdentity identity = database.identity();
    const vault::Sealer sealer(*master_key(), identity.vault_id);
    const auto plain = sealer.open(vault::RecordKind::kMirror, 0, identity.sealed_header);
    std::vector<uint8_t> state(plain->bytes().begin(), plain->bytes().end());
    const auto later = static_cast<uint64_t>((clock_now() + 1h) / 1ms);
    std::memcpy(state.data() + kClock, &later, sizeof later);
    ASSERT_FALSE(
        database.transaction([&] { return database.put_header(sealer.seal(vault::RecordKind::kMirror, 0, state)); }));
  }
  auto engine = std::make_unique<PromptEngine>(store);
  engine->cut(true);
  const SharedVault x(mirrored("x"), std::move(engine));
  EXPECT_EQ(code_of_read(x, "wifi"), KS_SUCCESS);
  EXPECT_GE(*x.status().age, 10s);
}

TEST_F(MirrorTest, HasAStartNoticeThatTheStoreWasSetBack) {
  StoreModel before;
  {
    const auto x = loaded(mirrored("x"));
    ASSERT_EQ(put(*x, "wifi", "old"), KS_SUCCESS);
    {
      const std::lock_guard lock(store.mutex);
      before = store.model;
    }
    ASSERT_EQ(put(*x, "wifi", "new"), KS_SUCCESS);
  }
  store.model.set_back(before);
  const auto x = open(mirrored("x"));
  EXPECT_TRUE(eventually([&] { return x->status().standing == Standing::kTampered; }));
  EXPECT_EQ(secret_in(*x, secret_name("wifi")), "new");
}

TEST_F(MirrorTest, RefusesTheMirrorOfAnotherKeyOrFleetAndADamagedOne) {
  { ASSERT_EQ(put(*loaded(mirrored("x")), "wifi", "1"), KS_SUCCESS); }
  SharedOptions other = mirrored("x");
  other.master_key = master_key(8);
  EXPECT_THAT(vault::refusal_of([&] { open(other); }), HasSubstr("another master key"));
  other = mirrored("x");
  other.fleet = FleetId{9};
  EXPECT_THAT(vault::refusal_of([&] { open(other); }), HasSubstr("another fleet"));
  vault::run_sql(mirrored("x").mirror, "DELETE FROM entry");
  EXPECT_THAT(vault::refusal_of([&] { open(mirrored("x")); }), HasSubstr("damaged"));
}

TEST_F(MirrorTest, RefusesAFileThatOthersMayWrite) {
  ASSERT_EQ(chmod(folder.path().c_str(), 0777), 0);
  EXPECT_THAT(vault::refusal_of([&] { open(mirrored("x")); }), HasSubstr("mirror.db"));
}

// ---- Restore ----

class RestoredFleet : public MirrorTest {
 protected:
  static Restore::Wanted backup_of(SharedVault &machine, uint64_t folder) {
    vault::Snapshot snapshot = machine.snapshot();
    std::ranges::sort(snapshot.rows, {}, [](const vault::RowPtr &row) { return row->id; });
    return {.rows = std::move(snapshot.rows),
            .last_id = snapshot.header.last_id,
            .last_version = snapshot.header.last_version,
            .fleet = snapshot.vault_id,
            .folder = folder};
  }
  static RestoreState restored(SharedVault &machine) {
    RestoreState state = RestoreState::kGoesOn;
    eventually([&] {
      state = machine.wait_for_restore().state;
      return state == RestoreState::kDone || state == RestoreState::kStopped;
    });
    return state;
  }
};

TEST_F(RestoredFleet, IsFollowedByAMachineThatIsToldAlsoWhenItStartsAgain) {
  const auto x = loaded(options("x"));
  auto y = loaded(mirrored("y"));
  ASSERT_EQ(put(*x, "wifi", "old"), KS_SUCCESS);
  const Restore::Wanted backup = backup_of(*x, 5);
  ASSERT_EQ(put(*x, "wifi", "new"), KS_SUCCESS);
  ASSERT_TRUE(eventually([&] { return secret_in(*y, secret_name("wifi")) == "new"; }));
  ASSERT_EQ(y->accept_incarnation(2), KS_NOT_FOUND) << "there is nothing to accept";
  ASSERT_EQ(x->begin_restore(backup), KS_SUCCESS);
  ASSERT_EQ(restored(*x), RestoreState::kDone);
  EXPECT_TRUE(eventually([&] { return secret_in(*x, secret_name("wifi")) == "old"; }));
  ASSERT_TRUE(eventually([&] { return y->status().restored_to == 2; }));
  EXPECT_THAT(y->status().words, HasSubstr("ksctl fleet accept 2"));
  EXPECT_EQ(secret_in(*y, secret_name("wifi")), "new");

  EXPECT_EQ(y->accept_incarnation(3), KS_INVALID_ARGS);
  EXPECT_EQ(y->accept_incarnation(2), KS_SUCCESS);
  EXPECT_EQ(secret_in(*y, secret_name("wifi")), "old");
  y.reset();
  y = loaded(mirrored("y"));
  EXPECT_EQ(put(*y, "after", "1"), KS_SUCCESS);
  EXPECT_EQ(y->status().incarnation, 2u);
}

TEST_F(RestoredFleet, StopsAgainWhereTheStoreWasntRestoredAtAll) {
  const auto x = loaded(options("x"));
  ASSERT_EQ(put(*x, "wifi", "1"), KS_SUCCESS);
  {
    const std::lock_guard lock(store.mutex);
    store.model.change({}, {row_key({.folder = 0, .id = 1})});
  }
  cut("x", false);
  ASSERT_TRUE(eventually([&] { return x->status().standing == Standing::kTampered; }));
  EXPECT_EQ(x->accept_incarnation(2), KS_INVALID_ARGS);
  EXPECT_EQ(x->status().standing, Standing::kTampered);
}

TEST_F(RestoredFleet, HasTheOwnersThatABackupNames) {
  const auto x = loaded(options("x"));
  ASSERT_EQ(put(*x, "wifi", "1", "", 1001), KS_SUCCESS);
  EXPECT_EQ(x->snapshot().owners.at(1001), "eap");
}

// ---- Which fleet it is ----

TEST_F(MirrorTest, NeverMakesAFleetAgainOverAStoreThatWasEmptied) {
  SharedOptions without_mirror = options("x");
  without_mirror.belonging = folder.path() + "/master.key.fleet";
  const auto started = [&] {
    SharedOptions again = without_mirror;
    again.fleet = read_belonging(again.belonging);
    return open(again);
  };
  EXPECT_EQ(read_belonging(without_mirror.belonging), std::nullopt);
  {
    const auto x = started();
    ASSERT_TRUE(x->wait_until_loaded(kSoon));
    ASSERT_TRUE(eventually([&] { return x->status().fleet.has_value(); }));  // told a moment after the load
    EXPECT_EQ(read_belonging(without_mirror.belonging), x->status().fleet);
  }
  store.model.set_back(StoreModel());
  const auto x = started();
  EXPECT_TRUE(eventually([&] { return x->status().standing == Standing::kNoFleet; }));
  EXPECT_THAT(x->status().words, HasSubstr("belongs to a fleet"));
  EXPECT_EQ(store.model.header(), std::nullopt);
}

TEST_F(MirrorTest, RefusesADamagedNoteOfItsFleet) {
  const std::string path = folder.path() + "/master.key.fleet";
  vault::write_file(path, "nothing\n");
  EXPECT_THAT(vault::refusal_of([&] { read_belonging(path); }), HasSubstr("doesn't say which fleet"));
  write_belonging(path, FleetId{1, 2});
  EXPECT_EQ(read_belonging(path), (FleetId{1, 2}));
}

bool same_key(const SecretBytes &a, const SecretBytes &b) {
  return vault::key_id_of(a) == vault::key_id_of(b);
}

// Keeper has keys in memory, over the starts of a machine.
struct Keeper final : KeyKeeper {
  std::string keep_next(const SecretBytes &key, const SecretBytes &) override {
    const std::lock_guard lock(mutex);
    next = SecretBytes::copy_of(key.bytes());
    return "";
  }
  std::string use(const SecretBytes &key) override {
    const std::lock_guard lock(mutex);
    if (refuses) return "not now";
    present = SecretBytes::copy_of(key.bytes());
    next.reset();
    return "";
  }
  KeyPtr key() {
    const std::lock_guard lock(mutex);
    return present;
  }

  std::mutex mutex;
  KeyPtr present = master_key(), next;
  bool refuses = false;
};

class KeyChangeTest : public MirrorTest {
 protected:
  SharedOptions keyed(const std::string &machine, uint8_t own_key) {
    SharedOptions with = mirrored(machine);
    with.mirror = folder.path() + "/" + machine + ".db";
    with.machine_key = SecretBytes::copy_of(std::vector<uint8_t>(32, own_key));
    auto &its = keeper[machine];
    if (its == nullptr) its = std::make_shared<Keeper>();
    with.keeper = its;
    with.master_key = its->present;
    with.next_key = its->next;
    return with;
  }

  std::map<std::string, std::shared_ptr<Keeper>> keeper;
};

TEST_F(KeyChangeTest, PutsTheNextKeyInPlaceOnceTheMirrorHasIt) {
  {
    const auto x = loaded(keyed("x", 1)), y = loaded(keyed("y", 2));
    ASSERT_EQ(put(*x, "wifi", "correct horse"), KS_SUCCESS);
    ASSERT_TRUE(eventually([&] { return x->machines().size() == 2 && y->machines().size() == 2; }));
    EXPECT_EQ(x->begin_key_change(Fingerprint{}).result, KS_BAD_KEY);
    ASSERT_EQ(x->begin_key_change(*y->fleet_key_change().machines).result, KS_SUCCESS);
    for (const char *name : {"x", "y"}) {
      EXPECT_TRUE(eventually([&] { return !same_key(*keeper[name]->key(), *master_key()); })) << name;
    }
    EXPECT_TRUE(same_key(*keeper["x"]->present, *keeper["y"]->present));
    EXPECT_EQ(put(*y, "other", "1"), KS_SUCCESS);
  }
  auto engine = std::make_unique<PromptEngine>(store);
  engine->cut(true);
  SharedVault x(keyed("x", 1), std::move(engine));
  ASSERT_TRUE(x.wait_until_loaded(0ms)) << "its mirror is sealed under the next key";
  EXPECT_EQ(secret_in(x, secret_name("wifi")), "correct horse");
}

TEST_F(KeyChangeTest, StartsWithAMirrorUnderTheNextKeyThatIsNotInPlaceYet) {
  SharedOptions with = keyed("x", 1);
  keeper["x"]->refuses = true;
  {
    const auto x = loaded(with);
    ASSERT_EQ(put(*x, "wifi", "correct horse"), KS_SUCCESS);
    ASSERT_EQ(x->begin_key_change(*x->fleet_key_change().machines).result, KS_SUCCESS);
    ASSERT_TRUE(eventually([&] { return !x->fleet_key_change().change; }));
  }
  ASSERT_NE(keeper["x"]->next, nullptr);
  keeper["x"]->refuses = false;
  const KeyPtr next = keeper["x"]->next;
  const auto again = loaded(keyed("x", 1));
  EXPECT_EQ(secret_in(*again, secret_name("wifi")), "correct horse");
  EXPECT_TRUE(eventually([&] { return same_key(*keeper["x"]->key(), *next); }));
}

}  // namespace
}  // namespace ksd::fleet
