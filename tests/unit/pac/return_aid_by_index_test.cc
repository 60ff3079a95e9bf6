// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "pac_fixture.h"

namespace {

using pac::Bytes;
using pac::bytes;
using pac::Flow;
using pac::kUntouched;
using pac::kUntouchedLen;
using pac::operator+;
using scripted::reply;
using scripted::reply_with_len;
using scripted::result_only;
using testing::ElementsAre;
using testing::IsEmpty;

class ReturnAidByIndex : public pac::Test {
 protected:
  KsResult next() { return ks_return_aid_by_index(&index, &found, &found_len); }
  void expect_untouched() {
    EXPECT_EQ(found, kUntouched);
    EXPECT_EQ(found_len, kUntouchedLen);
  }

  uint16_t index = 0;
  uint8_t *found = kUntouched;
  uint16_t found_len = kUntouchedLen;
};

TEST_F(ReturnAidByIndex, HandsOutTheAidWithATerminatorThatDoesNotCount) {
  mts.reply_with(reply(bytes("31 00 00 07 a1 00 a3")));
  EXPECT_EQ(next(), KS_SUCCESS);

  EXPECT_EQ(mts.request().op, 66566u);
  EXPECT_EQ(mts.sent(), bytes("00 00"));
  EXPECT_FALSE(mts.request().has_options);
  EXPECT_EQ(index, 1);
  EXPECT_EQ(found_len, 3);
  EXPECT_EQ(heap.content(found, 7), bytes("a1 00 a3 00 a1 00 a3")) << "as long as the reply's name";
  EXPECT_THAT(flow(), ElementsAre("send", "recv", "calloc 7", "drop sent", "drop received"));
  EXPECT_THAT(traces(),
              ElementsAre("ks_return_aid_by_index(#)\n", "ks_return_secret_handle_by_index_resp: Ret :1 len:7 \n",
                          "ks_return_aid_by_index(#):Return KS_SUCCESS.\n"));
  EXPECT_EQ(scripted::platform().log.back(), "report ks_return_aid_by_index(#):Return KS_SUCCESS.\n");
  heap.release(found);
}

TEST_F(ReturnAidByIndex, SkipsSecretsAndOtherVdcs) {
  index = 5;
  mts.reply_with(reply(bytes("30 00 00 07 61 62")));
  mts.reply_with(reply(bytes("31 00 07 00 a1")));
  mts.reply_with(reply(bytes("00 00 ff ff")));
  mts.reply_with(reply(bytes("31 99 00 07 a1")));
  EXPECT_EQ(next(), KS_SUCCESS);

  EXPECT_EQ(mts.sent(0), bytes("05 00"));
  EXPECT_EQ(mts.sent(3), bytes("08 00"));
  EXPECT_EQ(index, 9);
  EXPECT_EQ(flow(), (Flow{"send", "recv", "calloc 6", "free 6",    "drop sent",    "drop received",  //
                          "send", "recv", "calloc 5", "free 5",    "drop sent",    "drop received",  //
                          "send", "recv", "calloc 4", "free 4",    "drop sent",    "drop received",  //
                          "send", "recv", "calloc 5", "drop sent", "drop received"}));
  EXPECT_EQ(found_len, 1);
  heap.release(found);
}

TEST_F(ReturnAidByIndex, EndsWithTheCursorUnchanged) {
  for (int i = 0; i < 3; ++i) mts.reply_with(reply(bytes("30 00 00 07 61")));
  mts.reply_with(result_only(KS_NO_MORE_ENTRIES));
  EXPECT_EQ(next(), KS_NO_MORE_ENTRIES);

  EXPECT_EQ(mts.requests.size(), 4u);
  EXPECT_EQ(index, 0);
  expect_untouched();
  EXPECT_EQ(traces().back(), "ks_return_secret_handle_by_index_resp: Ret :6 len:0 \n");
}

TEST_F(ReturnAidByIndex, ReportsTheLengthOfALongerRefusal) {
  mts.reply_with(bytes("06 00 00 00 09 00"));
  EXPECT_EQ(next(), KS_NO_MORE_ENTRIES);

  EXPECT_EQ(traces().back(), "ks_return_secret_handle_by_index_resp: Ret :6 len:9 \n");
}

TEST_F(ReturnAidByIndex, BelievesTheLengthOfASuccessWhateverSizeTheReplyIsSaidToHave) {
  for (const uint32_t size : {0u, 4u, 6u, 0xffffu, 0x10006u}) {
    SCOPED_TRACE(size);
    index = 0;
    forget_reports();
    mts.reply_with(bytes("01 00 00 00 07 00  31 00 00 07 a1 00 a3"), size);
    EXPECT_EQ(next(), KS_SUCCESS);

    EXPECT_EQ(found_len, 3);
    EXPECT_EQ(heap.content(found, 7), bytes("a1 00 a3 00 a1 00 a3"));
    EXPECT_THAT(traces(true), ElementsAre("103:ks_return_aid_by_index(#)\n",
                                          "103:ks_return_secret_handle_by_index_resp: Ret :1 len:7 \n",
                                          "103:ks_return_aid_by_index(#):Return KS_SUCCESS.\n"));
    heap.release(found);
  }
}

TEST_F(ReturnAidByIndex, HandsOutTheLongestAidWhole) {
  const Bytes longest(65531, 0xa1);
  mts.reply_with(bytes("01 00 00 00 ff ff  31 00 00 07") + longest);  // 65,541 bytes, of which 16 bits show 5
  ASSERT_EQ(next(), KS_SUCCESS);

  EXPECT_EQ(found_len, 65531);
  EXPECT_EQ(heap.content(found, 65535), longest + bytes("00 a1 a1 a1"));
  heap.release(found);
}

TEST_F(ReturnAidByIndex, ReportsNoLengthOfARefusalThatIsSaidToEndBeforeIt) {
  for (const uint32_t size : {0u, 4u, 5u, 0x10005u}) {
    mts.reply_with(bytes("06 00 00 00 09 00"), size);
    EXPECT_EQ(next(), KS_NO_MORE_ENTRIES);
    EXPECT_EQ(traces().back(), "ks_return_secret_handle_by_index_resp: Ret :6 len:0 \n") << size;
  }
}

TEST_F(ReturnAidByIndex, WrapsFromTheLastPositionToTheFirst) {
  index = 65535;
  mts.reply_with(reply(bytes("31 00 00 07 a1")));
  EXPECT_EQ(next(), KS_SUCCESS);
  EXPECT_EQ(mts.sent(0), bytes("ff ff"));
  EXPECT_EQ(index, 0);
  heap.release(found);

  index = 65535;
  mts.reply_with(reply(bytes("30 00 00 07 a1")));
  mts.reply_with(reply(bytes("31 00 00 07 a1")));
  EXPECT_EQ(next(), KS_SUCCESS);
  EXPECT_EQ(mts.sent(2), bytes("00 00"));
  EXPECT_EQ(index, 1);
  heap.release(found);
}

TEST_F(ReturnAidByIndex, HandsOutAnEmptyAid) {
  mts.reply_with(reply(bytes("31 00 00 07")));
  EXPECT_EQ(next(), KS_SUCCESS);

  EXPECT_EQ(found_len, 0);
  EXPECT_EQ(heap.content(found, 4), bytes("00 00 00 07"));
  heap.release(found);
}

TEST_F(ReturnAidByIndex, PassesOverEntriesTooShortToSayWhoseTheyAre) {
  for (uint16_t len = 0; len < 4; ++len) {
    Bytes start = bytes("31 00 00");
    start.resize(len);
    mts.reply_with(reply_with_len(len, start));
  }
  mts.reply_with(result_only(KS_NO_MORE_ENTRIES));
  EXPECT_EQ(next(), KS_NO_MORE_ENTRIES);

  EXPECT_EQ(mts.requests.size(), 5u);
  expect_untouched();
}

// DIFFERS(aid-by-index-failure)
TEST_F(ReturnAidByIndex, AnswersAFailedExchangeWith2) {
  index = 3;
  mts.reply_with(reply(bytes("30 00 00 07 61")));
  mts.fail_send(17);
  EXPECT_EQ(next(), 2u);
  EXPECT_EQ(traces().back(), "mts_send failed. Error:17\n");
  mts.fail_recv(18);
  EXPECT_EQ(next(), 2u);
  EXPECT_EQ(traces().back(), "mts_recv failed. Error:18\n");

  EXPECT_EQ(index, 3) << "also when the walk fails on its way";
  expect_untouched();
}

TEST_F(ReturnAidByIndex, DropsBothMessagesWhenTheNameCannotBeAllocated) {
  heap.fail_nth(1);
  mts.reply_with(reply(bytes("31 00 00 07 a1")));
  EXPECT_EQ(next(), KS_NO_MEMORY);

  EXPECT_THAT(flow(), ElementsAre("send", "recv", "calloc 5", "drop sent", "drop received"));
  EXPECT_EQ(index, 0);
  expect_untouched();
}

TEST_F(ReturnAidByIndex, RefusesNullPointersSilently) {
  EXPECT_EQ(ks_return_aid_by_index(nullptr, &found, &found_len), KS_INVALID_ARGS);
  EXPECT_EQ(ks_return_aid_by_index(&index, nullptr, &found_len), KS_INVALID_ARGS);
  EXPECT_EQ(ks_return_aid_by_index(&index, &found, nullptr), KS_INVALID_ARGS);

  EXPECT_EQ(scripted::platform().log, Flow(3, "report ks_return_aid_by_index(#)\n"));
}

}  // namespace
