// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// Secrets end to end: the library, the host platform and a real service.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "ks_api.h"
#include "published_vectors.h"
#include "service/library_suite.h"
#include "service/service_process.h"

namespace {

using ks_test::ServiceProcess;
using ks_test::ServiceSetup;
using testing::ElementsAre;
using testing::IsEmpty;

const uint8_t *data(const std::string &text) {
  return reinterpret_cast<const uint8_t *>(text.data());
}
uint16_t size(const std::string &text) {
  return static_cast<uint16_t>(text.size());
}

KsResult store(const std::string &name, const std::string &secret = "secret", const std::string &metadata = "",
               const char *linked_name = nullptr) {
  return ks_store_secret_and_metadata(name.c_str(), linked_name, data(secret), size(secret), data(metadata),
                                      size(metadata));
}

KsResult add_metadata(const std::string &name, const std::string &metadata) {
  return ks_add_metadata(name.c_str(), data(metadata), size(metadata));
}

// metadata_of gives nothing for an entry that isn't there, and fails the test when the outputs were touched then.
std::optional<std::string> metadata_of(const std::string &name) {
  uint8_t untouched = 0, *block = &untouched;
  uint16_t len = 0xeeee;
  const KsResult result = ks_return_metadata(name.c_str(), &block, &len);
  if (result != KS_SUCCESS) {
    EXPECT_EQ(result, KS_NOT_FOUND);
    EXPECT_EQ(block, &untouched);
    EXPECT_EQ(len, 0xeeee);
    return std::nullopt;
  }
  std::string metadata(reinterpret_cast<char *>(block), len);
  free(block);
  return metadata;
}

bool exists(const std::string &name) {
  uint32_t flag = 0xeeeeeeee;
  EXPECT_EQ(ks_secret_exists(name.c_str(), &flag), KS_SUCCESS);
  EXPECT_LE(flag, 1u);
  return flag == 1;
}

KsResult clear(const std::string &name) {
  return ks_clear_secret(name.c_str());
}

KsResult rename(const std::string &from, const std::string &to, const char *linked_name = nullptr) {
  return ks_rename_secret(from.c_str(), to.c_str(), linked_name);
}

// Walk is a walk with its cursor.
struct Walk {
  uint16_t cursor = 0;
  KsResult result = KS_SUCCESS;

