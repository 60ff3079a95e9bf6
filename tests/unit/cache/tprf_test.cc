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

// The entry of kMeta with label "LA", random "r1r" and output 0a 0b 0c 0d.
class TPrfTest : public CacheTest {
 protected:
  const Bytes kLabel = bytes_of("LA");
  const Bytes kRandom = bytes_of("r1r");
  const Bytes kOutput = bytes("0a 0b 0c 0d");
  const Bytes kWithResult = bytes("09 00 00 00  09 00 00 00 02 00  0b 00 00 00 03 00  0e 00 00 00 04 00") + kMeta +
                            kLabel + kRandom + kOutput;
};

// --- writing

class WriteTPrf : public TPrfTest {
 protected:
  KsResult write() { return ks_cache_pac_write_tprf(kWire.data(), 6, "LA", 2, "r1r", 3, "\x0a\x0b\x0c\x0d", 4); }
  const Lines kOwnRead =
      Lines{"103:ks_cache_read_pac(#)\n"} + reading("SDB Read successful.") +
      Lines{"103:ks_cache_read_pac(#):Total value Size :31 \n", "103:ks_cache_read_pac(#):Return \n"};
  const Lines kSizes = {
      "103:ks_cache_pac_write_tprf(#):Total value size :40.URI :u:x.Meta Len :9.Label Len :2."
      "Random Len :3.Output Len :4.\n"};
};

TEST_F(WriteTPrf, PacksTheRegionsBehindTheMetadata) {
  sdb.entries[kKey] = kPlain;
  Guarded wire(kWire), label(kLabel), random(kRandom), output(kOutput);
  EXPECT_EQ(ks_cache_pac_write_tprf(wire.data(), 6, label.data(), 2, random.data(), 3, output.data(), 4), KS_SUCCESS);

  EXPECT_EQ(sdb.entries[kKey], kWithResult);
  expect_leaked({9, 9});
}

TEST_F(WriteTPrf, LeavesRandomFieldsZeroWithoutARandom) {
  sdb.entries[kKey] = kPlain;
  EXPECT_EQ(ks_cache_pac_write_tprf(kWire.data(), 6, "LA", 2, nullptr, 0, "ou", 2), KS_SUCCESS);

  EXPECT_EQ(sdb.entries[kKey],
            bytes("09 00 00 00  09 00 00 00 02 00  00 00 00 00 00 00  0b 00 00 00 02 00") + kMeta + bytes_of("LAou"));
  expect_leaked({9, 9});
}

TEST_F(WriteTPrf, LeavesAGapForANullRandomWithALength) {
  sdb.entries[kKey] = kPlain;
  EXPECT_EQ(ks_cache_pac_write_tprf(kWire.data(), 6, "LA", 2, nullptr, 3, "ou", 2), KS_SUCCESS);

  EXPECT_EQ(sdb.entries[kKey], bytes("09 00 00 00  09 00 00 00 02 00  00 00 00 00 00 00  0e 00 00 00 02 00") + kMeta +
                                   bytes_of("LA") + bytes("00 00 00") + bytes_of("ou"));
  EXPECT_THAT(traces(), testing::Contains("ks_cache_pac_write_tprf(#):Total value size :38.URI :u:x.Meta Len :9.Label "
                                          "Len :2.Random Len :3.Output Len :2.\n"));
  expect_leaked({9, 9});
}

TEST_F(WriteTPrf, TakesAnEmptyRandomForOneAtItsPlace) {
  sdb.entries[kKey] = kPlain;
  EXPECT_EQ(ks_cache_pac_write_tprf(kWire.data(), 6, "LA", 2, "", 0, "ou", 2), KS_SUCCESS);

  EXPECT_EQ(sdb.entries[kKey],
            bytes("09 00 00 00  09 00 00 00 02 00  0b 00 00 00 00 00  0b 00 00 00 02 00") + kMeta + bytes_of("LAou"));
  expect_leaked({9, 9});
}

