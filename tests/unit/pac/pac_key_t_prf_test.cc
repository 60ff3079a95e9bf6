// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "pac_fixture.h"

namespace {

using pac::Bytes;
using pac::bytes;
using pac::Flow;
using pac::kOpaque;
using pac::kUntouched;
using pac::kUntouchedLen;
using pac::operator+;
using scripted::bytes_of;
using scripted::reply;
using scripted::result_only;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

class PacKeyTPrf : public pac::Test {
 protected:
  PacKeyTPrf() { output.fill(0xee); }

  KsResult compute(uint16_t output_len = 4) {
    return ks_pac_key_t_prf(aid.data(), 3, label.data(), 5, random.data(), 2, output.data(), output_len);
  }
  KsResult compute_without_random(uint16_t random_len = 0) {
    return ks_pac_key_t_prf(aid.data(), 3, label.data(), 5, nullptr, random_len, output.data(), 4);
  }
  void cache_result(const Bytes &result) {
    sdb.entries[pac::cache_key(aid)] = pac::cache_value_with(kOpaque, label, random, result);
  }
  // The request, without the four reserved bytes, which are not the library's.
  Bytes sent_but_reserved(size_t index = 0) const {
    Bytes sent = mts.sent(index);
    sent.erase(sent.begin() + 14, sent.begin() + 16);
    sent.erase(sent.begin() + 6, sent.begin() + 8);
    return sent;
  }
  Bytes written(size_t len) const { return Bytes(output.begin(), output.begin() + static_cast<long>(len)); }

  const Bytes label = bytes_of("label");
  const Bytes random = bytes("0a 0b");
  std::array<uint8_t, 16> output;
};

class CacheGetPacTprf : public PacKeyTPrf {
 protected:
  KsResult read(uint32_t len = 3) {
    return ks_cache_get_pac_tprf(aid.data(), len, label.data(), 5, random.data(), 2, &cached, &cached_len);
  }

