// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// PACs and their cached copies.
#include "helpers_fixture.h"

namespace {

using helpers::Bytes;
using helpers::bytes;
using helpers::cache_key;
using helpers::cache_value;
using helpers::kInfo;
using helpers::kMetadata;
using helpers::kNewOpaque;
using helpers::kOpaque;
using helpers::Request;
using helpers::operator+;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr uint32_t kRefusal = 0x411a0005;

class Pacs : public helpers::Keystore {
 protected:
  KsResult read() { return ksh_read_pac(aid.data(), aid.size(), &metadata); }
  KsResult ask_exists() { return ksh_pac_exists(aid.data(), aid.size(), &exists); }
  KsResult ask_expiry() { return ksh_pac_expiry(aid.data(), aid.size(), &expires); }
  KsResult warm() { return ksh_cache_warm(aid.data(), aid.size()); }
  KsResult put(const Bytes &content) { return ksh_cache_put(aid.data(), aid.size(), content.data(), content.size()); }
  KsResult clear() { return ksh_clear_pac(aid.data(), aid.size()); }
  void keep_closed() {
    ks_cache_present = 0;
    break_cache();
  }

  KshBuffer metadata = {};
  uint32_t exists = 0x5a5a;
  int64_t expires = -1;
};

// --- Storing and clearing

TEST_F(Pacs, AreStoredAsTheirMetadataSays) {
  EXPECT_EQ(store(kInfo + kOpaque), KS_SUCCESS);
  EXPECT_EQ(messages(), 1u);
  Bytes sent = mts.sent();
  sent[2] = sent[3] = 0;  // reserved, and not written
  EXPECT_EQ(sent, bytes("07 14 00 00  03 00 00 00 1b 00 00 00  13 00 00 00 1e 00 00 00"
                        "31 00 00 07 a1 00 a3  6b 65 79") +
                      kMetadata);
}

TEST_F(Pacs, AreStoredWithoutACachedCopyOfTheOlderOne) {
  cache(kNewOpaque + kInfo);
  bool was_cached = true;
  meanwhile = [&](const Request &) { was_cached = is_cached(); };
  EXPECT_EQ(store(kMetadata), KS_SUCCESS);
  EXPECT_FALSE(was_cached) << "when the keystore was asked to store";
  EXPECT_FALSE(is_cached());
}

TEST_F(Pacs, AreStoredWithoutACopyThatAReaderPutBackMeanwhile) {
  meanwhile = [&](const Request &) { cache(kNewOpaque + kInfo); };
  EXPECT_EQ(store(kMetadata), KS_SUCCESS);
  EXPECT_FALSE(is_cached());
}

TEST_F(Pacs, AreNotStoredWhereTheOlderCopyStays) {
  cache(kNewOpaque + kInfo);
  sdb.delete_code = kRefusal;
  EXPECT_EQ(store(kMetadata), KS_FAILURE);
  EXPECT_EQ(messages(), 0u);
}

TEST_F(Pacs, TellWhereACopyStaysBehindTheStore) {
  meanwhile = [&](const Request &) {
    cache(kNewOpaque + kInfo);
    sdb.delete_code = kRefusal;
  };
  EXPECT_EQ(store(kMetadata), KS_FAILURE);
  EXPECT_TRUE(stored.contains(aid));
}

TEST_F(Pacs, AreStoredWhereNoCacheCanBeOpened) {
  keep_closed();
  EXPECT_EQ(store(kMetadata), KS_SUCCESS);
}

TEST_F(Pacs, OpenAClosedCacheToRemoveACopy) {
  cache(kNewOpaque + kInfo);
  ks_cache_present = 0;
  EXPECT_EQ(store(kMetadata), KS_SUCCESS);
  EXPECT_FALSE(is_cached());
  EXPECT_THAT(events({"sdb_open"}), ElementsAre("sdb_open 287454020")) << "in the name of the program's application";
}

TEST_F(Pacs, PassOnTheRefusalOfAStore) {
  store_answer = KS_STORE_FULL;
  EXPECT_EQ(store(kMetadata), KS_STORE_FULL);
  mts.answer = nullptr;
  mts.fail_send();
  EXPECT_EQ(store(kMetadata), KS_FAILURE);
}

TEST_F(Pacs, AreRefusedWithArgumentsThatTheKeystoreWouldNotTake) {
  const Bytes longest(31, 1), longer(32, 1), key(65536, 2), big = Bytes(65536);
  const auto store_as = [&](const Bytes &name, size_t key_len, const Bytes &content) {
    return ksh_store_pac(name.data(), name.size(), key.data(), key_len, content.data(), content.size());
  };
  EXPECT_EQ(store_as(longest, 65535, kMetadata), KS_SUCCESS);
  EXPECT_EQ(messages(), 1u);
  sdb.entries[cache_key(longest)] = cache_value(kMetadata);
  EXPECT_EQ(store_as(longest, 65536, kMetadata), KS_RPC_TOO_LARGE);
  EXPECT_EQ(store_as(longest, 1, big), KS_RPC_TOO_LARGE);
  EXPECT_EQ(store_as(longer, 1, kMetadata), KS_INVALID_ARGS);
  EXPECT_EQ(store_as({}, 1, kMetadata), KS_INVALID_ARGS);
  EXPECT_EQ(store_as(longest, 0, kMetadata), KS_INVALID_ARGS);
  EXPECT_EQ(store_as(longest, 1, kOpaque), KS_INVALID_ARGS);
  EXPECT_EQ(ksh_store_pac(nullptr, 3, "key", 3, kMetadata.data(), kMetadata.size()), KS_INVALID_ARGS);
  EXPECT_EQ(ksh_store_pac("aid", 3, nullptr, 3, kMetadata.data(), kMetadata.size()), KS_INVALID_ARGS);
  EXPECT_EQ(ksh_store_pac("aid", 3, "key", 3, nullptr, 30), KS_INVALID_ARGS);
  EXPECT_EQ(messages(), 1u) << "the keystore isn't asked";
  EXPECT_EQ(sdb.entries.size(), 1u) << "and no copy is lost";
}

TEST_F(Pacs, AreClearedWithTheirCopies) {
  stored[aid] = kMetadata;
  cache(kMetadata);
  meanwhile = [&](const Request &) {
    EXPECT_FALSE(is_cached());
    cache(kMetadata);
  };
  EXPECT_EQ(clear(), KS_SUCCESS);
  EXPECT_FALSE(is_cached());
  EXPECT_THAT(stored, IsEmpty());
  EXPECT_EQ(clear(), KS_NOT_FOUND);
}

TEST_F(Pacs, AreNotClearedWhileTheyAreHeldOrTheirCopiesStay) {
  stored[aid] = kMetadata;
  sysmgr.supstate = 2;
  EXPECT_EQ(clear(), KS_NOT_REGISTERED);
  sysmgr.supstate = 0;
  cache(kMetadata);
  sdb.delete_code = kRefusal;
  EXPECT_EQ(clear(), KS_FAILURE);
  EXPECT_EQ(messages(), 0u);
  EXPECT_EQ(ksh_clear_pac("x", 32), KS_INVALID_ARGS);
}

// --- The cache

TEST_F(Pacs, LoseTheirCopyAndNobodyElses) {
  cache(kMetadata);
  sdb.entries[cache_key(bytes("a2"))] = cache_value(kMetadata);
  EXPECT_EQ(ksh_cache_clear(aid.data(), aid.size()), KS_SUCCESS);
  EXPECT_FALSE(is_cached());
  EXPECT_EQ(sdb.entries.size(), 1u);
  EXPECT_EQ(ksh_cache_clear(aid.data(), aid.size()), KS_SUCCESS) << "there is none any more";
  EXPECT_EQ(events({"sdb_delete"}).size(), 1u);
  EXPECT_EQ(ksh_cache_clear(aid.data(), 0), KS_INVALID_ARGS);
}

TEST_F(Pacs, MayLoseTheirCopyToAnotherProcessFirst) {
  cache(kMetadata);
  sdb.before_delete = [&] { sdb.entries.clear(); };
  sdb.missing_delete_code = KS_SDB_ERR_NO_KEY;
  EXPECT_EQ(ksh_cache_clear(aid.data(), aid.size()), KS_SUCCESS);
}

TEST_F(Pacs, ArePutIntoTheCacheByWhoeverHasTheirMetadata) {
  EXPECT_EQ(put(kInfo + kOpaque), KS_SUCCESS);
  EXPECT_EQ(sdb.entries.at(cache_key(aid)), cache_value(kInfo + kOpaque));
  EXPECT_EQ(messages(), 0u);

  EXPECT_EQ(put(kOpaque), KS_INVALID_ARGS) << "readers would find it damaged";
  EXPECT_EQ(put(Bytes(65536)), KS_INVALID_ARGS);
  EXPECT_EQ(ksh_cache_put(aid.data(), 32, kMetadata.data(), kMetadata.size()), KS_INVALID_ARGS);
  EXPECT_EQ(ksh_cache_put(aid.data(), 3, nullptr, kMetadata.size()), KS_INVALID_ARGS);
  EXPECT_EQ(sdb.entries.at(cache_key(aid)), cache_value(kInfo + kOpaque));
}

TEST_F(Pacs, AreNotPutIntoACacheThatIsClosedOrRefuses) {
  sdb.write_code = kRefusal;
  EXPECT_EQ(put(kMetadata), KS_FAILURE);
  expect_leaked({22 + kMetadata.size()});  // by promise, as a refused ks_cache_pac_write does
  keep_closed();
  EXPECT_EQ(put(kMetadata), KS_FAILURE);
}

TEST_F(Pacs, AreWarmedFromTheKeystoreAndNotFromAnOldCopy) {
  stored[aid] = kMetadata;
  cache(kNewOpaque + kInfo);
  EXPECT_EQ(warm(), KS_SUCCESS);
  EXPECT_EQ(sdb.entries.at(cache_key(aid)), cache_value(kMetadata));
  EXPECT_EQ(messages(), 3u);

  EXPECT_EQ(read(), KS_SUCCESS);
  EXPECT_EQ(taken(&metadata), kMetadata);
  EXPECT_EQ(messages(), 3u) << "a warm read sends nothing";
}

TEST_F(Pacs, ThatAreGoneAreNotWarmed) {
  cache(kMetadata);
  EXPECT_EQ(warm(), KS_NOT_FOUND);
  EXPECT_FALSE(is_cached());
  sdb.delete_code = kRefusal;
  cache(kMetadata);
  EXPECT_EQ(warm(), KS_FAILURE);
  EXPECT_EQ(messages(), 1u) << "an old copy would be read, so nothing is";
}

// --- Reading

TEST_F(Pacs, AreReadWholeFromOneVersion) {
  stored[aid] = kMetadata;
  const Bytes new_info = bytes("00 09 00 08  00 03 00 04 66 00 00 00");
  meanwhile = [&](const Request &) {
    if (messages() == 2) stored[aid] = kNewOpaque + new_info;  // between the opaque and the info
  };
  ASSERT_EQ(read(), KS_SUCCESS);
  EXPECT_EQ(taken(&metadata), kNewOpaque + new_info);
  EXPECT_EQ(messages(), 6u);
}

TEST_F(Pacs, ThatNeverRestAreNotRead) {
  meanwhile = [&](const Request &) { stored[aid] = (messages() % 2 == 0 ? kOpaque : kNewOpaque) + kInfo; };
  EXPECT_EQ(read(), KS_SUCCESS) << "the first and the third answer were the same";
  ksh_free_buffer(&metadata);
  meanwhile = [&](const Request &) { stored[aid] = (messages() % 3 == 0 ? kOpaque : kNewOpaque) + kInfo; };
  mts.requests.clear();
  EXPECT_EQ(read(), KS_FAILURE);
  EXPECT_EQ(messages(), 9u);
  EXPECT_EQ(metadata.data, nullptr);
}

TEST_F(Pacs, AreReadFromTheKeystoreBehindADamagedCopy) {
  stored[aid] = kMetadata;
  for (const Bytes &damaged : {Bytes(), bytes("00"), kOpaque, kOpaque + bytes("00 09 00 01")}) {
    cache(damaged);
    mts.requests.clear();
    ASSERT_EQ(read(), KS_SUCCESS);
    EXPECT_EQ(taken(&metadata), kMetadata);
  }
}

TEST_F(Pacs, PassOnWhatTheKeystoreSaysOfThem) {
  EXPECT_EQ(read(), KS_NOT_FOUND);
  stored[aid] = kOpaque;
  EXPECT_EQ(read(), KS_FAILURE) << "its metadata is damaged";
  EXPECT_EQ(ksh_read_pac(aid.data(), 0, &metadata), KS_INVALID_ARGS);
  EXPECT_EQ(ksh_read_pac(aid.data(), size_t{1} << 20, &metadata), KS_INVALID_ARGS);
  EXPECT_EQ(ksh_read_pac(aid.data(), 3, nullptr), KS_INVALID_ARGS);
  mts.answer = nullptr;
  mts.fail_send();
  EXPECT_EQ(read(), KS_FW_COMM_ERROR);
  EXPECT_EQ(metadata.data, nullptr);
}

// --- Presence

TEST_F(Pacs, AreSaidToExistWhereTheCacheHasMissedThem) {
  stored[aid] = kMetadata;
  ASSERT_EQ(ask_exists(), KS_SUCCESS);
  EXPECT_EQ(exists, 1u);
  cache(kMetadata);
  exists = 0;
  ASSERT_EQ(ask_exists(), KS_SUCCESS);
  EXPECT_EQ(exists, 1u);
  EXPECT_EQ(messages(), 1u) << "the second answer is the cache's";
}

TEST_F(Pacs, AreSaidNotToExistWithSuccess) {
  ASSERT_EQ(ask_exists(), KS_SUCCESS);
  EXPECT_EQ(exists, 0u);
}

TEST_F(Pacs, AreNotSaidToExistOrNotWhereNobodyCanTell) {
  EXPECT_EQ(ksh_pac_exists(aid.data(), 32, &exists), KS_INVALID_ARGS);
  if constexpr (sizeof(size_t) > sizeof(uint32_t)) {
    EXPECT_EQ(ksh_pac_exists(aid.data(), static_cast<size_t>(0x100000003), &exists), KS_INVALID_ARGS)
        << "which is 3 in 32 bits";
  }
  EXPECT_EQ(ksh_pac_exists(nullptr, 3, &exists), KS_INVALID_ARGS);
  EXPECT_EQ(ksh_pac_exists(aid.data(), 3, nullptr), KS_INVALID_ARGS);
  mts.answer = nullptr;
  mts.fail_recv();
  EXPECT_EQ(ask_exists(), KS_FAILURE);
  EXPECT_EQ(exists, 0x5a5au);
}

// --- Expiry

TEST_F(Pacs, TellWhenTheyExpireInTheOrderOfTheWire) {
  stored[aid] = kOpaque + bytes("00 09 00 08  00 03 00 04 fe dc ba 98");
  ASSERT_EQ(ask_expiry(), KS_SUCCESS);
  EXPECT_EQ(expires, 0xfedcba98);
  EXPECT_EQ(messages(), 1u);
}

TEST_F(Pacs, WithoutATimeAreToldFromThoseOfWhichNothingIsKnown) {
  stored[aid] = kOpaque + bytes("00 09 00 00");
  ASSERT_EQ(ask_expiry(), KS_SUCCESS);
  EXPECT_EQ(expires, 0);
  expires = -1;
  stored[aid] = kOpaque + bytes("00 09 00 07  00 03 00 03 65 00 00");
  EXPECT_EQ(ask_expiry(), KS_FAILURE);
  stored.clear();
  EXPECT_EQ(ask_expiry(), KS_NOT_FOUND);
  EXPECT_EQ(ksh_pac_expiry(aid.data(), 0, &expires), KS_INVALID_ARGS);
  EXPECT_EQ(ksh_pac_expiry(aid.data(), 3, nullptr), KS_INVALID_ARGS);
  EXPECT_EQ(expires, -1);
}

Bytes expiring(const char *time) {
  return kOpaque + bytes("00 09 00 08  00 03 00 04") + bytes(time);
}

TEST_F(Pacs, AreRemovedWhenTheyHaveExpiredAndNotBefore) {
  stored = {{bytes("a1"), expiring("64 ff ff ff")},  // as ks_clear_old_pacs reads it, this one would live
            {bytes("a2"), expiring("65 00 00 00")},
            {bytes("a3"), expiring("65 00 00 01")},  // and this one would have expired
            {bytes("a4"), expiring("00 00 00 7f")},
            {bytes("a5"), kOpaque + bytes("00 09 00 00")},
            {bytes("a6"), kOpaque}};
  uint32_t removed = 0x5a5a;
  EXPECT_EQ(ksh_clear_expired_pacs(0x65000000, &removed), KS_SUCCESS);
  EXPECT_EQ(removed, 3u);
  std::vector<Bytes> left;
  for (const auto &[name, content] : stored) left.push_back(name);
  EXPECT_THAT(left, ElementsAre(bytes("a3"), bytes("a5"), bytes("a6")));
}

TEST_F(Pacs, ThatWereRenewedAreNotRemovedForAnOldCopy) {
  stored[aid] = expiring("7f 00 00 00");
  cache(expiring("00 00 00 01"));
  uint32_t removed = 0x5a5a;
  EXPECT_EQ(ksh_clear_expired_pacs(0x65000000, &removed), KS_SUCCESS);
  EXPECT_EQ(removed, 0u);
  EXPECT_TRUE(stored.contains(aid));
  EXPECT_FALSE(is_cached());
}

TEST_F(Pacs, ThatAnotherProcessRemovesMeanwhileDontEndTheWalk) {
  stored = {{bytes("a1"), expiring("00 00 00 01")}, {bytes("a2"), expiring("00 00 00 01")}};
  bool first = true;
  meanwhile = [&](const Request &request) {
    if (request.op == KS_OP_CLEAR && std::exchange(first, false)) stored.erase(bytes("a1"));
  };
  uint32_t removed = 0x5a5a;
  EXPECT_EQ(ksh_clear_expired_pacs(2, &removed), KS_SUCCESS);
  EXPECT_EQ(removed, 0u) << "a2 stands where the walk has been";
  EXPECT_EQ(ksh_clear_expired_pacs(2, &removed), KS_SUCCESS);
  EXPECT_EQ(removed, 1u);
}

TEST_F(Pacs, AreRemovedWithTheirCopiesAndCountedUpToTheFirstThatIsHeld) {
  stored = {{bytes("a1"), expiring("00 00 00 01")}, {bytes("a2"), expiring("00 00 00 01")}};
  sdb.entries[cache_key(bytes("a1"))] = cache_value(expiring("00 00 00 01"));
  meanwhile = [&](const Request &request) {
    if (request.op == KS_OP_CLEAR) sysmgr.supstate = 2;
  };
  uint32_t removed = 0x5a5a;
  EXPECT_EQ(ksh_clear_expired_pacs(2, &removed), KS_NOT_REGISTERED);
  EXPECT_EQ(removed, 1u);
  EXPECT_THAT(sdb.entries, IsEmpty());
  EXPECT_EQ(ksh_clear_expired_pacs(2, nullptr), KS_INVALID_ARGS);
}

TEST_F(Pacs, AreNotWalkedOverWithoutAService) {
  mts.answer = nullptr;
  mts.fail_send();
  uint32_t removed = 0x5a5a;
  EXPECT_EQ(ksh_clear_expired_pacs(2, &removed), KS_FAILURE);
  EXPECT_EQ(removed, 0u);
}

// --- Memory

TEST_F(Pacs, LeaveNothingAllocatedWhereMemoryEnds) {
  const auto no_memory = [](KsResult result) { EXPECT_EQ(result, KS_NO_MEMORY); };
  const auto run = [&](const char *what, const std::function<KsResult()> &call,
                       const std::function<void(KsResult)> &check) {
    SCOPED_TRACE(what);
    stored = {{aid, kMetadata}};
    sdb.entries.clear();
    expect_survives_each_failed_allocation(call, check);
  };
  run(
      "store", [&] { return store(kMetadata); }, no_memory);
  run(
      "exists", [&] { return ask_exists(); },
      [](KsResult result) {
        // A name for the cache that can't be had is a miss.
        EXPECT_TRUE(result == KS_NO_MEMORY || result == KS_SUCCESS) << result;
      });
  run(
      "read",
      [&] {
        const KsResult result = read();
        ksh_free_buffer(&metadata);
        return result;
      },
      [](KsResult result) { EXPECT_TRUE(result == KS_NO_MEMORY || result == KS_SUCCESS) << result; });
  run(
      "warm", [&] { return warm(); },
      [](KsResult result) { EXPECT_TRUE(result == KS_NO_MEMORY || result == KS_SUCCESS) << result; });
  run(
      "clear",
      [&] {
        stored = {{aid, kMetadata}};
        return clear();
      },
      [](KsResult result) { EXPECT_TRUE(result == KS_NO_MEMORY || result == KS_FAILURE) << result; });
}

}  // namespace