TEST_F(WriteTPrf, ReadsDeletesAndWritesAndReportsEveryStepWithEachCombinationOfGates) {
  const Lines reports = Lines{"103:ks_cache_pac_write_tprf(#)\n"} + kOwnRead + clearing() + kSizes +
                        Lines{"103:ks_cache_pac_write_tprf(#):Writing PAC TPRF into shared DB.\n"} +
                        writing("PAC stored in shared DB.\n") + Lines{"103:ks_cache_pac_write_tprf(#):Return \n"};
  expect_with_every_combination_of_gates([this] { sdb.entries[kKey] = kPlain; },
                                         [this] {
                                           EXPECT_EQ(write(), KS_SUCCESS);
                                           EXPECT_EQ(sdb.entries[kKey], kWithResult);
                                         },
                                         reports,
                                         {"sdb_read", "sdb_delete", "sdb_write_done", "sdb_write", "sdb_write_done"});
  expect_leaked(std::vector<size_t>(32, 9));
}

// DIFFERS(tprf-write-keeps-metadata)
TEST_F(WriteTPrf, KeepsBothCopiesOfTheMetadataAndFreesTheValue) {
  sdb.entries[kKey] = kPlain;
  EXPECT_EQ(write(), KS_SUCCESS);

  EXPECT_THAT(flow(), ElementsAre("calloc 9", "calloc 9", "calloc 40", "free 40"));
  expect_leaked({9, 9});
}

TEST_F(WriteTPrf, LeavesTheMetadataAsItWas) {
  sdb.entries[kKey] = kPlain;
  EXPECT_EQ(write(), KS_SUCCESS);

  uint8_t *metadata = nullptr;
  uint16_t meta_len = 0;
  EXPECT_EQ(ks_cache_read_pac(kWire.data(), 6, &metadata, &meta_len), KS_SUCCESS);
  EXPECT_EQ(heap.content(metadata, 9), kMeta);
  heap.release(metadata);
  expect_leaked({9, 9});
}

TEST_F(WriteTPrf, ReplacesAnEarlierResultWhateverItsLabel) {
  sdb.entries[kKey] = kWithResult;
  EXPECT_EQ(ks_cache_pac_write_tprf(kWire.data(), 6, "LB", 2, nullptr, 0, "ou", 2), KS_SUCCESS);

  EXPECT_EQ(sdb.entries[kKey],
            bytes("09 00 00 00  09 00 00 00 02 00  00 00 00 00 00 00  0b 00 00 00 02 00") + kMeta + bytes_of("LBou"));
  uint8_t *output = nullptr;
  uint16_t output_len = 0;
  EXPECT_EQ(ks_cache_read_tprf(kWire.data(), 6, "LA", 2, "r1r", 3, &output, &output_len), KS_FAILURE);
  EXPECT_EQ(last_traces(1), Lines{"100:ks_cache_read_tprf(#):Label mismatch.\n"});
  expect_leaked({9, 9});
}

TEST_F(WriteTPrf, RefusesBadArgumentsAndTouchesNothing) {
  sdb.entries[kKey] = kPlain;
  const uint8_t *wire = kWire.data();
  EXPECT_EQ(ks_cache_pac_write_tprf(nullptr, 6, "l", 1, nullptr, 0, "o", 1), KS_INVALID_ARGS);
  EXPECT_EQ(ks_cache_pac_write_tprf(wire, 0, "l", 1, nullptr, 0, "o", 1), KS_INVALID_ARGS);
  EXPECT_EQ(ks_cache_pac_write_tprf(wire, 36, "l", 1, nullptr, 0, "o", 1), KS_INVALID_ARGS);
  EXPECT_EQ(ks_cache_pac_write_tprf(wire, 6, nullptr, 1, nullptr, 0, "o", 1), KS_INVALID_ARGS);
  EXPECT_EQ(ks_cache_pac_write_tprf(wire, 6, "l", 0, nullptr, 0, "o", 1), KS_INVALID_ARGS);
  EXPECT_EQ(ks_cache_pac_write_tprf(wire, 6, "l", 1, nullptr, 0, nullptr, 1), KS_INVALID_ARGS);
  EXPECT_EQ(ks_cache_pac_write_tprf(wire, 6, "l", 1, nullptr, 0, "o", 0), KS_INVALID_ARGS);

  EXPECT_EQ(traces(true), Lines(7, "103:ks_cache_pac_write_tprf(#)\n"));
  EXPECT_THAT(sdb_calls(), IsEmpty());
}

