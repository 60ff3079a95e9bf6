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
using testing::ElementsAre;
using testing::IsEmpty;

const Bytes kCleared = bytes("01 00 00 00 00 00");

class ClearPac : public pac::Test {
 protected:
  KsResult clear() { return ks_clear_pac(aid.data(), aid_len); }
};

TEST_F(ClearPac, SendsTheName) {
  mts.reply_with(kCleared);
  EXPECT_EQ(clear(), KS_SUCCESS);

  EXPECT_EQ(mts.request().op, 66564u);
  EXPECT_EQ(mts.sent(), bytes("07 02  31 00 00 07 a1 00 a3"));
  EXPECT_THAT(flow(), ElementsAre("calloc list[1]", "calloc 35", "send", "recv", "free 35", "free list[1]", "drop sent",
                                  "drop received"));
  EXPECT_THAT(traces(), ElementsAre("ks_clear_pac(#):\n", "ks_clear_pac(#):Return.\n"));
  EXPECT_EQ(scripted::platform().log.back(), "report ks_clear_pac(#):Return.\n") << "behind both drops";
}

TEST_F(ClearPac, ReportsAnotherSizeAndStillReadsTheResult) {
  mts.reply_with(result_only(KS_NOT_FOUND));
  EXPECT_EQ(clear(), KS_NOT_FOUND);

  EXPECT_THAT(traces(),
              ElementsAre("ks_clear_pac(#):\n", "Invalid Response Length :4 \n", "ks_clear_pac(#):Return.\n"));
}

// DIFFERS(clear-pac-hold)
TEST_F(ClearPac, AnswersZeroInHoldBeforeItLooksAtItsArguments) {
  sysmgr.supstate = 2;
  EXPECT_EQ(ks_clear_pac(nullptr, 0), 0u);
  EXPECT_EQ(clear(), 0u);

  EXPECT_THAT(scripted::platform().log,
              ElementsAre("report ks_clear_pac(#):\n", "supstate", "report ks_clear_pac(#):\n", "supstate"));
}

TEST_F(ClearPac, TakesEveryOtherSupStateForFree) {
  for (const uint32_t state : {0u, 1u, 3u, 0x10002u, 0xffffffffu}) {
    sysmgr.supstate = state;
    mts.reply_with(kCleared);
    EXPECT_EQ(clear(), KS_SUCCESS) << state;
  }
}

TEST_F(ClearPac, RefusesBadArgumentsSilently) {
  const Bytes longer(32, 1);
  EXPECT_EQ(ks_clear_pac(nullptr, 3), KS_INVALID_ARGS);
  EXPECT_EQ(ks_clear_pac(longer.data(), 0), KS_INVALID_ARGS);
  EXPECT_EQ(ks_clear_pac(longer.data(), 32), KS_INVALID_ARGS);

  EXPECT_EQ(traces(), Flow(3, "ks_clear_pac(#):\n"));
  EXPECT_THAT(flow(), IsEmpty());
}

TEST_F(ClearPac, ClearsAnAidOf31Bytes) {
  const Bytes longest(31, 1);
  mts.reply_with(kCleared);
  EXPECT_EQ(ks_clear_pac(longest.data(), 31), KS_SUCCESS);

  EXPECT_EQ(mts.sent(), bytes("23 02 31 00 00 07") + longest);
}

// DIFFERS(clear-pac-failure)
TEST_F(ClearPac, AnswersAFailedExchangeWith2) {
  mts.fail_send(17);
  EXPECT_EQ(clear(), 2u);
  EXPECT_EQ(traces().back(), "mts_send failed. Error:17\n");
  mts.fail_recv(18);
  EXPECT_EQ(clear(), 2u);
  EXPECT_EQ(traces().back(), "mts_recv failed. Error:18\n");
}

// DIFFERS(clear-pac-no-list)
TEST_F(ClearPac, AnswersFailureWithoutAListAndNoMemoryWithoutAName) {
  heap.fail_nth(1);
  EXPECT_EQ(clear(), KS_FAILURE);
  heap.fail_nth(2);
  EXPECT_EQ(clear(), KS_NO_MEMORY);

  EXPECT_EQ(traces(), Flow(2, "ks_clear_pac(#):\n"));
  EXPECT_THAT(flow(), ElementsAre("calloc list[1]", "calloc list[1]", "calloc 35", "free list[1]"));
}

TEST_F(ClearPac, LeavesTheCachedCopy) {
  open_cache();
  cache(kOpaque);
  mts.reply_with(kCleared);
  EXPECT_EQ(clear(), KS_SUCCESS);

  uint32_t exists = 0;
  EXPECT_EQ(ks_pac_exists(aid.data(), aid_len, &exists), KS_SUCCESS);
  EXPECT_EQ(exists, 1u);
}

TEST_F(ClearPac, BuildsARequestAndReadsAReplyForOthers) {
  KsSection section = {};
  KsNameDescriptor descriptor = {};
  EXPECT_EQ(ks_clear_pac_req(aid.data(), aid_len, &section, &descriptor), KS_SUCCESS);
  EXPECT_EQ(descriptor.name_len, 7);
  EXPECT_EQ(descriptor.name_offset, 2);
  EXPECT_EQ(heap.content(section.data, 35), bytes("31 00 00 07 a1 00 a3") + Bytes(28));
  heap.release(section.data);
  heap.fail_nth(1);
  EXPECT_EQ(ks_clear_pac_req(aid.data(), aid_len, &section, &descriptor), KS_NO_MEMORY);

  scripted::Guarded payload(result_only(77));
  EXPECT_EQ(ks_clear_pac_resp(0, payload.data()), 77u);
}

}  // namespace