  uint8_t *cached = kUntouched;
  uint16_t cached_len = kUntouchedLen;
};

TEST_F(PacKeyTPrf, SendsNameLabelAndRandomWithoutReportingEntryOrReturn) {
  break_cache();
  mts.reply_with(reply(bytes("01 02 03 04")));
  EXPECT_EQ(compute(), KS_SUCCESS);

  EXPECT_EQ(mts.request().op, 66571u);
  EXPECT_EQ(mts.request().descriptor.size(), 20u);
  EXPECT_EQ(sent_but_reserved(), bytes("04 00 07 14  05 00 1b 00 00 00  02 00 20 00 00 00"
                                       "31 00 00 07 a1 00 a3  6c 61 62 65 6c  0a 0b"));
  EXPECT_EQ(mts.request().sections[1].data, label.data());
  EXPECT_EQ(mts.request().sections[2].data, random.data());
  EXPECT_EQ(written(5), bytes("01 02 03 04 ee"));
  EXPECT_THAT(pac_traces(), ElementsAre("ks_pac_key_t_prf(#):Cache absent. Using smartcard."));
}

// DIFFERS(tprf-exact-name)
TEST_F(PacKeyTPrf, AllocatesItsNameToTheByteAndReleasesInOrder) {
  break_cache();
  mts.reply_with(reply(bytes("01 02 03 04")));
  EXPECT_EQ(compute(), KS_SUCCESS);

  EXPECT_THAT(flow(), ElementsAre("calloc list[3]", "calloc 7", "send", "recv", "free 7", "free list[3]", "drop sent",
                                  "drop received"));
}

TEST_F(PacKeyTPrf, SendsTwoSectionsWithoutARandom) {
  break_cache();
  mts.reply_with(reply({}));
  EXPECT_EQ(compute_without_random(), KS_SUCCESS);

  EXPECT_EQ(mts.request().sections.size(), 2u);
  EXPECT_EQ(sent_but_reserved(), bytes("04 00 07 14  05 00 1b 00 00 00  00 00 00 00 00 00"
                                       "31 00 00 07 a1 00 a3  6c 61 62 65 6c"));
  EXPECT_EQ(flow().front(), "calloc list[2]");
}

TEST_F(PacKeyTPrf, SendsAnEmptyThirdSectionForAnEmptyRandom) {
  break_cache();
  mts.reply_with(reply({}));
  EXPECT_EQ(ks_pac_key_t_prf(aid.data(), 3, label.data(), 5, random.data(), 0, output.data(), 4), KS_SUCCESS);

  ASSERT_EQ(mts.request().sections.size(), 3u);
  EXPECT_EQ(mts.request().sections[2].length, 0u);
  EXPECT_EQ(sent_but_reserved(), bytes("04 00 07 14  05 00 1b 00 00 00  00 00 00 00 00 00"
                                       "31 00 00 07 a1 00 a3  6c 61 62 65 6c"));
}

TEST_F(PacKeyTPrf, AnnouncesTheLengthOfANullRandomWithoutWritingPastItsList) {
  break_cache();
  mts.reply_with(reply({}));
  EXPECT_EQ(compute_without_random(9), KS_SUCCESS);  // the list of two ends at a guard page

  EXPECT_EQ(mts.request().sections.size(), 2u);
  EXPECT_EQ(sent_but_reserved(), bytes("04 00 07 14  05 00 1b 00 00 00  09 00 20 00 00 00"
                                       "31 00 00 07 a1 00 a3  6c 61 62 65 6c"));
}

TEST_F(PacKeyTPrf, LeavesALabelOfAnyKindToTheService) {
  open_cache();
  mts.reply_with(result_only(KS_INVALID_ARGS));
  EXPECT_EQ(ks_pac_key_t_prf(aid.data(), 3, nullptr, 0, nullptr, 0, output.data(), 4), KS_INVALID_ARGS);

  EXPECT_EQ(mts.request().sections.size(), 2u);
  EXPECT_EQ(mts.request().sections[1].length, 0u);
  EXPECT_THAT(pac_traces(), ElementsAre("ks_pac_key_t_prf(#):PAC TPRF not found in cache."));
}

TEST_F(PacKeyTPrf, RefusesBadArgumentsInSilence) {
  const Bytes longer(32, 1);
  const auto refuse = [this](const uint8_t *name, uint8_t name_len, uint8_t *out, uint16_t out_len) {
    EXPECT_EQ(ks_pac_key_t_prf(name, name_len, label.data(), 5, nullptr, 0, out, out_len), KS_INVALID_ARGS);
  };
  refuse(nullptr, 3, output.data(), 4);
  refuse(longer.data(), 0, output.data(), 4);
  refuse(longer.data(), 32, output.data(), 4);
  refuse(longer.data(), 3, nullptr, 4);
  refuse(longer.data(), 3, output.data(), 0);

  EXPECT_THAT(scripted::platform().log, IsEmpty());
}

TEST_F(PacKeyTPrf, AcceptsAnAidOf31Bytes) {
  break_cache();
  const Bytes longest(31, 1);
  mts.reply_with(result_only(KS_NOT_FOUND));
  EXPECT_EQ(ks_pac_key_t_prf(longest.data(), 31, label.data(), 5, nullptr, 0, output.data(), 4), KS_NOT_FOUND);

  EXPECT_EQ(mts.request().sections[0].content, bytes("31 00 00 07") + longest);
  EXPECT_THAT(output, Each(0xee));
}

TEST_F(PacKeyTPrf, AnswersFromTheCacheWithoutAMessage) {
  open_cache();
  cache_result(bytes("01 02 03 04"));
  EXPECT_EQ(compute(), KS_SUCCESS);

  EXPECT_EQ(written(5), bytes("01 02 03 04 ee"));
  EXPECT_THAT(flow(), ElementsAre("malloc 35", "calloc 4", "free 35", "free 4"));
  EXPECT_THAT(
      pac_traces(),
      ElementsAre("ks_cache_get_pac_tprf(#):Found valid TPRF in cache.", "ks_cache_get_pac_tprf(#):output_len = 4.",
                  "ks_cache_get_pac_tprf(#):Found valid TPRF in cache.\n", "ks_cache_get_pac_tprf(#):output_len = 4.\n",
                  "ks_pac_key_t_prf(#):Valid PAC tprf found in cache."));
}

// DIFFERS(tprf-cached-copy)
TEST_F(PacKeyTPrf, KeepsTheCachedCopyWhenThisCallOpenedTheCache) {
  cache_result(bytes("01 02 03 04"));
  EXPECT_EQ(compute(), KS_SUCCESS);
  EXPECT_EQ(written(5), bytes("01 02 03 04 ee"));
  EXPECT_THAT(flow(), ElementsAre("malloc 35", "calloc 4", "free 35"));
  EXPECT_EQ(ks_cache_present, 1u);

  EXPECT_EQ(compute(), KS_SUCCESS) << "the second call frees its own";
  expect_leaked({4});
}

TEST_F(PacKeyTPrf, TakesAShorterCachedResultAndLeavesTheRest) {
  open_cache();
  cache_result(bytes("01 02"));
  EXPECT_EQ(compute(), KS_SUCCESS);

  EXPECT_EQ(written(4), bytes("01 02 ee ee"));
}

// DIFFERS(tprf-cached-too-long)
TEST_F(PacKeyTPrf, FailsOnALongerCachedResultAndKeepsItsCopy) {
  open_cache();
  cache_result(bytes("01 02 03 04 05"));
  EXPECT_EQ(compute(), KS_FAILURE);

  EXPECT_TRUE(mts.requests.empty());
  EXPECT_THAT(output, Each(0xee));
  EXPECT_EQ(traces().back(), "ks_pac_key_t_prf(#):Buffer too small output buffer len :4 output data len :5 \n");
  expect_leaked({5});
}

TEST_F(PacKeyTPrf, GoesToTheKeystoreForAnotherLabelOrRandomAndKeepsTheStoredResult) {
  open_cache();
  cache_result(bytes("01 02 03 04"));
  const auto before = sdb.entries;
  const Bytes other = bytes_of("lebal");
  mts.reply_with(reply(bytes("09")));
  EXPECT_EQ(ks_pac_key_t_prf(aid.data(), 3, other.data(), 5, random.data(), 2, output.data(), 4), KS_SUCCESS);
  mts.reply_with(reply(bytes("09")));
  EXPECT_EQ(ks_pac_key_t_prf(aid.data(), 3, label.data(), 5, other.data(), 2, output.data(), 4), KS_SUCCESS);
  mts.reply_with(reply(bytes("09")));
  EXPECT_EQ(compute_without_random(), KS_SUCCESS);

  EXPECT_EQ(mts.requests.size(), 3u);
  EXPECT_EQ(sdb.entries, before);
  EXPECT_EQ(pac_traces(), Flow(3, "ks_pac_key_t_prf(#):PAC TPRF not found in cache."));
}

TEST_F(PacKeyTPrf, NeverFillsTheCache) {
  open_cache();
  for (int i = 0; i < 2; ++i) {
    mts.reply_with(reply(bytes("09")));
    EXPECT_EQ(compute(), KS_SUCCESS);
  }
  EXPECT_TRUE(sdb.entries.empty());
  EXPECT_THAT(events({"sdb_write", "sdb_delete"}), IsEmpty());
}

TEST_F(PacKeyTPrf, GoesOnToTheKeystoreWhenTheCacheRunsOutOfMemory) {
  open_cache();
  cache_result(bytes("01 02 03 04"));
  for (const int allocation : {1, 2}) {
    heap.fail_nth(allocation);
    mts.reply_with(reply(bytes("09")));
    EXPECT_EQ(compute(), KS_SUCCESS);
    EXPECT_EQ(output[0], 9);
  }
}

TEST_F(PacKeyTPrf, AnswersAFailedExchangeWith2AndFreesNameAndList) {
  break_cache();
  mts.fail_send(17);
  EXPECT_EQ(compute(), 2u);
  EXPECT_EQ(traces().back(), "mts_send failed : 17\n");
  EXPECT_THAT(flow(), ElementsAre("calloc list[3]", "calloc 7", "send", "free 7", "free list[3]"));

  forget_reports();
  mts.fail_recv(18);
  EXPECT_EQ(compute(), 2u);
  EXPECT_EQ(traces().back(), "mts_recv failed : 18\n");
  EXPECT_THAT(flow(), ElementsAre("calloc list[3]", "calloc 7", "send", "recv", "drop sent", "free 7", "free list[3]"));
}

TEST_F(PacKeyTPrf, AnswersNoMemoryAndReportsTheListOnly) {
  break_cache();
  heap.fail_nth(1);
  EXPECT_EQ(compute(), KS_NO_MEMORY);
  EXPECT_EQ(traces().back(), "Calloc Failed");

  forget_reports();
  heap.fail_nth(2);
  EXPECT_EQ(compute(), KS_NO_MEMORY);
  EXPECT_EQ(traces().back(), "ks_pac_key_t_prf(#):Cache absent. Using smartcard.");
  EXPECT_THAT(flow(), ElementsAre("calloc list[3]", "calloc 7", "free list[3]"));
}

TEST_F(PacKeyTPrf, PassesOnARefusalWithTheOutputUntouched) {
  break_cache();
  mts.reply_with(result_only(KS_NOT_FOUND));
  EXPECT_EQ(compute(), KS_NOT_FOUND);

  EXPECT_THAT(output, Each(0xee));
}

// DIFFERS(tprf-short-reply)
TEST_F(PacKeyTPrf, TakesAReplyUpToTheLengthAskedForAndNothingOfALongerOne) {
  break_cache();
  mts.reply_with(reply(bytes("01 02 03")));
  EXPECT_EQ(compute(), KS_SUCCESS);
  EXPECT_EQ(written(4), bytes("01 02 03 ee"));

  output.fill(0xee);
  mts.reply_with(reply(bytes("01 02 03 04 05")));
  EXPECT_EQ(compute(), KS_FAILURE);
  EXPECT_THAT(output, Each(0xee));
  EXPECT_EQ(traces().back(), "Buffer too small output buffer len :4 output data len :5 \n");
}

TEST_F(PacKeyTPrf, BuildsARequestOfItsOwnFieldsOnly) {
  KsSection sections[3] = {{}, {}, {&sections, 77}};
  KsPacKeyTPrfDescriptor descriptor;
  std::memset(&descriptor, 0xa5, sizeof descriptor);
  EXPECT_EQ(ks_pac_key_t_prf_req(aid.data(), 3, label.data(), 5, nullptr, 9, 0x0102, sections, &descriptor),
            KS_SUCCESS);

  const auto *raw = reinterpret_cast<const uint8_t *>(&descriptor);
  EXPECT_EQ(Bytes(raw, raw + 20), bytes("02 01 07 14 05 00 a5 a5 1b 00 00 00 09 00 a5 a5 20 00 00 00"));
  EXPECT_EQ(heap.content(sections[0].data, 7), bytes("31 00 00 07 a1 00 a3"));
  EXPECT_EQ(sections[0].length, 7u);
  EXPECT_EQ(sections[1].data, label.data());
  EXPECT_EQ(sections[2].length, 77u) << "no third entry without a random";
  heap.release(sections[0].data);

  heap.fail_nth(1);
  EXPECT_EQ(ks_pac_key_t_prf_req(aid.data(), 3, label.data(), 5, nullptr, 9, 4, sections, &descriptor), KS_NO_MEMORY);
}

TEST_F(PacKeyTPrf, ReadsAReplyWhateverItsSize) {
  scripted::Guarded payload(reply(bytes("01 02")));
  EXPECT_EQ(ks_pac_key_t_prf_resp(0, payload.data(), output.data(), 2), KS_SUCCESS);
  EXPECT_EQ(written(3), bytes("01 02 ee"));
}

TEST_F(CacheGetPacTprf, HandsOutACopy) {
  cache_result(bytes("01 02 03"));
  EXPECT_EQ(read(), KS_SUCCESS);

  takes(cached, cached_len, bytes("01 02 03"));
  EXPECT_THAT(flow(), ElementsAre("malloc 35", "calloc 3", "free 35"));
}

TEST_F(CacheGetPacTprf, LeavesTheOutputsOnEveryFailureAndReportsNone) {
  EXPECT_EQ(read(), KS_NOT_FOUND);
  cache(kOpaque);
  EXPECT_EQ(read(), KS_FAILURE);
  cache_result(bytes("01 02 03"));
  heap.fail_nth(1);
  EXPECT_EQ(read(), KS_NO_MEMORY);
  heap.fail_nth(2);
  EXPECT_EQ(read(), KS_NO_MEMORY);
  EXPECT_EQ(ks_cache_get_pac_tprf(aid.data(), 3, nullptr, 0, nullptr, 0, &cached, &cached_len), KS_INVALID_ARGS);

  EXPECT_EQ(cached, kUntouched);
  EXPECT_EQ(cached_len, kUntouchedLen);
  EXPECT_THAT(pac_traces(), IsEmpty());
}

TEST_F(CacheGetPacTprf, TakesTheLow8BitsOfTheNamesLengthWithoutOverrunningTheName) {
  cache_result(bytes("01 02 03"));
  scripted::Guarded longer(aid + Bytes(300, 0));
  const auto read_longer = [&](uint32_t len) {
    return ks_cache_get_pac_tprf(longer.data(), len, label.data(), 5, random.data(), 2, &cached, &cached_len);
  };
  EXPECT_EQ(read_longer(259), KS_SUCCESS);
  takes(cached, cached_len, bytes("01 02 03"));
  EXPECT_EQ(read_longer(32), KS_INVALID_ARGS);
  EXPECT_EQ(read_longer(252), KS_INVALID_ARGS);
}

}  // namespace