TEST_F(WriteTPrf, AcceptsANameOf35Bytes) {
  const Bytes wire = bytes("31 00 00 07") + Bytes(31, 'n');
  sdb.entries[bytes("01 00 00 00") + wire] = kPlain;
  EXPECT_EQ(ks_cache_pac_write_tprf(wire.data(), 35, "l", 1, nullptr, 0, "o", 1), KS_SUCCESS);
  expect_leaked({9, 9});
}

TEST_F(WriteTPrf, CreatesNothingForAnUnknownKey) {
  EXPECT_EQ(write(), KS_NOT_FOUND);

  EXPECT_THAT(sdb.entries, IsEmpty());
  EXPECT_THAT(sdb_calls(), ElementsAre("sdb_read"));
  EXPECT_EQ(last_traces(2),
            (Lines{"100:ks_cache_read_pac(#):Key not found. \n", "100:ks_cache_pac_write_tprf(#):Key not found. \n"}));
}

TEST_F(WriteTPrf, PassesOnAnyOtherFailureOfTheRead) {
  sdb.entries[kKey] = kPlain;
  sdb.read_error = 0x411a000f;
  EXPECT_EQ(write(), KS_FAILURE);
  EXPECT_EQ(last_traces(1), Lines{"100:ks_cache_pac_write_tprf(#):ks_read_failed.\n"});

  sdb.read_error.reset();
  heap.fail_nth(1);
  EXPECT_EQ(write(), KS_NO_MEMORY);
  EXPECT_EQ(last_traces(1), Lines{"100:ks_cache_pac_write_tprf(#):ks_read_failed.\n"});

  EXPECT_EQ(sdb.entries[kKey], kPlain);
  EXPECT_THAT(sdb_calls(), ElementsAre("sdb_read", "sdb_read"));
}

TEST_F(WriteTPrf, DeletesAnEntryWithoutMetadata) {
  for (const Bytes &damaged : {Bytes(22, 0), Bytes(3, 9), bytes("00 00 00 00") + Bytes(18, 9) + kMeta}) {
    sdb.entries[kKey] = damaged;
    trace.reports.clear();
    EXPECT_EQ(write(), KS_FAILURE);

    EXPECT_THAT(sdb.entries, IsEmpty());
    EXPECT_EQ(last_traces(clearing().size() + 1),
              Lines{"100:ks_cache_pac_write_tprf(#):No Meta present for this key in cache. Corrupt entry. Deleting "
                    "it.\n"} +
                  clearing());
  }
}

TEST_F(WriteTPrf, TakesTheMetadataOfAValueThatIsSaidToBeShorter) {
  sdb.entries[kKey] = kPlain;
  sdb.value_size = 23;
  EXPECT_EQ(write(), KS_SUCCESS);

  EXPECT_EQ(sdb.entries[kKey], kWithResult);
  expect_leaked({9, 9});
}

TEST_F(WriteTPrf, KeepsTheEntryWhenTheCopyCantBeAllocated) {
  sdb.entries[kKey] = kWithResult;
  heap.fail_nth(2);
  EXPECT_EQ(write(), KS_NO_MEMORY);

  EXPECT_EQ(sdb.entries[kKey], kWithResult);
  EXPECT_THAT(sdb_calls(), ElementsAre("sdb_read"));
  EXPECT_EQ(last_traces(1), Lines{"100:ks_cache_pac_write_tprf(#):Malloc failed \n"});
  expect_leaked({9});
}

