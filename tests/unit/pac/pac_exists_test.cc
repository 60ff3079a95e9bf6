// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "pac_fixture.h"

namespace {

using pac::Bytes;
using pac::bytes;
using pac::Flow;
using pac::kOpaque;
using pac::operator+;
using scripted::result_only;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

class PacExists : public pac::Test {
 protected:
  KsResult ask() { return ks_pac_exists(aid.data(), aid_len, &exists); }

  uint32_t exists = 0xeeeeeeee;
};

TEST_F(PacExists, AnswersFromTheCacheWithoutAMessage) {
  open_cache();
  cache(kOpaque);
  EXPECT_EQ(ask(), KS_SUCCESS);

  EXPECT_EQ(exists, 1u);
  EXPECT_THAT(flow(), ElementsAre("malloc 35", "free 35"));
  EXPECT_THAT(pac_traces(), ElementsAre("ks_pac_exists(#)\n", "ks_pac_exists(#):PAC found in cache.",
                                        "ks_pac_exists(#):PAC found in cache.\n"));
}

TEST_F(PacExists, AsksTheKeystoreWhenTheCacheIsAbsent) {
  break_cache();
  mts.reply_with(bytes("01 00 00 00  01 00  02"));
  EXPECT_EQ(ask(), KS_SUCCESS);

  EXPECT_EQ(exists, 2u) << "the flag as the service sent it";
  EXPECT_EQ(mts.request().op, 66570u);
  EXPECT_EQ(mts.sent(), bytes("07 02  31 00 00 07 a1 00 a3"));
  EXPECT_THAT(flow(), ElementsAre("calloc list[1]", "calloc 35", "send", "recv", "free 35", "free list[1]", "drop sent",
                                  "drop received"));
  EXPECT_THAT(pac_traces(), ElementsAre("ks_pac_exists(#)\n", "ks_pac_exists(#):Cache absent. Using smartcard.",
                                        "ks_pac_exists(#):Cache absent. Using smartcard.\n",
                                        "Invalid Response Length:7\n", "ks_pac_exists(#):Return.\n"));
  EXPECT_EQ(scripted::platform().log.back(), "report ks_pac_exists(#):Return.\n") << "behind both drops";
}

TEST_F(PacExists, ReadsTheFlagBehindAReplyOfTheExpectedSize) {
  break_cache();
  mts.reply_with(bytes("01 00 00 00  01 00  01"), 6);
  EXPECT_EQ(ask(), KS_SUCCESS);

  EXPECT_EQ(exists, 1u);
  EXPECT_THAT(traces(), Not(Contains("Invalid Response Length:6\n")));
}

// DIFFERS(pac-exists-not-found)
TEST_F(PacExists, AnswersNotFoundAndLeavesTheFlagWhereItsTwinForSecretsSucceeds) {
  break_cache();
  mts.reply_with(result_only(KS_NOT_FOUND));
  EXPECT_EQ(ask(), KS_NOT_FOUND);

  EXPECT_EQ(exists, 0xeeeeeeeeu);
}

TEST_F(PacExists, KeepsTheCachesZeroBehindAMiss) {
  open_cache();
  mts.reply_with(result_only(KS_NOT_FOUND));
  EXPECT_EQ(ask(), KS_NOT_FOUND);

  EXPECT_EQ(exists, 0u);
  EXPECT_THAT(pac_traces(), ElementsAre("ks_pac_exists(#)\n", "ks_pac_exists(#):PAC not found in cache.",
                                        "ks_pac_exists(#):PAC not found in cache.\n", "Invalid Response Length:4\n",
                                        "ks_pac_exists(#):Return.\n"));
}

// DIFFERS(pac-exists-null-store)
TEST_F(PacExists, FaultsOnTheKeystoresYesBehindAMiss) {
  mts.reply_with(bytes("01 00 00 00  01 00  01"));
  open_cache();
  EXPECT_FAULT(ask());
  ks_cache_present = 0;
  EXPECT_FAULT(ask()) << "likewise when the cache has just been opened";
  mts.script.clear();
}

TEST_F(PacExists, CountsAFailureOfTheCacheAsAMissAndLeavesTheFlag) {
  open_cache();
  heap.fail_nth(1);
  mts.reply_with(result_only(KS_NOT_FOUND));
  EXPECT_EQ(ask(), KS_NOT_FOUND);

  EXPECT_EQ(exists, 0xeeeeeeeeu);
}

TEST_F(PacExists, TriesToOpenAClosedCacheOnEveryCall) {
  break_cache();
  for (int i = 0; i < 2; ++i) {
    mts.reply_with(result_only(KS_NOT_FOUND));
    EXPECT_EQ(ask(), KS_NOT_FOUND);
  }
  EXPECT_EQ(events({"sdb_open"}).size(), 2u);

  sdb.open_codes.clear();
  cache(kOpaque);
  EXPECT_EQ(ask(), KS_SUCCESS);
  EXPECT_EQ(ks_cache_present, 1u);
}

TEST_F(PacExists, RefusesBadArgumentsBeforeItAsksAnybody) {
  const Bytes longer(32, 1);
  EXPECT_EQ(ks_pac_exists(nullptr, 3, &exists), KS_INVALID_ARGS);
  EXPECT_EQ(ks_pac_exists(longer.data(), 0, &exists), KS_INVALID_ARGS);
  EXPECT_EQ(ks_pac_exists(longer.data(), 32, &exists), KS_INVALID_ARGS);
  EXPECT_EQ(ks_pac_exists(longer.data(), 3, nullptr), KS_INVALID_ARGS);

  EXPECT_EQ(scripted::platform().log, Flow(4, "report ks_pac_exists(#)\n"));
}

TEST_F(PacExists, AcceptsAnAidOf31Bytes) {
  break_cache();
  const Bytes longest(31, 1);
  mts.reply_with(result_only(KS_NOT_FOUND));
  EXPECT_EQ(ks_pac_exists(longest.data(), 31, &exists), KS_NOT_FOUND);

  EXPECT_EQ(mts.sent(), bytes("23 02 31 00 00 07") + longest);
}

TEST_F(PacExists, AnswersNoMemorySilently) {
  break_cache();
  heap.fail_nth(1);
  EXPECT_EQ(ask(), KS_NO_MEMORY);
  heap.fail_nth(2);
  EXPECT_EQ(ask(), KS_NO_MEMORY);

  EXPECT_EQ(exists, 0xeeeeeeeeu);
  EXPECT_THAT(flow(), ElementsAre("calloc list[1]", "calloc list[1]", "calloc 35", "free list[1]"));
  EXPECT_EQ(pac_traces().back(), "ks_pac_exists(#):Cache absent. Using smartcard.\n");
}

TEST_F(PacExists, BuildsARequestAndReadsAReplyForOthers) {
  KsSection section = {};
  KsNameDescriptor descriptor = {};
  EXPECT_EQ(ks_pac_exists_req(aid.data(), aid_len, &section, &descriptor), KS_SUCCESS);
  EXPECT_EQ(descriptor.name_len, 7);
  EXPECT_EQ(descriptor.name_offset, 2);
  EXPECT_EQ(section.length, 7u);
  EXPECT_EQ(heap.content(section.data, 35), bytes("31 00 00 07 a1 00 a3") + Bytes(28));
  heap.release(section.data);
  heap.fail_nth(1);
  EXPECT_EQ(ks_pac_exists_req(aid.data(), aid_len, &section, &descriptor), KS_NO_MEMORY);

  scripted::Guarded yes(bytes("01 00 00 00 ff ff 03"));
  EXPECT_EQ(ks_pac_exists_resp(&exists, yes.data()), KS_SUCCESS);
  EXPECT_EQ(exists, 3u);
  scripted::Guarded no(result_only(KS_NOT_FOUND));
  EXPECT_EQ(ks_pac_exists_resp(&exists, no.data()), KS_NOT_FOUND);
  EXPECT_EQ(exists, 3u);
}

}  // namespace
