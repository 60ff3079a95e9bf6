// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "cache_fixture.h"

namespace {

using cache::CacheTest;
using cache::Lines;
using cache::operator+;
using scripted::Bytes;
using scripted::bytes;
using scripted::bytes_of;
using scripted::Guarded;
using testing::ElementsAre;
using testing::IsEmpty;

// --- writing

class PacWrite : public CacheTest {
 protected:
  KsResult write(const Bytes &metadata) {
    return ks_cache_pac_write(kWire.data(), 6, metadata.data(), static_cast<uint16_t>(metadata.size()));
  }
  const Lines kSize = {"103:ks_cache_pac_write(#):Total value size :31.URI :u:x.Meta :.Meta Len :9\n"};
};

TEST_F(PacWrite, StoresMetadataBehindAHeaderThatIsOtherwiseZero) {
  Guarded metadata(kMeta);
  Guarded wire(kWire);
  EXPECT_EQ(ks_cache_pac_write(wire.data(), 6, metadata.data(), 9), KS_SUCCESS);

  EXPECT_EQ(sdb.entries[kKey], kPlain);
  EXPECT_EQ(sdb.entries.size(), 1u);
}

TEST_F(PacWrite, DeletesThenWritesAndReportsEveryStepWithEachCombinationOfGates) {
  const Lines reports = Lines{"103:ks_cache_pac_write(#)\n"} + clearing() + kSize +
                        Lines{"103:ks_cache_pac_write(#):Writing PAC into shared DB.\n"} +
                        writing("PAC stored in shared DB.\n") + Lines{"103:ks_cache_pac_write(#):Return \n"};
  expect_with_every_combination_of_gates([] {}, [this] { EXPECT_EQ(write(kMeta), KS_SUCCESS); }, reports,
                                         {"sdb_delete", "sdb_write_done", "sdb_write", "sdb_write_done"});
}

TEST_F(PacWrite, AllocatesTheValueAndFreesItOnSuccess) {
  EXPECT_EQ(write(kMeta), KS_SUCCESS);

  EXPECT_THAT(flow(), ElementsAre("calloc 31", "free 31"));
}

TEST_F(PacWrite, RemovesTheTPrfResultOfTheOldEntry) {
  write(kMeta);
  ASSERT_EQ(ks_cache_pac_write_tprf(kWire.data(), 6, "l", 1, nullptr, 0, "o", 1), KS_SUCCESS);
  EXPECT_NE(sdb.entries[kKey], kPlain);
  EXPECT_EQ(write(kMeta), KS_SUCCESS);

  EXPECT_EQ(sdb.entries[kKey], kPlain);
  expect_leaked({9, 9});  // of ks_cache_pac_write_tprf
}

TEST_F(PacWrite, WritesWhateverTheDeleteAnswers) {
  sdb.delete_code = 5;
  EXPECT_EQ(write(kMeta), KS_SUCCESS);

  EXPECT_EQ(sdb.entries[kKey], kPlain);
  EXPECT_THAT(traces(true), testing::Contains("103:ks_cache_pac_clear(#):SDB delete error.\n"));
}

TEST_F(PacWrite, StoresNoMetadataAsTheHeaderAlone) {
  EXPECT_EQ(ks_cache_pac_write(kWire.data(), 6, nullptr, 0), KS_SUCCESS);

  EXPECT_EQ(sdb.entries[kKey], Bytes(22, 0));
}

TEST_F(PacWrite, StoresTheLargestMetadata) {
  EXPECT_EQ(write(Bytes(65535, 0x5a)), KS_SUCCESS);

  EXPECT_EQ(sdb.entries[kKey], bytes("ff ff 00 00") + Bytes(18, 0) + Bytes(65535, 0x5a));
}

TEST_F(PacWrite, RefusesABadNameAndTouchesNothing) {
  sdb.entries[kKey] = kPlain;
  EXPECT_EQ(ks_cache_pac_write(nullptr, 6, "m", 1), KS_INVALID_ARGS);
  EXPECT_EQ(ks_cache_pac_write(kWire.data(), 0, "m", 1), KS_INVALID_ARGS);
  EXPECT_EQ(ks_cache_pac_write(kWire.data(), 36, "m", 1), KS_INVALID_ARGS);

  EXPECT_EQ(sdb.entries[kKey], kPlain);
  EXPECT_THAT(traces(), testing::Each("ks_cache_pac_write(#)\n"));
  EXPECT_THAT(sdb_calls(), IsEmpty());
}

TEST_F(PacWrite, AcceptsANameOf35Bytes) {
  Guarded wire(bytes("31 00 00 07") + Bytes(31, 'n'));
  EXPECT_EQ(ks_cache_pac_write(wire.data(), 35, "m", 1), KS_SUCCESS);

  EXPECT_TRUE(sdb.entries.contains(bytes("01 00 00 00 31 00 00 07") + Bytes(31, 'n')));
}

TEST_F(PacWrite, AcceptsANameOf1Byte) {
  Guarded wire(bytes("31"));
  EXPECT_EQ(ks_cache_pac_write(wire.data(), 1, "m", 1), KS_SUCCESS);

  EXPECT_TRUE(sdb.entries.contains(bytes("01 00 00 00 31") + Bytes(34, 0)));
}

TEST_F(PacWrite, LeavesNoEntryWhenTheValueCantBeAllocated) {
  sdb.entries[kKey] = kPlain;
  heap.fail_nth(1);
  EXPECT_EQ(write(kMeta), KS_NO_MEMORY);

  EXPECT_THAT(sdb.entries, IsEmpty());
  EXPECT_EQ(traces(true), Lines{"103:ks_cache_pac_write(#)\n"} + clearing() + kSize +
                              Lines{"100:ks_cache_pac_write(#):Malloc failed \n"});
}

// DIFFERS(cache-write-keeps-value)
TEST_F(PacWrite, KeepsTheValueAndLeavesNoEntryWhenTheDatabaseRefuses) {
  sdb.entries[kKey] = kPlain;
  sdb.write_code = 28;
  EXPECT_EQ(write(kMeta), KS_FAILURE);

  EXPECT_THAT(sdb.entries, IsEmpty());
  EXPECT_EQ(last_traces(1), Lines{"103:ks_cache_pac_write(#):SDB write error.\n"});
  EXPECT_THAT(flow(), ElementsAre("calloc 31"));
  expect_leaked({31});
}

// DIFFERS(cache-write-keeps-value)
TEST_F(PacWrite, ReportsAMalformedUriAsAnAlertAndKeepsTheValue) {
  sdb.done_code = 0x411a0011;
  EXPECT_EQ(write(kMeta), KS_FAILURE);

  EXPECT_EQ(last_traces(2), (Lines{"100:sksd_sdb_write(#):URI format is invalid. \n",
                                   "100:ks_cache_pac_write(#):URI format is invalid. \n"}));
  expect_leaked({31});
}

TEST_F(PacWrite, ReportsMetadataAsTextAndNeverReadsPastIt) {
  const auto reported = [this](const Bytes &metadata) {
    trace = scripted::Trace();
    trace.open_both();
    Guarded guarded(metadata);
    EXPECT_EQ(ks_cache_pac_write(kWire.data(), 6, guarded.data(), static_cast<uint16_t>(metadata.size())), KS_SUCCESS);
    const auto is_size = [](const std::string &line) { return line.find("Total value size") != std::string::npos; };
    const auto line = std::find_if(trace.debug_lines.begin(), trace.debug_lines.end(), is_size);
    return line == trace.debug_lines.end() ? std::string("no such line") : *line;
  };
  EXPECT_EQ(reported(bytes_of("text")), "ks_cache_pac_write(#):Total value size :26.URI :u:x.Meta :text.Meta Len :4\n");
  EXPECT_EQ(reported(bytes_of(std::string("ab\0cd", 5))),
            "ks_cache_pac_write(#):Total value size :27.URI :u:x.Meta :ab.Meta Len :5\n");
  EXPECT_EQ(reported({}), "ks_cache_pac_write(#):Total value size :22.URI :u:x.Meta :.Meta Len :0\n");
  const std::string longest(511, 'm');
  EXPECT_EQ(reported(bytes_of(longest)),
            "ks_cache_pac_write(#):Total value size :533.URI :u:x.Meta :" + longest + ".Meta Len :511\n");
  // The debug line is not bound by what a record holds, whether the metadata has an end of its own or not.
  EXPECT_EQ(reported(bytes_of(longest + "mmm")),
            "ks_cache_pac_write(#):Total value size :536.URI :u:x.Meta :" + longest + "mmm.Meta Len :514\n");
  EXPECT_EQ(reported(bytes_of(longest + "mm") + Bytes(1, 0)),
            "ks_cache_pac_write(#):Total value size :536.URI :u:x.Meta :" + longest + "mm.Meta Len :514\n");
  EXPECT_EQ(reported(Bytes(65535, 'm')), "ks_cache_pac_write(#):Total value size :65557.URI :u:x.Meta :" +
                                             std::string(65535, 'm') + ".Meta Len :65535\n");
}

TEST_F(PacWrite, CutsItsRecordOfMetadataButNotItsDebugLine) {
  trace.open_both();
  EXPECT_EQ(write(Bytes(600, 'm')), KS_SUCCESS);

  const std::string line =
      "ks_cache_pac_write(#):Total value size :622.URI :u:x.Meta :" + std::string(600, 'm') + ".Meta Len :600\n";
  EXPECT_THAT(trace.debug_lines, testing::Contains(line));
  const auto records = traces();
  const auto record = std::find_if(records.begin(), records.end(), [](const std::string &text) {
    return text.find("Total value size") != std::string::npos;
  });
  ASSERT_NE(record, records.end());
  EXPECT_THAT(*record, testing::MatchesRegex("ks_cache_pac_write\\(#\\):Total value size :622.URI :u:x.Meta :m+"));
  EXPECT_EQ(trace.lengths[static_cast<size_t>(record - records.begin())], 516u) << "4, 511 characters, and the end";
}

TEST_F(PacWrite, PassesNullMetadataToItsReport) {
  EXPECT_EQ(ks_cache_pac_write(kWire.data(), 6, nullptr, 0), KS_SUCCESS);

  EXPECT_THAT(traces(),
              testing::Contains("ks_cache_pac_write(#):Total value size :22.URI :u:x.Meta :(null).Meta Len :0\n"));
}

// --- reading

class ReadPac : public CacheTest {
 protected:
  KsResult read() { return ks_cache_read_pac(kWire.data(), 6, &metadata, &meta_len); }
  // What reading a value hands out; a null buffer with length 0 is the sign of a damaged one.
  void expect_damaged(const Bytes &value) {
    sdb.entries[kKey] = value;
    metadata = untouched;
    meta_len = 0xeeee;
    EXPECT_EQ(read(), KS_SUCCESS);
    EXPECT_EQ(metadata, nullptr);
    EXPECT_EQ(meta_len, 0);
  }