// DIFFERS(tprf-write-keeps-metadata)
TEST_F(WriteTPrf, LosesTheEntryWhenTheValueCantBeAllocated) {
  sdb.entries[kKey] = kPlain;
  heap.fail_nth(3);
  EXPECT_EQ(write(), KS_NO_MEMORY);

  EXPECT_THAT(sdb.entries, IsEmpty());
  EXPECT_EQ(last_traces(2), kSizes + Lines{"100:ks_cache_pac_write_tprf(#):Malloc failed \n"});
  expect_leaked({9, 9});
}

// DIFFERS(tprf-write-keeps-metadata)
TEST_F(WriteTPrf, LosesTheEntryAndFreesTheValueWhenTheDatabaseRefuses) {
  sdb.entries[kKey] = kPlain;
  sdb.write_code = 28;
  EXPECT_EQ(write(), KS_FAILURE);
  EXPECT_THAT(sdb.entries, IsEmpty());
  EXPECT_EQ(last_traces(1), Lines{"103:ks_cache_pac_write_tprf(#):SDB write error.\n"});

  sdb.entries[kKey] = kPlain;
  sdb.write_code = 0x411a0011;
  EXPECT_EQ(write(), KS_FAILURE);
  EXPECT_EQ(last_traces(1), Lines{"100:ks_cache_pac_write_tprf(#):URI format is invalid. \n"});
  expect_leaked({9, 9, 9, 9});
}

TEST_F(WriteTPrf, WritesWhateverTheDeleteAnswers) {
  sdb.entries[kKey] = kPlain;
  sdb.delete_code = 5;
  EXPECT_EQ(write(), KS_SUCCESS);

  EXPECT_EQ(sdb.entries[kKey], kWithResult);
  expect_leaked({9, 9});
}

TEST_F(WriteTPrf, StoresTheLargestRegions) {
  const Bytes big(65535, 'b');
  sdb.entries[kKey] = bytes("ff ff 00 00") + Bytes(18, 0) + big;
  EXPECT_EQ(ks_cache_pac_write_tprf(kWire.data(), 6, big.data(), 65535, big.data(), 65535, big.data(), 65535),
            KS_SUCCESS);

  EXPECT_EQ(sdb.entries[kKey],
            bytes("ff ff 00 00  ff ff 00 00 ff ff  fe ff 01 00 ff ff  fd ff 02 00 ff ff") + big + big + big + big);
  expect_leaked({65535, 65535});
}

// --- reading

class ReadTPrf : public TPrfTest {
 protected:
  ReadTPrf() { sdb.entries[kKey] = kWithResult; }

  KsResult read(const std::string &label = "LA") { return read(label, "r1r", 3); }
  KsResult read(const std::string &label, const char *random, uint16_t random_len) {
    Guarded label_bytes(bytes_of(label));
    return ks_cache_read_tprf(kWire.data(), 6, label_bytes.data(), static_cast<uint16_t>(label.size()), random,
                              random_len, &output, &output_len);
  }
  void expect_failure_with(const std::string &alert) {
    EXPECT_EQ(last_traces(1), Lines{"100:ks_cache_read_tprf(#):" + alert});
    EXPECT_EQ(output, untouched);
    EXPECT_EQ(output_len, 0xeeee);
    EXPECT_THAT(flow(), IsEmpty());
  }
  // The entry with `value` in place of the bytes at `at`.
  Bytes changed(size_t at, const Bytes &value) const {
    Bytes all = kWithResult;
    std::copy(value.begin(), value.end(), all.begin() + static_cast<ptrdiff_t>(at));
    return all;
  }

  uint8_t byte = 0xee;
  uint8_t *const untouched = &byte;
  uint8_t *output = untouched;
  uint16_t output_len = 0xeeee;
};

