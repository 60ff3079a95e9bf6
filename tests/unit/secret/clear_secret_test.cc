// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "scripted.h"

namespace {

using scripted::Bytes;
using scripted::bytes;
using scripted::Guarded;
using scripted::operator+;
using scripted::reply;
using scripted::result_only;
using testing::ElementsAre;
using testing::IsEmpty;

class ClearSecret : public scripted::Test {};

TEST_F(ClearSecret, SendsTheNameAndReportsTheDeletion) {
  mts.reply_with(reply({}));
  EXPECT_EQ(ks_clear_secret("wifi-psk"), KS_SUCCESS);

  EXPECT_EQ(mts.request().op, 66564u);
  EXPECT_EQ(mts.sent(), bytes("0c 02  30 00 00 07 77 69 66 69 2d 70 73 6b"));
  EXPECT_THAT(traces(true), ElementsAre("103:Deleted the Key \n"));
}

TEST_F(ClearSecret, ReportsAFourByteReplyAndStillReadsIt) {
  mts.reply_with(result_only(KS_NOT_FOUND));
  EXPECT_EQ(ks_clear_secret("k1"), KS_NOT_FOUND);

  EXPECT_THAT(traces(true), ElementsAre("103:Invalid Response length :4 \n", "103:Deletion of key failed \n"));
}

TEST_F(ClearSecret, TakesSixteenBitsOfTheSize) {
  mts.reply_with(reply({}), 0x10006);
  EXPECT_EQ(ks_clear_secret("k1"), KS_SUCCESS);

  EXPECT_THAT(traces(), ElementsAre("Deleted the Key \n"));
}

TEST_F(ClearSecret, RefusesABadNameWithAReport) {
  EXPECT_EQ(ks_clear_secret(nullptr), KS_INVALID_ARGS);
  EXPECT_EQ(ks_clear_secret(""), KS_INVALID_ARGS);
  EXPECT_EQ(ks_clear_secret(std::string(32, 'n').c_str()), KS_INVALID_ARGS);

  EXPECT_THAT(scripted::platform().log, testing::Each("report Invalid Arguments \n"));
  EXPECT_EQ(traces().size(), 3u);
}

TEST_F(ClearSecret, AcceptsANameOf31Bytes) {
  mts.reply_with(reply({}));
  EXPECT_EQ(ks_clear_secret(std::string(31, 'n').c_str()), KS_SUCCESS);

  EXPECT_EQ(mts.sent(), bytes("23 02  30 00 00 07") + Bytes(31, 'n'));
}

TEST_F(ClearSecret, ReportsTheListItCantAllocateButNotTheName) {
  heap.fail_nth(2);
  EXPECT_EQ(ks_clear_secret("k1"), KS_NO_MEMORY);
  EXPECT_THAT(traces(), IsEmpty());

  heap.fail_nth(1);
  EXPECT_EQ(ks_clear_secret("k1"), KS_NO_MEMORY);
  EXPECT_THAT(traces(true), ElementsAre("103:Memory Allocation failed \n"));
}

TEST(ClearSecretReq, FillsBothOutputs) {
  scripted::platform().heap.reset();
  vdc_id = 7;
  KsSection section = {};
  KsNameDescriptor descriptor;
  EXPECT_EQ(ks_clear_secret_req("k1", &section, &descriptor), KS_SUCCESS);

  EXPECT_EQ(descriptor.name_len, 6);
  EXPECT_EQ(descriptor.name_offset, 2);
  EXPECT_EQ(scripted::platform().heap.content(section.data, 35), bytes("30 00 00 07 6b 31") + Bytes(29, 0));
  scripted::platform().heap.reset();
}

TEST(ClearSecretResp, ReturnsTheFirstWordWhateverTheSize) {
  Guarded payload(result_only(KS_NOT_FOUND));
  EXPECT_EQ(ks_clear_secret_resp(0, payload.data()), KS_NOT_FOUND);
}

}  // namespace