  // next gives nothing at the end, and fails the test when the outputs were touched then.
  std::optional<std::string> next() {
    char untouched = 0, *name = &untouched;
    const uint16_t before = cursor;
    result = ks_return_secret_handle_by_index(&cursor, &name);
    if (result != KS_SUCCESS) {
      EXPECT_EQ(name, &untouched);
      EXPECT_EQ(cursor, before);
      return std::nullopt;
    }
    std::string text = name;
    free(name);
    return text;
  }
};

std::vector<std::string> listed() {
  std::vector<std::string> names;
  Walk walk;
  while (const auto name = walk.next()) names.push_back(*name);
  EXPECT_EQ(walk.result, KS_NO_MORE_ENTRIES);
  return names;
}

// No operation gives a secret back: what the service holds shows in what it computes with it.
const published::HmacVector kJefe = published::hmac_md5()[1];
const std::string kSecret(kJefe.key.begin(), kJefe.key.end());

bool holds_the_secret(const std::string &name) {
  published::ByteString digest(16);
  return ks_hmac_md5(name.c_str(), kJefe.data.data(), static_cast<uint16_t>(kJefe.data.size()), digest.data()) ==
             KS_SUCCESS &&
         digest == published::unhex(kJefe.digest);
}

KsResult store_pac(const std::string &aid) {
  const std::string opaque("\x00\x02\x00\x01o", 5), info("\x00\x09\x00\x00", 4);
  return ks_store_pac(data(aid), size(aid), data("key"), 3, data(opaque), size(opaque), data(info), size(info));
}

// in_vdc runs a body in a process of its own, while the test's user is in another VDC.
bool in_vdc(ServiceProcess &service, unsigned vdc, const std::string &limits, const std::function<void()> &body) {
  service.reload(ks_test::config_of_own_user(vdc) + limits);
  const pid_t child = fork();
  if (child == 0) {
    EXPECT_EQ(ks_init(0, 1, 0), KS_SUCCESS);
    EXPECT_EQ(vdc_id, vdc);
    body();
    _exit(testing::Test::HasFailure() ? 1 : 0);
  }
  int status = 0;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  service.reload(ks_test::config_of_own_user(7) + limits);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

class Secret : public ks_test::LibrarySuite {
 protected:
  void TearDown() override {
    clear_secrets();
    EXPECT_EQ(ks_clear_all_pacs(), KS_SUCCESS);
  }

  static void clear_secrets() {
    for (const std::string &name : listed()) EXPECT_EQ(clear(name), KS_SUCCESS);
  }
  static bool in_other_vdc(const std::function<void()> &body) { return in_vdc(*service, 9, "", body); }
};

TEST_F(Secret, IsFoundByItsLinkedNameWhereverByItsName) {
  ASSERT_EQ(store("wifi", kSecret, "of the office", "uplink"), KS_SUCCESS);
  for (const char *name : {"wifi", "uplink"}) {
    EXPECT_TRUE(exists(name));
    EXPECT_TRUE(holds_the_secret(name));
    EXPECT_EQ(metadata_of(name), "of the office");
  }
  EXPECT_THAT(listed(), ElementsAre("wifi")) << "it is one entry";

  EXPECT_EQ(add_metadata("uplink", "of the lab"), KS_SUCCESS);
  EXPECT_EQ(metadata_of("wifi"), "of the lab");
  EXPECT_EQ(rename("uplink", "downlink"), KS_SUCCESS);
  EXPECT_FALSE(exists("uplink"));
  EXPECT_TRUE(holds_the_secret("downlink"));
  EXPECT_THAT(listed(), ElementsAre("wifi"));

  EXPECT_EQ(clear("downlink"), KS_SUCCESS);
  EXPECT_FALSE(exists("wifi"));
  EXPECT_THAT(listed(), IsEmpty());
}

TEST_F(Secret, IsReplacedTogetherWithItsMetadataInItsPlace) {
  ASSERT_EQ(store("first", "another", "old", "alias"), KS_SUCCESS);
  ASSERT_EQ(store("second"), KS_SUCCESS);
  EXPECT_FALSE(holds_the_secret("first"));

  EXPECT_EQ(store("first", kSecret, "new"), KS_SUCCESS);
  EXPECT_TRUE(holds_the_secret("first"));
  EXPECT_TRUE(holds_the_secret("alias"));
  EXPECT_EQ(metadata_of("first"), "new");
  EXPECT_THAT(listed(), ElementsAre("first", "second"));

  EXPECT_EQ(ks_store_secret_and_metadata("first", nullptr, data("x"), 1, nullptr, 5), KS_SUCCESS);
  EXPECT_EQ(metadata_of("first"), "") << "metadata goes with the secret that it came with";
}

TEST_F(Secret, IsNotStoredUnderALinkedNameThatAnotherHas) {
  ASSERT_EQ(store("first", kSecret, "m", "alias"), KS_SUCCESS);
  EXPECT_EQ(store("second", "x", "", "first"), KS_INVALID_ARGS);
  EXPECT_EQ(store("second", "x", "", "alias"), KS_INVALID_ARGS);
  EXPECT_FALSE(exists("second"));
  EXPECT_TRUE(holds_the_secret("alias"));
}

TEST_F(Secret, IsKeptAtTheLargestSizesThatTravel) {
  const std::string name(31, 'n'), linked_name(31, 'l'), secret(256, '\0'), metadata(65535, 'm');
  EXPECT_EQ(store(name, secret, metadata, linked_name.c_str()), KS_SUCCESS);
  EXPECT_EQ(metadata_of(linked_name), metadata);
  EXPECT_EQ(rename(name, std::string(31, 'r')), KS_SUCCESS);
  EXPECT_THAT(listed(), ElementsAre(std::string(31, 'r')));
}

// DIFFERS(store-empty-linked-name)
TEST_F(Secret, IsTakenOverByAStoreWithAnEmptyLinkedName) {
  auto *secret = static_cast<uint8_t *>(malloc(kSecret.size()));
  memcpy(secret, kSecret.data(), kSecret.size());
  EXPECT_EQ(ks_store_secret_and_metadata("a", "", secret, size(kSecret), data("m"), 1), KS_SUCCESS);
  EXPECT_TRUE(holds_the_secret("a"));
  EXPECT_EQ(metadata_of("a"), "m");
}

TEST_F(Secret, HasItsMetadataReplacedAndKeepsItself) {
  ASSERT_EQ(store("a", kSecret), KS_SUCCESS);
  EXPECT_EQ(metadata_of("a"), "");
  const std::string block(1024, 'b');
  EXPECT_EQ(add_metadata("a", block), KS_SUCCESS);
  EXPECT_EQ(metadata_of("a"), block);
  EXPECT_EQ(ks_add_metadata("a", nullptr, 0), KS_SUCCESS);
  EXPECT_EQ(metadata_of("a"), "");
  EXPECT_TRUE(holds_the_secret("a"));

  EXPECT_EQ(add_metadata("b", "x"), KS_NOT_FOUND);
  EXPECT_EQ(metadata_of("b"), std::nullopt);
  EXPECT_FALSE(exists("b"));
}

TEST_F(Secret, IsNoPacOfTheSameName) {
  ASSERT_EQ(store_pac("a"), KS_SUCCESS);
  EXPECT_FALSE(exists("a"));
  EXPECT_EQ(metadata_of("a"), std::nullopt);
  EXPECT_EQ(clear("a"), KS_NOT_FOUND);
  ASSERT_EQ(store("a", kSecret), KS_SUCCESS);
  EXPECT_EQ(ks_clear_pac(data("a"), 1), KS_SUCCESS);
  EXPECT_TRUE(holds_the_secret("a"));
}

TEST_F(Secret, KeepsItselfItsMetadataAndItsPlaceWhenRenamed) {
  ASSERT_EQ(store("a", kSecret, "meta a"), KS_SUCCESS);
  ASSERT_EQ(store("b"), KS_SUCCESS);
  EXPECT_EQ(rename("a", "A"), KS_SUCCESS) << "case counts";
  EXPECT_FALSE(exists("a"));
  EXPECT_TRUE(holds_the_secret("A"));
  EXPECT_EQ(metadata_of("A"), "meta a");
  EXPECT_THAT(listed(), ElementsAre("A", "b"));
  EXPECT_EQ(rename("a", "c"), KS_NOT_FOUND);
}

TEST_F(Secret, IsNotRenamedToANameThatAnotherHas) {
  ASSERT_EQ(store("a", kSecret, "meta a"), KS_SUCCESS);
  ASSERT_EQ(store("b", "x", "meta b", "alias"), KS_SUCCESS);
  EXPECT_EQ(rename("a", "b"), KS_INVALID_ARGS);
  EXPECT_EQ(rename("a", "alias"), KS_INVALID_ARGS);
  EXPECT_TRUE(holds_the_secret("a"));
  EXPECT_EQ(metadata_of("b"), "meta b");
  EXPECT_THAT(listed(), ElementsAre("a", "b"));
}

TEST_F(Secret, IsRenamedToItselfWithoutAskingTheService) {
  service->pause();
  EXPECT_EQ(rename("nobody", "nobody", "alias"), KS_SUCCESS);
  service->resume();
  EXPECT_FALSE(exists("nobody"));
}

// DIFFERS(rename-linked-name)
TEST_F(Secret, GetsNoLinkedNameFromARename) {
  ASSERT_EQ(store("abc", kSecret, "", "alias"), KS_SUCCESS);
  EXPECT_EQ(rename("abc", "fives", "ten letter"), KS_SUCCESS);
  EXPECT_TRUE(holds_the_secret("fives"));
  EXPECT_TRUE(holds_the_secret("alias")) << "it keeps the one that it has";
  for (const char *name : {"abc", "ten letter", "t", "0"}) EXPECT_FALSE(exists(name)) << name;

  EXPECT_EQ(rename("fives", "abc", ""), KS_SUCCESS);
  EXPECT_EQ(rename("abc", "fives", std::string(100, 'l').c_str()), KS_SUCCESS);
  EXPECT_TRUE(holds_the_secret("fives"));
}

TEST_F(Secret, IsClearedOnce) {
  EXPECT_EQ(clear("a"), KS_NOT_FOUND);
  ASSERT_EQ(store("a", "secret", "m", "alias"), KS_SUCCESS);
  EXPECT_EQ(clear("a"), KS_SUCCESS);
  EXPECT_EQ(clear("a"), KS_NOT_FOUND);
  EXPECT_EQ(clear("alias"), KS_NOT_FOUND);
  EXPECT_EQ(metadata_of("a"), std::nullopt);

  ASSERT_EQ(store("a"), KS_SUCCESS);
  EXPECT_EQ(metadata_of("a"), "") << "nothing of the old entry comes back";
  EXPECT_FALSE(exists("alias"));
}

TEST_F(Secret, IsListedAmongPacsAndOtherVdcsEntries) {
  Walk empty;
  EXPECT_EQ(empty.next(), std::nullopt);
  EXPECT_EQ(empty.result, KS_NO_MORE_ENTRIES);
  EXPECT_EQ(empty.cursor, 0);

  ASSERT_EQ(store_pac("p0"), KS_SUCCESS);
  ASSERT_TRUE(in_other_vdc([] {
    EXPECT_EQ(store("theirs"), KS_SUCCESS);
    EXPECT_EQ(store_pac("theirs"), KS_SUCCESS);
  }));
  ASSERT_EQ(store_pac("p3"), KS_SUCCESS);
  EXPECT_THAT(listed(), IsEmpty()) << "there are none of ours";

  ASSERT_EQ(store("s4"), KS_SUCCESS);
  ASSERT_EQ(store("s5"), KS_SUCCESS);
  ASSERT_TRUE(in_other_vdc([] { EXPECT_EQ(store("theirs too"), KS_SUCCESS); }));
  ASSERT_EQ(store("s7"), KS_SUCCESS);
  ASSERT_EQ(store_pac("p8"), KS_SUCCESS);

  Walk walk;
  EXPECT_EQ(walk.next(), "s4");
  EXPECT_EQ(walk.cursor, 5);
  EXPECT_EQ(walk.next(), "s5");
  EXPECT_EQ(walk.cursor, 6);
  EXPECT_EQ(walk.next(), "s7");
  EXPECT_EQ(walk.cursor, 8);
  EXPECT_EQ(walk.next(), std::nullopt);
  EXPECT_EQ(walk.result, KS_NO_MORE_ENTRIES);
  walk.cursor = 6;
  EXPECT_EQ(walk.next(), "s7") << "a walk begins anywhere";
  walk.cursor = 65535;
  EXPECT_EQ(walk.next(), std::nullopt);

  EXPECT_TRUE(in_other_vdc([] {
    EXPECT_THAT(listed(), ElementsAre("theirs", "theirs too"));
    clear_secrets();
    EXPECT_EQ(ks_clear_all_pacs(), KS_SUCCESS);
  }));
  EXPECT_THAT(listed(), ElementsAre("s4", "s5", "s7"));
}

TEST_F(Secret, OfOneVdcIsNothingToAnother) {
  ASSERT_EQ(store("same", kSecret, "of 7", "alias"), KS_SUCCESS);
  EXPECT_TRUE(in_other_vdc([] {
    EXPECT_FALSE(exists("same"));
    EXPECT_EQ(metadata_of("alias"), std::nullopt);
    EXPECT_EQ(clear("same"), KS_NOT_FOUND);
    EXPECT_EQ(rename("same", "mine"), KS_NOT_FOUND);
    EXPECT_EQ(add_metadata("same", "x"), KS_NOT_FOUND);
    EXPECT_FALSE(holds_the_secret("same"));

    EXPECT_EQ(store("same", "x", "of 9"), KS_SUCCESS);
    EXPECT_EQ(metadata_of("same"), "of 9");
    EXPECT_THAT(listed(), ElementsAre("same"));
    EXPECT_EQ(clear("same"), KS_SUCCESS);
  }));
  EXPECT_EQ(metadata_of("same"), "of 7");
  EXPECT_TRUE(holds_the_secret("same"));
}

TEST_F(Secret, IsMissedByAWalkWhenAnEntryBeforeItGoes) {
  for (const char *name : {"a", "b", "c", "d"}) ASSERT_EQ(store(name), KS_SUCCESS);
  Walk walk;
  EXPECT_EQ(walk.next(), "a");
  EXPECT_EQ(clear("a"), KS_SUCCESS);
  EXPECT_EQ(walk.next(), "c") << "b stands where a stood";
  EXPECT_EQ(walk.cursor, 2);

  EXPECT_EQ(store("e"), KS_SUCCESS);
  EXPECT_EQ(rename("c", "z"), KS_SUCCESS);
  EXPECT_EQ(store("b", "replaced"), KS_SUCCESS);
  EXPECT_EQ(walk.next(), "d") << "only a removal moves others";
  EXPECT_EQ(walk.next(), "e");

  EXPECT_EQ(clear("b"), KS_SUCCESS);
  EXPECT_EQ(clear("d"), KS_SUCCESS);
  EXPECT_EQ(walk.next(), std::nullopt) << "behind the end";
  EXPECT_EQ(walk.result, KS_NO_MORE_ENTRIES);
  EXPECT_THAT(listed(), ElementsAre("z", "e"));
}

TEST_F(Secret, IsClearedByAWalkThatStaysWhereItRemoves) {
  ASSERT_EQ(store_pac("stays"), KS_SUCCESS);
  for (const char *name : {"a", "b", "c"}) ASSERT_EQ(store(name), KS_SUCCESS);
  Walk walk;
  while (const auto name = walk.next()) {
    EXPECT_EQ(clear(*name), KS_SUCCESS);
    --walk.cursor;
  }
  EXPECT_EQ(walk.cursor, 1);
  EXPECT_THAT(listed(), IsEmpty());
}

// DIFFERS(clear-pac-failure)
TEST_F(Secret, IsThereAgainWhenTheServiceWasKilledAndStarted) {
  ASSERT_EQ(store("a", kSecret, "meta a", "alias"), KS_SUCCESS);
  ASSERT_EQ(store("b"), KS_SUCCESS);
  ASSERT_EQ(add_metadata("b", "meta b"), KS_SUCCESS);
  ASSERT_EQ(store("gone"), KS_SUCCESS);
  ASSERT_EQ(clear("gone"), KS_SUCCESS);
  ASSERT_EQ(store("c", "replaced"), KS_SUCCESS);
  ASSERT_EQ(store("c", kSecret), KS_SUCCESS);
  ASSERT_EQ(rename("c", "d"), KS_SUCCESS);
  service->kill();

  uint8_t *block = nullptr;
  uint16_t len = 0xeeee;
  uint32_t flag = 0xeeeeeeee;
  Walk walk;
  EXPECT_EQ(store("a"), KS_FAILURE);
  EXPECT_EQ(add_metadata("a", "x"), KS_FW_COMM_ERROR);
  EXPECT_EQ(ks_return_metadata("a", &block, &len), KS_FAILURE);
  EXPECT_EQ(len, 0xeeee);
  EXPECT_EQ(ks_secret_exists("a", &flag), KS_FW_COMM_ERROR);
  EXPECT_EQ(flag, 0xeeeeeeee);
  EXPECT_EQ(walk.next(), std::nullopt);
  EXPECT_EQ(walk.result, KS_FW_COMM_ERROR);
  EXPECT_EQ(clear("a"), KS_FW_COMM_ERROR);
  EXPECT_EQ(ks_clear_pac(data("a"), 1), KS_FAILURE);
  EXPECT_EQ(rename("a", "b"), KS_FAILURE);

  service->start();
  EXPECT_THAT(listed(), ElementsAre("a", "b", "d"));
  for (const char *name : {"a", "alias", "d"}) EXPECT_TRUE(holds_the_secret(name)) << name;
  EXPECT_EQ(metadata_of("alias"), "meta a");
  EXPECT_EQ(metadata_of("b"), "meta b");
  EXPECT_FALSE(exists("gone"));
  EXPECT_FALSE(exists("c"));
}

// A table with an entry at each of its positions, stored by threads of one process through the library.
class FullTable : public testing::Test {
 protected:
  static constexpr unsigned kAll = 65535, kThreads = 48;
  static constexpr char kLimits[] = "\n[limits]\nentries_per_user = 65535\n";

  FullTable() : service(without_limits()) {
    setenv("KS_SOCKET", service.socket().c_str(), 1);
    EXPECT_EQ(ks_init(0, 1, 0), KS_SUCCESS);
    std::atomic<unsigned> next{0};
    std::vector<std::jthread> threads;
    for (unsigned i = 0; i < kThreads; ++i) {
      threads.emplace_back([&] {
        for (unsigned number; (number = next++) < kAll;) ASSERT_EQ(store(std::to_string(number)), KS_SUCCESS);
      });
    }
  }

  ServiceProcess service;

 private:
  static ServiceSetup without_limits() {
    ServiceSetup setup;
    setup.config += kLimits;
    return setup;
  }
};

// The service leaves position 65,535 free. With an entry there the cursor would wrap to 0, and no walk would end.
TEST_F(FullTable, IsWalkedToItsEndOnceAndByOthersInOneCall) {
  std::vector<bool> seen(kAll);
  Walk walk;
  for (unsigned position = 0; position < kAll; ++position) {
    const auto name = walk.next();
    ASSERT_TRUE(name) << position;
    ASSERT_EQ(walk.cursor, position + 1);
    const unsigned long number = std::stoul(*name);
    ASSERT_FALSE(seen.at(number)) << *name;
    seen[number] = true;
  }
  EXPECT_EQ(walk.cursor, 65535);
  EXPECT_EQ(walk.next(), std::nullopt);
  EXPECT_EQ(walk.result, KS_NO_MORE_ENTRIES);

  EXPECT_EQ(store("one more"), KS_STORE_FULL);
  EXPECT_EQ(walk.next(), std::nullopt);
  EXPECT_EQ(clear("0"), KS_SUCCESS);
  EXPECT_EQ(store("one more"), KS_SUCCESS);
  EXPECT_EQ(walk.next(), std::nullopt) << "it stands one position before the cursor";
  walk.cursor = 65534;
  EXPECT_EQ(walk.next(), "one more");

  EXPECT_TRUE(in_vdc(service, 9, kLimits, [] {
    Walk theirs;
    EXPECT_EQ(theirs.next(), std::nullopt) << "one call passes over them all";
    EXPECT_EQ(theirs.result, KS_NO_MORE_ENTRIES);
    EXPECT_EQ(theirs.cursor, 0);
  }));
}

}  // namespace