TEST_F(ReadTPrf, HandsOutACopyOfTheOutputAndAllocatesNothingElse) {
  EXPECT_EQ(read(), KS_SUCCESS);

  EXPECT_EQ(output_len, 4);
  EXPECT_EQ(heap.content(output, 4), kOutput);
  EXPECT_THAT(flow(), ElementsAre("calloc 4"));
  EXPECT_EQ(sdb.entries[kKey], kWithResult);
  heap.release(output);
}

// DIFFERS(tprf-found-alert)
TEST_F(ReadTPrf, ReportsEveryStepWithEachCombinationOfGates) {
  const Lines reports =
      Lines{"103:ks_cache_read_tprf(#)\n"} + reading("SDB Read successful.") +
      Lines{"103:ks_cache_read_tprf(#):Total value Size :40 \n",
            "103:ks_cache_read_tprf(#):Cached Label Len :2. Cached Random Len :3\n",
            "103:ks_cache_read_tprf(#):Received Label Len :2.Received Random Len :3\n",
            "100:ks_cache_read_tprf(#):Valid TPRF found in cache.\n", "103:ks_cache_read_tprf(#):Return \n"};
  ASSERT_EQ(reports.size(), 47u);
  expect_with_every_combination_of_gates([] {},
                                         [this] {
                                           EXPECT_EQ(read(), KS_SUCCESS);
                                           heap.release(output);
                                         },
                                         reports, {"sdb_read"});
}

TEST_F(ReadTPrf, ReportsAMismatchWithEachCombinationOfGates) {
  const Lines reports = Lines{"103:ks_cache_read_tprf(#)\n"} + reading("SDB Read successful.") +
                        Lines{"103:ks_cache_read_tprf(#):Total value Size :40 \n",
                              "103:ks_cache_read_tprf(#):Cached Label Len :2. Cached Random Len :3\n",
                              "103:ks_cache_read_tprf(#):Received Label Len :3.Received Random Len :3\n",
                              "100:ks_cache_read_tprf(#):Label mismatch.\n"};
  expect_with_every_combination_of_gates([] {}, [this] { EXPECT_EQ(read("LAx"), KS_FAILURE); }, reports, {"sdb_read"});
}

TEST_F(ReadTPrf, MatchesWithoutARandomOnBothSides) {
  sdb.entries[kKey] = kPlain;
  ASSERT_EQ(ks_cache_pac_write_tprf(kWire.data(), 6, "LA", 2, nullptr, 0, "ou", 2), KS_SUCCESS);
  EXPECT_EQ(read("LA", nullptr, 0), KS_SUCCESS);
  EXPECT_EQ(heap.content(output, 2), bytes_of("ou"));
  heap.release(output);

  EXPECT_EQ(read("LA", nullptr, 5), KS_SUCCESS) << "the length of no random is not looked at";
  heap.release(output);

  EXPECT_EQ(read("LA", "", 0), KS_SUCCESS) << "an empty random agrees with none";
  heap.release(output);

  EXPECT_EQ(read("LA", "r", 1), KS_FAILURE);
  EXPECT_EQ(last_traces(1), Lines{"100:ks_cache_read_tprf(#):Random number length mismatch.\n"});
  expect_leaked({9, 9});
}

TEST_F(ReadTPrf, FindsTheOutputBehindAGap) {
  sdb.entries[kKey] = kPlain;
  ASSERT_EQ(ks_cache_pac_write_tprf(kWire.data(), 6, "LA", 2, nullptr, 300, "ou", 2), KS_SUCCESS);
  EXPECT_EQ(read("LA", nullptr, 0), KS_SUCCESS);

  EXPECT_EQ(heap.content(output, 2), bytes_of("ou"));
  heap.release(output);
  expect_leaked({9, 9});
}

