// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "vault/table.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>

#include "random_input.h"
#include "vault_files/vault_files.h"

namespace ksd::vault {
namespace {

void apply_to(Table &table, const RowChanges &changes) {
  table.apply(changes, table.prepare(changes));
}

using testing::ElementsAre;

RowPtr row(uint64_t id, const std::string &name, std::optional<std::string> alias = {}) {
  const auto made = std::make_shared<EntryRow>();
  made->id = id;
  made->name = secret_name(name);
  if (alias) made->alias = std::make_shared<const EntryName>(secret_name(*alias));
  made->secret = SecretBytes::copy_of({});
  made->metadata = std::make_shared<const std::vector<uint8_t>>();
  return made;
}

std::vector<std::string> names(const Table &table) {
  std::vector<std::string> all;
  for (size_t i = 0; i < table.size(); ++i) all.push_back(table.at(i)->name.name);
  return all;
}

Table table_of(const std::vector<std::string> &all) {
  Table table;
  RowChanges rows;
  for (uint64_t id = 1; id <= all.size(); ++id) rows[id] = {nullptr, row(id, all[id - 1])};
  apply_to(table, rows);
  return table;
}

void remove(Table &table, const std::string &name) {
  Draft draft(table);
  draft.replace(draft.find(secret_name(name)), nullptr);
  apply_to(table, draft.changes());
}

TEST(Table, KeepsTheOrderOfTheRestWhenEntriesGo) {
  Table table = table_of({"a", "b", "c", "d", "e", "f"});
  Draft draft(table);
  for (const char *name : {"e", "a", "c"}) draft.replace(draft.find(secret_name(name)), nullptr);
  EXPECT_EQ(draft.size(), 3u);
  EXPECT_EQ(table.size(), 6u) << "nothing shows before it is applied";
  apply_to(table, draft.changes());

  EXPECT_THAT(names(table), ElementsAre("b", "d", "f"));
  EXPECT_EQ(table.at(3), nullptr);
  EXPECT_EQ(table.find(secret_name("a")), nullptr);
  EXPECT_NE(table.find(secret_name("f")), nullptr);
}

TEST(Table, FindsAnEntryByNameAndAliasAndByNothingElse) {
  Table table;
  apply_to(table, {{1, {nullptr, row(1, "name", "alias")}}});

  EXPECT_EQ(table.find(secret_name("name")), table.find(secret_name("alias")));
  EXPECT_NE(table.find(secret_name("name")), nullptr);
  EXPECT_EQ(table.find(secret_name("name", 8)), nullptr);
  EXPECT_EQ(table.find({KS_NAME_TAG_PAC, 7, "name"}), nullptr);
  EXPECT_EQ(table.find(secret_name("nam")), nullptr);
}

TEST(Draft, LetsAnEntryTakeANameThatAnotherGaveUpInTheSameGroup) {
  Table table = table_of({"a", "b"});
  Draft draft(table);
  const RowPtr a = draft.find(secret_name("a")), b = draft.find(secret_name("b"));
  draft.replace(a, row(a->id, "c"));
  draft.replace(b, row(b->id, "a"));
  EXPECT_EQ(draft.find(secret_name("a"))->id, 2u);
  EXPECT_EQ(draft.find(secret_name("b")), nullptr);
  apply_to(table, draft.changes());

  EXPECT_THAT(names(table), ElementsAre("c", "a"));
  EXPECT_EQ(table.find(secret_name("a"))->id, 2u);
  EXPECT_EQ(table.find(secret_name("b")), nullptr);
}

TEST(Draft, LeavesNoTraceOfAnEntryThatCameAndWentInTheSameGroup) {
  Table table = table_of({"a"});
  Draft draft(table);
  const RowPtr fleeting = row(2, "b", "c");
  draft.replace(nullptr, fleeting);
  draft.replace(fleeting, nullptr);

  EXPECT_TRUE(draft.changes().empty());
  EXPECT_EQ(draft.size(), 1u);
  EXPECT_EQ(draft.find(secret_name("b")), nullptr);
  EXPECT_EQ(draft.find(secret_name("c")), nullptr);
}

TEST(Table, AgreesWithAListThroughRandomGroups) {
  std::mt19937 random = ks_test::random_input();
  Table table;
  std::vector<std::string> model;
  uint64_t last_id = 0;
  for (int round = 0; round < 500; ++round) {
    Draft draft(table);
    for (auto n = random() % 40; n > 0; --n) {
      const std::string name = "n" + std::to_string(random() % 200);
      const RowPtr before = draft.find(secret_name(name));
      const auto place = std::find(model.begin(), model.end(), name);
      ASSERT_EQ(before != nullptr, place != model.end());
      if (before == nullptr) {
        draft.replace(nullptr, row(++last_id, name));
        model.push_back(name);
      } else if (random() % 3 == 0) {
        const std::string other = name + "x" + std::to_string(round) + "." + std::to_string(n);
        draft.replace(before, row(before->id, other));
        *place = other;
      } else {
        draft.replace(before, nullptr);
        model.erase(place);
      }
    }
    apply_to(table, draft.changes());
    ASSERT_EQ(names(table), model);
    for (const std::string &name : model) ASSERT_EQ(table.find(secret_name(name))->name.name, name);
  }
}

TEST(Table, HoldsAllPositionsAndClosesUpWhenFull) {
  std::vector<std::string> all;
  for (int i = 0; i < 65535; ++i) all.push_back("entry-" + std::to_string(i));
  Table table = table_of(all);
  ASSERT_EQ(table.size(), 65535u);
  EXPECT_EQ(table.at(65534)->name.name, "entry-65534");

  for (int i = 0; i < 1000; ++i) remove(table, "entry-" + std::to_string(i));

  EXPECT_EQ(table.size(), 64535u);
  EXPECT_EQ(table.at(0)->name.name, "entry-1000");
  EXPECT_EQ(table.at(64534)->name.name, "entry-65534");
}

// A full table has 65,535.
TEST(Table, TakesFewBytesForAnEntryBesideItsData) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the heap is the sanitizer's";
#endif
  constexpr size_t kMany = 20'000;
  const auto in_use = [] { return mallinfo2().uordblks; };
  const size_t before = in_use();
  Table table;
  table.reserve(kMany);
  for (uint64_t id = 1; id <= kMany; ++id) {
    EntryRow made;
    made.id = id;
    made.name = secret_name("entry " + std::to_string(id));
    made.secret = SecretBytes::allocate(32);
    made.metadata = metadata_of({});
    table.add(decode_entry(id, encode_entry(made)->bytes()));
  }
  EXPECT_EQ(table.size(), kMany);
  EXPECT_LT((in_use() - before) / kMany, 300u);
}

}  // namespace
}  // namespace ksd::vault