  uint8_t byte = 0xee;
  uint8_t *const untouched = &byte;
  uint8_t *metadata = untouched;
  uint16_t meta_len = 0xeeee;
};

TEST_F(ReadPac, HandsOutACopyOfTheMetadata) {
  sdb.entries[kKey] = kPlain;
  Guarded wire(kWire);
  EXPECT_EQ(ks_cache_read_pac(wire.data(), 6, &metadata, &meta_len), KS_SUCCESS);

  EXPECT_EQ(meta_len, 9);
  EXPECT_EQ(heap.content(metadata, 9), kMeta);
  EXPECT_THAT(flow(), ElementsAre("calloc 9"));
  heap.release(metadata);
}

TEST_F(ReadPac, ReportsEveryStepWithEachCombinationOfGates) {
  sdb.entries[kKey] = kPlain;
  const Lines reports = Lines{"103:ks_cache_read_pac(#)\n"} + reading("SDB Read successful.") +
                        Lines{"103:ks_cache_read_pac(#):Total value Size :31 \n", "103:ks_cache_read_pac(#):Return \n"};
  ASSERT_EQ(reports.size(), 44u);
  expect_with_every_combination_of_gates([] {},
                                         [this] {
                                           EXPECT_EQ(read(), KS_SUCCESS);
                                           heap.release(metadata);
                                         },
                                         reports, {"sdb_read"});
}

TEST_F(ReadPac, ReportsAMissingKeyAsAnAlertWithEachCombinationOfGates) {
  const Lines reports = Lines{"103:ks_cache_read_pac(#)\n"} +
                        reading("SDB read on uri u:x failed. (text of 0x40480003).\n") +
                        Lines{"100:ks_cache_read_pac(#):Key not found. \n"};
  expect_with_every_combination_of_gates([] {}, [this] { EXPECT_EQ(read(), KS_NOT_FOUND); }, reports, {"sdb_read"});
  EXPECT_EQ(metadata, untouched);
  EXPECT_EQ(meta_len, 0xeeee);
}

TEST_F(ReadPac, ReadsAnEntryWithoutMetadataAsANullBuffer) {
  expect_damaged(Bytes(22, 0));

  EXPECT_EQ(last_traces(2),
            (Lines{"103:ks_cache_read_pac(#):Total value Size :22 \n", "103:ks_cache_read_pac(#):Return \n"}));
  EXPECT_THAT(flow(), IsEmpty());
}

TEST_F(ReadPac, ReadsAValueTooShortForItsHeaderAsOneWithoutMetadata) {
  for (ptrdiff_t size = 0; size < 22; ++size) {
    SCOPED_TRACE(size);
    expect_damaged(Bytes(kPlain.begin(), kPlain.begin() + size));
  }
  EXPECT_THAT(flow(), IsEmpty());
}

TEST_F(ReadPac, BelievesTheLengthOfTheMetadataWhateverSizeTheValueIsSaidToHave) {
  const Bytes longer(300, 0x5a);
  sdb.entries[kKey] = bytes("2c 01 00 00") + Bytes(18, 0) + longer;
  for (const uint32_t size : {22u, 30u, 321u, 322u, 0xffffffffu}) {
    SCOPED_TRACE(size);
    sdb.value_size = size;
    EXPECT_EQ(read(), KS_SUCCESS);
    EXPECT_EQ(last_traces(2),
              (Lines{"103:ks_cache_read_pac(#):Total value Size :" + std::to_string(static_cast<int32_t>(size)) + " \n",
                     "103:ks_cache_read_pac(#):Return \n"}));
    EXPECT_EQ(meta_len, 300);
    EXPECT_EQ(heap.content(metadata, 300), longer);
    heap.release(metadata);
  }
}

TEST_F(ReadPac, TakesNoNoticeOfWhatFollowsTheMetadata) {
  sdb.entries[kKey] = kPlain + bytes("01 02 03");
  EXPECT_EQ(read(), KS_SUCCESS);

  EXPECT_EQ(heap.content(metadata, 9), kMeta);
  heap.release(metadata);
}

TEST_F(ReadPac, CutsTheLengthOfMoreMetadataThanAWriterCanStore) {
  sdb.entries[kKey] = bytes("03 00 01 00") + Bytes(18, 0) + Bytes(65539, 0x5a);
  EXPECT_EQ(read(), KS_SUCCESS);

  EXPECT_EQ(meta_len, 3);
  EXPECT_EQ(heap.content(metadata, 65539), Bytes(65539, 0x5a));
  heap.release(metadata);
}

TEST_F(ReadPac, RefusesABadName) {
  EXPECT_EQ(ks_cache_read_pac(nullptr, 6, &metadata, &meta_len), KS_INVALID_ARGS);
  EXPECT_EQ(ks_cache_read_pac(kWire.data(), 0, &metadata, &meta_len), KS_INVALID_ARGS);
  EXPECT_EQ(ks_cache_read_pac(kWire.data(), 36, &metadata, &meta_len), KS_INVALID_ARGS);

  EXPECT_EQ(metadata, untouched);
  EXPECT_EQ(meta_len, 0xeeee);
  EXPECT_THAT(traces(true), testing::Each("103:ks_cache_read_pac(#)\n"));
  EXPECT_THAT(sdb_calls(), IsEmpty());
}

TEST_F(ReadPac, AcceptsANameOf35Bytes) {
  const Bytes wire = bytes("31 00 00 07") + Bytes(31, 'n');
  sdb.entries[bytes("01 00 00 00") + wire] = kPlain;
  Guarded guarded(wire);
  EXPECT_EQ(ks_cache_read_pac(guarded.data(), 35, nullptr, nullptr), KS_SUCCESS);
}

TEST_F(ReadPac, AnswersTheUriFaultsWithAnAlertAndKeepsTheCacheOpen) {
  sdb.entries[kKey] = kPlain;
  sdb.read_error = 0x411a0011;
  EXPECT_EQ(read(), KS_FAILURE);
  EXPECT_EQ(last_traces(1), Lines{"100:ks_cache_read_pac(#):URI format is invalid. \n"});

  sdb.read_error = 0x411a000f;
  EXPECT_EQ(read(), KS_FAILURE);
  EXPECT_EQ(last_traces(1), Lines{"100:ks_cache_read_pac(#): No URI exists. \n"});

  EXPECT_EQ(metadata, untouched);
  EXPECT_EQ(meta_len, 0xeeee);
  EXPECT_EQ(ks_cache_present, 1u);
  EXPECT_EQ(sdb.entries[kKey], kPlain);
}

TEST_F(ReadPac, ReportsAKeyWithoutAValueAsAnAlert) {
  sdb.null_value = true;
  EXPECT_EQ(read(), KS_FAILURE);

  EXPECT_EQ(last_traces(1), Lines{"100:ks_cache_read_pac(#):Key is found in SDB but value is NULL. \n"});
  EXPECT_EQ(metadata, untouched);
  EXPECT_EQ(meta_len, 0xeeee);
}

// DIFFERS(cache-read-other-error)
TEST_F(ReadPac, TakesAnyOtherErrorForNone) {
  sdb.entries[kKey] = kPlain;
  sdb.value_error = 0x411a0008;
  EXPECT_EQ(read(), KS_SUCCESS);
  EXPECT_EQ(heap.content(metadata, 9), kMeta);
  heap.release(metadata);

  sdb.read_error = 5;  // and no value
  EXPECT_EQ(read(), KS_FAILURE);
  EXPECT_EQ(last_traces(1), Lines{"100:ks_cache_read_pac(#):Key is found in SDB but value is NULL. \n"});
  EXPECT_EQ(ks_cache_read_pac(kWire.data(), 6, nullptr, &meta_len), KS_SUCCESS);
  EXPECT_EQ(last_traces(1), Lines{"103:sksd_sdb_read(#):SDB read on uri u:x failed. (text of 0x5).\n"});
}

TEST_F(ReadPac, OnlyAsksForTheKeyWithANullBuffer) {
  EXPECT_EQ(ks_cache_read_pac(kWire.data(), 6, nullptr, &meta_len), KS_NOT_FOUND);

  trace.reports.clear();
  sdb.entries[kKey] = kPlain;
  EXPECT_EQ(ks_cache_read_pac(kWire.data(), 6, nullptr, &meta_len), KS_SUCCESS);
  EXPECT_EQ(traces(true), Lines{"103:ks_cache_read_pac(#)\n"} + reading("SDB Read successful."));

  sdb.null_value = true;
  EXPECT_EQ(ks_cache_read_pac(kWire.data(), 6, nullptr, nullptr), KS_SUCCESS);
  EXPECT_EQ(meta_len, 0xeeee);
  EXPECT_THAT(flow(), IsEmpty());
}

TEST_F(ReadPac, NullsTheBufferWhenItCantBeAllocated) {
  sdb.entries[kKey] = kPlain;
  heap.fail_nth(1);
  EXPECT_EQ(read(), KS_NO_MEMORY);

  EXPECT_EQ(metadata, nullptr);
  EXPECT_EQ(meta_len, 0xeeee);
  EXPECT_EQ(last_traces(1), Lines{"100:ks_cache_read_pac(#):Malloc failed \n"});
  EXPECT_EQ(sdb.entries[kKey], kPlain);
}

// --- looking for

class FindPac : public CacheTest {
 protected:
  uint32_t found = 0xeeeeeeee;
};

TEST_F(FindPac, FindsTheEntryOfTheCallersVdc) {
  sdb.entries[kKey] = kPlain;
  Guarded aid(bytes_of("ab"));
  EXPECT_EQ(ks_cache_find_pac(aid.data(), 2, &found), KS_SUCCESS);
  EXPECT_EQ(found, 1u);

  vdc_id = 0x0807;
  EXPECT_EQ(ks_cache_find_pac(aid.data(), 2, &found), KS_NOT_FOUND);
  EXPECT_EQ(found, 0u);

  sdb.entries[bytes("01 00 00 00 31 00 08 07 61 62") + Bytes(29, 0)] = kPlain;
  EXPECT_EQ(ks_cache_find_pac(aid.data(), 2, &found), KS_SUCCESS);
}

// DIFFERS(cache-find-malloc)
TEST_F(FindPac, TakesItsNameFromMallocAndClearsIt) {
  sdb.entries[kKey] = kPlain;
  EXPECT_EQ(ks_cache_find_pac("ab", 2, &found), KS_SUCCESS);

  EXPECT_THAT(flow(), ElementsAre("malloc 35", "free 35"));
}

TEST_F(FindPac, MakesTheSameKeyOfAOneByteAidEachTime) {
  sdb.entries[bytes("01 00 00 00 31 00 00 07 61") + Bytes(30, 0)] = kPlain;
  EXPECT_EQ(ks_cache_find_pac("a", 1, &found), KS_SUCCESS);
  EXPECT_EQ(ks_cache_find_pac("b", 1, &found), KS_NOT_FOUND);
  EXPECT_EQ(ks_cache_find_pac("a", 1, &found), KS_SUCCESS);
}

TEST_F(FindPac, FindsTheLongestAid) {
  sdb.entries[bytes("01 00 00 00 31 00 00 07") + Bytes(31, 'a')] = kPlain;
  EXPECT_EQ(ks_cache_find_pac(std::string(31, 'a').c_str(), 31, &found), KS_SUCCESS);
}

TEST_F(FindPac, AnswersAnAidThatIsTooLongAsTheReadDoes) {
  Guarded aid(Bytes(32, 'a'));
  EXPECT_EQ(ks_cache_find_pac(aid.data(), 32, &found), KS_INVALID_ARGS);

  EXPECT_EQ(found, 0u);
}

TEST_F(FindPac, ReportsNothingOfItsOwn) {
  EXPECT_EQ(ks_cache_find_pac("ab", 2, &found), KS_NOT_FOUND);

  EXPECT_EQ(found, 0u);
  EXPECT_EQ(traces(true), Lines{"103:ks_cache_read_pac(#)\n"} +
                              reading("SDB read on uri u:x failed. (text of 0x40480003).\n") +
                              Lines{"100:ks_cache_read_pac(#):Key not found. \n"});
}

TEST_F(FindPac, FindsWhatADatabaseInTroubleCantTell) {
  sdb.read_error = 5;
  EXPECT_EQ(ks_cache_find_pac("ab", 2, &found), KS_SUCCESS);
  EXPECT_EQ(found, 1u);

  sdb.read_error = 0x411a000f;
  EXPECT_EQ(ks_cache_find_pac("ab", 2, &found), KS_FAILURE);
  EXPECT_EQ(found, 0u);
}

// DIFFERS(cache-find-malloc)
TEST_F(FindPac, LeavesTheFlagAndSaysNothingWithoutMemory) {
  heap.fail_nth(1);
  EXPECT_EQ(ks_cache_find_pac("ab", 2, &found), KS_NO_MEMORY);

  EXPECT_EQ(found, 0xeeeeeeeeu);
  EXPECT_THAT(traces(), IsEmpty());
}

// --- deleting

class PacClear : public CacheTest {
 protected:
  KsResult clear() { return ks_cache_pac_clear(kWire.data(), 6); }
};

TEST_F(PacClear, DeletesWithoutReadingAndReportsEveryStepWithEachCombinationOfGates) {
  expect_with_every_combination_of_gates([this] { sdb.entries[kKey] = kPlain; },
                                         [this] {
                                           EXPECT_EQ(clear(), KS_SUCCESS);
                                           EXPECT_THAT(sdb.entries, IsEmpty());
                                         },
                                         clearing(), {"sdb_delete", "sdb_write_done"});
  EXPECT_THAT(flow(), IsEmpty());
}

TEST_F(PacClear, AnswersAMissingKeyAsTheDatabaseDoes) {
  EXPECT_EQ(clear(), KS_SUCCESS);

  sdb.missing_delete_code = 0x40480003;
  EXPECT_EQ(clear(), KS_FAILURE);
  EXPECT_EQ(last_traces(1), Lines{"103:ks_cache_pac_clear(#):SDB delete error.\n"});
}

TEST_F(PacClear, ReportsAMalformedUriAsAnAlert) {
  sdb.delete_code = 0x411a0011;
  EXPECT_EQ(clear(), KS_FAILURE);

  EXPECT_EQ(last_traces(2), (Lines{"103:sksd_sdb_delete(#):SDB delete on uri u:x failed. (text of 0x411a0011).\n",
                                   "100:ks_cache_pac_clear(#):URI format is invalid. \n"}));
}

TEST_F(PacClear, RefusesABadName) {
  EXPECT_EQ(ks_cache_pac_clear(nullptr, 6), KS_INVALID_ARGS);
  EXPECT_EQ(ks_cache_pac_clear(kWire.data(), 0), KS_INVALID_ARGS);
  EXPECT_EQ(ks_cache_pac_clear(kWire.data(), 36), KS_INVALID_ARGS);

  EXPECT_THAT(traces(true), testing::Each("103:ks_cache_pac_clear(#)\n"));
  EXPECT_THAT(sdb_calls(), IsEmpty());
}

TEST_F(PacClear, AcceptsANameOf35Bytes) {
  Guarded wire(bytes("31 00 00 07") + Bytes(31, 'n'));
  EXPECT_EQ(ks_cache_pac_clear(wire.data(), 35), KS_SUCCESS);
}

}  // namespace