TEST_F(ReadTPrf, RefusesBadArgumentsAndReadsNothing) {
  const uint8_t *wire = kWire.data();
  EXPECT_EQ(ks_cache_read_tprf(nullptr, 6, "LA", 2, nullptr, 0, &output, &output_len), KS_INVALID_ARGS);
  EXPECT_EQ(ks_cache_read_tprf(wire, 0, "LA", 2, nullptr, 0, &output, &output_len), KS_INVALID_ARGS);
  EXPECT_EQ(ks_cache_read_tprf(wire, 36, "LA", 2, nullptr, 0, &output, &output_len), KS_INVALID_ARGS);
  EXPECT_EQ(ks_cache_read_tprf(wire, 6, nullptr, 2, nullptr, 0, &output, &output_len), KS_INVALID_ARGS);
  EXPECT_EQ(ks_cache_read_tprf(wire, 6, "LA", 0, nullptr, 0, &output, &output_len), KS_INVALID_ARGS);

  EXPECT_EQ(traces(true), Lines(5, "103:ks_cache_read_tprf(#)\n"));
  EXPECT_THAT(sdb_calls(), IsEmpty());
  EXPECT_EQ(output, untouched);
  EXPECT_EQ(output_len, 0xeeee);
}

TEST_F(ReadTPrf, AcceptsANameOf35Bytes) {
  const Bytes wire = bytes("31 00 00 07") + Bytes(31, 'n');
  sdb.entries[bytes("01 00 00 00") + wire] = kWithResult;
  EXPECT_EQ(ks_cache_read_tprf(wire.data(), 35, "LA", 2, "r1r", 3, &output, &output_len), KS_SUCCESS);
  heap.release(output);
}

TEST_F(ReadTPrf, AnswersTheErrorWordAsTheReadOfMetadataDoes) {
  sdb.read_error = 0x411a0011;
  EXPECT_EQ(read(), KS_FAILURE);
  expect_failure_with("URI format is invalid. \n");

  sdb.read_error = 0x411a000f;
  EXPECT_EQ(read(), KS_FAILURE);
  expect_failure_with(" No URI exists. \n");

  sdb.read_error = 0x40480003;
  EXPECT_EQ(read(), KS_NOT_FOUND);
  expect_failure_with("Key not found. \n");

  sdb.read_error = 5;
  EXPECT_EQ(read(), KS_FAILURE);
  expect_failure_with("Key is found in SDB but value is NULL. \n");

  sdb.read_error.reset();
  sdb.value_error = 5;
  EXPECT_EQ(read(), KS_SUCCESS);
  heap.release(output);
}

TEST_F(ReadTPrf, FailsOnAPlainEntry) {
  sdb.entries[kKey] = kPlain;
  EXPECT_EQ(read(), KS_FAILURE);

  expect_failure_with("Either label or output is not present in cache.\n");
}

TEST_F(ReadTPrf, FailsWithoutALabelOrAnOutput) {
  sdb.entries[kKey] = changed(8, bytes("00 00"));
  EXPECT_EQ(read(), KS_FAILURE);
  expect_failure_with("Either label or output is not present in cache.\n");

  sdb.entries[kKey] = changed(20, bytes("00 00"));
  EXPECT_EQ(read("other"), KS_FAILURE);
  expect_failure_with("Either label or output is not present in cache.\n");
}

TEST_F(ReadTPrf, ReadsAValueTooShortForItsHeaderAsOneWithoutAResult) {
  for (size_t size = 0; size < 22; ++size) {
    sdb.entries[kKey] = Bytes(kWithResult.begin(), kWithResult.begin() + static_cast<ptrdiff_t>(size));
    EXPECT_EQ(read(), KS_FAILURE) << size;
    expect_failure_with("Either label or output is not present in cache.\n");
  }
}

TEST_F(ReadTPrf, BelievesTheOffsetsWhateverSizeTheValueIsSaidToHave) {
  for (const uint32_t size : {22u, 33u, 36u, 39u, 40u, 0xffffffffu}) {
    SCOPED_TRACE(size);
    sdb.value_size = size;
    EXPECT_EQ(read(), KS_SUCCESS);
    EXPECT_EQ(heap.content(output, 4), kOutput);
    heap.release(output);
  }
}

