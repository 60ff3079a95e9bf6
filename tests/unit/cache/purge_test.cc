// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "cache_fixture.h"

namespace {

using cache::CacheTest;
using cache::Lines;
using cache::operator+;
using scripted::Bytes;
using scripted::bytes;
using testing::ElementsAre;
using testing::IsEmpty;

// What both purges have in common, and how each differs.
struct PurgeCase {
  std::string function;
  KsResult (*run)();
  Lines first_calls;  // before the entry report
  std::string next;   // how the walk moves on
};

class Purge : public CacheTest {
 protected:
  static Bytes key(const std::string &tag, const std::string &vdc) {
    return bytes("01 00 00 00" + tag + "00" + vdc + "61") + Bytes(30, 0);
  }
  // Reports of the walk itself, without those of the deletes.
  Lines own_traces(const std::string &function) const {
    Lines own;
    for (const std::string &line : traces(true)) {
      if (line.compare(4, function.size() + 1, function + "(") == 0) own.push_back(line);
    }
    return own;
  }
};

class EveryPurge : public Purge, public testing::WithParamInterface<PurgeCase> {
 protected:
  const PurgeCase &purge = GetParam();
};

INSTANTIATE_TEST_SUITE_P(
    Purges, EveryPurge,
    testing::Values(PurgeCase{"ks_cache_purge_all", ks_cache_purge_all, {}, "sdb_getnext"},
                    PurgeCase{
                        "ks_cache_purge_vdc_keys", ks_cache_purge_vdc_keys, {"sysmgr_vdc_get"}, "sdb_getnext cleared"}),
    [](const auto &param) { return param.param.function; });

TEST_P(EveryPurge, FailsOnAClosedCacheAndCallsNothing) {
  ks_cache_present = 0;
  EXPECT_EQ(purge.run(), KS_FAILURE);

  EXPECT_EQ(scripted::platform().log,
            (purge.first_calls + Lines{"report " + purge.function + "(#)\n",
                                       "report is_cache_present(#):ks_cache_present = 0.",
                                       "report " + purge.function + "(#):ks_cache is absent.\n"}));
  EXPECT_EQ(trace.reports.back().subtype, 103u);
}

TEST_P(EveryPurge, SucceedsOnAnEmptyCache) {
  EXPECT_EQ(purge.run(), KS_SUCCESS);

  EXPECT_THAT(sdb_calls(), ElementsAre("sdb_iterator_init", "sdb_getkey"));
  EXPECT_EQ(traces(true), (Lines{"103:" + purge.function + "(#)\n", "103:is_cache_present(#):ks_cache_present = 1.",
                                 "103:" + purge.function + "(#):Return \n"}));
}

TEST_P(EveryPurge, FailsWithAnAlertWhenTheWalkCantBegin) {
  sdb.entries[kKey] = kPlain;
  sdb.iterator_code = 0x411a000f;
  EXPECT_EQ(purge.run(), KS_FAILURE);

  EXPECT_THAT(sdb_calls(), ElementsAre("sdb_iterator_init"));
  EXPECT_EQ(last_traces(1), Lines{"100:" + purge.function + "(#):sdb_iterator_init failed \n"});
}

// DIFFERS(purge-vdc-clears-places) by the words of PurgeCase::next
TEST_P(EveryPurge, DeletesEachKeyAsItComes) {
  sdb.entries[key("31", "0007")] = kPlain;
  sdb.entries[key("31", "0008")] = kPlain;
  EXPECT_EQ(purge.run(), KS_SUCCESS);

  EXPECT_THAT(sdb.entries, IsEmpty());
  EXPECT_THAT(sdb_calls(), ElementsAre("sdb_iterator_init", "sdb_getkey", "sdb_delete", "sdb_write_done", purge.next,
                                       "sdb_delete", "sdb_write_done", purge.next));
  EXPECT_EQ(own_traces(purge.function),
            (Lines{"103:" + purge.function + "(#)\n", "103:" + purge.function + "(#):Deleting 0 Key from shared DB.\n",
                   "103:" + purge.function + "(#):Deleting 1 Key from shared DB.\n",
                   "103:" + purge.function + "(#):Return \n"}));
}

TEST_P(EveryPurge, PassesOnKeysOfAnySizeAsTheyAre) {
  sdb.entries[bytes("01 02 03 04")] = {};
  sdb.entries[bytes("01 02 03 04 31 00 09")] = {};
  sdb.entries[Bytes(200, 0x31)] = {};
  EXPECT_EQ(purge.run(), KS_SUCCESS);

  EXPECT_THAT(sdb.entries, IsEmpty());
  EXPECT_THAT(traces(), testing::Contains("sksd_sdb_delete(#):Deleting from uri u:x with key size = 200, key = "));
}

TEST_P(EveryPurge, GoesOnWhereADeleteFails) {
  sdb.entries[key("31", "0007")] = kPlain;
  sdb.entries[key("31", "0008")] = kPlain;
  sdb.delete_code = 5;
  EXPECT_EQ(purge.run(), KS_SUCCESS);

  EXPECT_EQ(sdb.entries.size(), 2u);
  EXPECT_EQ(events({"sdb_delete"}).size(), 2u);
  EXPECT_EQ(last_traces(1), Lines{"103:" + purge.function + "(#):Return \n"});
}

// DIFFERS(purge-count-by-halves)
TEST_P(EveryPurge, CountsOncePerOpenHalf) {
  const auto counts = [this](bool history, bool debug) {
    sdb.entries[key("31", "0007")] = kPlain;
    sdb.entries[key("31", "0008")] = kPlain;
    sdb.entries[key("31", "0009")] = kPlain;
    trace = scripted::Trace();
    trace.history_open = {{103, history}};
    trace.debug_open = {{103, debug}};
    EXPECT_EQ(purge.run(), KS_SUCCESS);
    EXPECT_THAT(sdb.entries, IsEmpty());
    Lines all;
    for (const auto &lines : {traces(), trace.debug_lines}) {
      for (const std::string &line : lines) {
        if (const size_t at = line.find(":Deleting ");
            at != std::string::npos && line.ends_with("Key from shared DB.\n"))
          all.push_back(line.substr(at + 10, 1));
      }
    }
    return all;
  };
  EXPECT_THAT(counts(true, false), ElementsAre("0", "1", "2"));
  EXPECT_THAT(counts(false, true), ElementsAre("0", "1", "2"));
  EXPECT_THAT(counts(true, true), ElementsAre("0", "2", "4", /* debug: */ "1", "3", "5"));
  EXPECT_THAT(counts(false, false), IsEmpty());
}

TEST_P(EveryPurge, LeavesNothingToFind) {
  for (const char *aid : {"a", "b", "c"}) {
    ks_cache_pac_write(bytes("31 00 00 07 6" + std::to_string(*aid - 'a' + 1)).data(), 5, "m", 1);
  }
  EXPECT_EQ(sdb.entries.size(), 3u);
  EXPECT_EQ(purge.run(), KS_SUCCESS);

  uint32_t found = 1;
  for (const char *aid : {"a", "b", "c"}) EXPECT_EQ(ks_cache_find_pac(aid, 1, &found), KS_NOT_FOUND);
}

class PurgeAll : public Purge {};

TEST_F(PurgeAll, DeletesForeignKeysOfEveryTag) {
  for (const char *tag : {"00", "28", "31", "51", "ff"}) sdb.entries[key(tag, "0009")] = kPlain;
  EXPECT_EQ(ks_cache_purge_all(), KS_SUCCESS);

  EXPECT_THAT(sdb.entries, IsEmpty());
}

class PurgeVdcKeys : public Purge {};

TEST_F(PurgeVdcKeys, DeletesItsOwnKeysWhateverTheirTag) {
  sysmgr.vdc = 0x1234;
  for (const char *tag : {"00", "28", "29", "31", "50", "51", "ff"}) sdb.entries[key(tag, "1234")] = kPlain;
  EXPECT_EQ(ks_cache_purge_vdc_keys(), KS_SUCCESS);

  EXPECT_THAT(sdb.entries, IsEmpty());
}

// DIFFERS(purge-vdc-tag-range)
TEST_F(PurgeVdcKeys, SparesForeignKeysWhoseTagIsOutsideTheRangeOnly) {
  for (const char *tag : {"00", "28", "29", "30", "31", "50", "51", "ff"}) sdb.entries[key(tag, "0009")] = kPlain;
  EXPECT_EQ(ks_cache_purge_vdc_keys(), KS_SUCCESS);

  std::vector<Bytes> left;
  for (const auto &[left_key, value] : sdb.entries) left.push_back(left_key);
  EXPECT_THAT(left, ElementsAre(key("00", "0009"), key("28", "0009"), key("51", "0009"), key("ff", "0009")));
}

TEST_F(PurgeVdcKeys, DeletesAKeyTooShortForAVdcId) {
  for (ptrdiff_t size = 0; size <= 8; ++size) {
    const Bytes whole = key("28", "0009");
    sdb.entries[Bytes(whole.begin(), whole.begin() + size)] = kPlain;
  }
  trace.close();  // the reports of a key read four bytes of it in any case
  EXPECT_EQ(ks_cache_purge_vdc_keys(), KS_SUCCESS);

  ASSERT_EQ(sdb.entries.size(), 1u);
  EXPECT_EQ(sdb.entries.begin()->first.size(), 8u);
}

TEST_F(PurgeVdcKeys, TakesBothBytesOfTheIdInBigEndian) {
  sysmgr.vdc = 0x1234;
  for (const char *vdc : {"3412", "1235", "0034", "1200"}) sdb.entries[key("28", vdc)] = kPlain;
  EXPECT_EQ(ks_cache_purge_vdc_keys(), KS_SUCCESS);

  EXPECT_EQ(sdb.entries.size(), 4u);
}

TEST_F(PurgeVdcKeys, DoesNotCountSparedKeys) {
  sdb.entries[key("28", "0009")] = kPlain;
  sdb.entries[key("31", "0009")] = kPlain;
  EXPECT_EQ(ks_cache_purge_vdc_keys(), KS_SUCCESS);

  EXPECT_EQ(own_traces("ks_cache_purge_vdc_keys").at(1),
            "103:ks_cache_purge_vdc_keys(#):Deleting 0 Key from shared DB.\n");
  EXPECT_THAT(events({"sdb_getnext"}), ElementsAre("sdb_getnext cleared", "sdb_getnext cleared"));
}

// DIFFERS(purge-vdc-asks)
TEST_F(PurgeVdcKeys, AsksForTheLowBitsOfTheIdAnewBeforeItsEntryReport) {
  vdc_id = 7;
  sysmgr.vdc = 0xabcd0009;
  sdb.entries[key("28", "0009")] = kPlain;
  sdb.entries[key("28", "0007")] = kPlain;
  EXPECT_EQ(ks_cache_purge_vdc_keys(), KS_SUCCESS);

  EXPECT_EQ(sdb.entries.size(), 1u);
  EXPECT_TRUE(sdb.entries.contains(key("28", "0007")));
  EXPECT_EQ(scripted::platform().log.at(0), "sysmgr_vdc_get");
  EXPECT_EQ(scripted::platform().log.at(1), "report ks_cache_purge_vdc_keys(#)\n");
}

}  // namespace