// Nothing of the output is read before everything else agrees.
TEST_F(ReadTPrf, TellsAnEntryThatIsCutInItsOutputByItsLabelAndRandomFirst) {
  sdb.entries[kKey].resize(kWithResult.size() - 1);
  EXPECT_EQ(read("LB"), KS_FAILURE);
  expect_failure_with("Label mismatch.\n");
  EXPECT_EQ(read("LA", "r1", 2), KS_FAILURE);
  expect_failure_with("Random number length mismatch.\n");
  EXPECT_EQ(read("LA", nullptr, 0), KS_FAILURE);
  expect_failure_with("Random number length mismatch.\n");
  EXPECT_EQ(read("LA", "r1s", 3), KS_FAILURE);
  expect_failure_with("Given random number does not match cached value.\n");
}

// What a longer length promises isn't read either.
TEST_F(ReadTPrf, ComparesLengthsBeforeBytes) {
  sdb.entries[kKey] = changed(8, bytes("ff ff"));
  EXPECT_EQ(read(), KS_FAILURE);
  expect_failure_with("Label mismatch.\n");
  sdb.entries[kKey] = changed(14, bytes("ff ff"));
  EXPECT_EQ(read(), KS_FAILURE);
  expect_failure_with("Random number length mismatch.\n");
}

TEST_F(ReadTPrf, ComparesTheWholeLabelInItsCase) {
  for (const std::string label : {"L", "LAx", "LB", "la", "lA", "KA"}) {
    EXPECT_EQ(read(label), KS_FAILURE) << label;
    expect_failure_with("Label mismatch.\n");
  }
}

TEST_F(ReadTPrf, ComparesTheRandom) {
  EXPECT_EQ(read("LA", "r1", 2), KS_FAILURE);
  expect_failure_with("Random number length mismatch.\n");
  EXPECT_EQ(read("LA", "", 0), KS_FAILURE);
  expect_failure_with("Random number length mismatch.\n");
  EXPECT_EQ(read("LA", "r1s", 3), KS_FAILURE);
  expect_failure_with("Given random number does not match cached value.\n");

  sdb.entries[kKey] = changed(14, bytes("01 00"));
  EXPECT_EQ(read("LA", "s", 1), KS_FAILURE) << "one byte is a random, too";
  expect_failure_with("Given random number does not match cached value.\n");
}

TEST_F(ReadTPrf, FailsWithoutARandomWhereTheEntryHasOne) {
  EXPECT_EQ(read("LA", nullptr, 0), KS_FAILURE);
  expect_failure_with("Random number length mismatch.\n");

  EXPECT_EQ(read("LA", nullptr, 3), KS_FAILURE) << "not even with its length";
  expect_failure_with("Random number length mismatch.\n");
}

TEST_F(ReadTPrf, LooksAtTheLabelBeforeTheRandom) {
  EXPECT_EQ(read("LB", "x", 1), KS_FAILURE);
  expect_failure_with("Label mismatch.\n");
}

TEST_F(ReadTPrf, UsesTheOffsetsOfTheEntry) {
  // Output, gap, random, label, in another order than the writer's.
  sdb.entries[kKey] = bytes("09 00 00 00  11 00 00 00 02 00  0e 00 00 00 03 00  09 00 00 00 04 00") + kMeta + kOutput +
                      bytes("00") + kRandom + kLabel;
  EXPECT_EQ(read(), KS_SUCCESS);

  EXPECT_EQ(heap.content(output, 4), kOutput);
  heap.release(output);
}

TEST_F(ReadTPrf, NullsTheOutputWhenItCantBeAllocated) {
  heap.fail_nth(1);
  EXPECT_EQ(read(), KS_NO_MEMORY);

  EXPECT_EQ(output, nullptr);
  EXPECT_EQ(output_len, 0xeeee);
  EXPECT_EQ(last_traces(1), Lines{"100:ks_cache_read_tprf(#):Malloc failed \n"});
  EXPECT_EQ(sdb.entries[kKey], kWithResult);
}

}  // namespace
