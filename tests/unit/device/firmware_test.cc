// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "scripted.h"

namespace {

using scripted::bytes;
using scripted::result_only;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

class FwVersionAndStatus : public scripted::Test {
 protected:
  KsResult ask() {
    CaptureStderr();
    const KsResult result = ks_return_fw_version_and_status(&version, &status);
    dump = GetCapturedStderr();
    return result;
  }

  uint16_t version = 0xeeee;
  uint32_t status = 0xeeeeeeee;
  std::string dump;
};

TEST_F(FwVersionAndStatus, SendsABareOpcodeAndReadsBehindTheLength) {
  mts.reply_with(bytes("01 00 00 00  ff ff  02 01  ff"));
  EXPECT_EQ(ask(), KS_SUCCESS);

  EXPECT_EQ(mts.request().op, 66593u);
  EXPECT_FALSE(mts.request().has_descriptor);
  EXPECT_FALSE(mts.request().has_options);
  EXPECT_EQ(version, 0x0102);
  EXPECT_EQ(status, 255u);
  EXPECT_THAT(traces(true), ElementsAre("103:Version :258 \n"));
  EXPECT_THAT(flow(), ElementsAre("send", "recv", "drop sent", "drop received"));
}

// DIFFERS(fw-status-dump)
TEST_F(FwVersionAndStatus, DumpsTheReplyToStandardErrorWithEveryGateShut) {
  trace.close();
  mts.reply_with(bytes("01 00 00 00  03 00  02 01  ff"));
  EXPECT_EQ(ask(), KS_SUCCESS);

  EXPECT_EQ(dump, " 1  0  0  0  3  0  2  1 ff ");
}

TEST_F(FwVersionAndStatus, DumpsARefusalTooAndLeavesTheOutputs) {
  mts.reply_with(result_only(KS_FW_PANIC));
  EXPECT_EQ(ask(), KS_FW_PANIC);

  EXPECT_EQ(dump, "15  0  0  0 ");
  EXPECT_EQ(version, 0xeeee);
  EXPECT_EQ(status, 0xeeeeeeeeu);
  EXPECT_THAT(traces(), IsEmpty());
}

TEST_F(FwVersionAndStatus, DumpsNothingOfAnEmptyPayloadAndStillReadsItsResult) {
  mts.reply_with(result_only(KS_FAILURE), 0);
  EXPECT_EQ(ask(), KS_FAILURE);

  EXPECT_EQ(dump, "");
}

TEST_F(FwVersionAndStatus, TakesTheLowBitsOfThePayloadSize) {
  mts.reply_with(result_only(KS_FAILURE), 0x10002);
  EXPECT_EQ(ask(), KS_FAILURE);

  EXPECT_EQ(dump, " 2  0 ");
}

TEST_F(FwVersionAndStatus, RefusesNullPointersSilently) {
  EXPECT_EQ(ks_return_fw_version_and_status(nullptr, &status), KS_INVALID_ARGS);
  EXPECT_EQ(ks_return_fw_version_and_status(&version, nullptr), KS_INVALID_ARGS);

  EXPECT_THAT(scripted::platform().log, IsEmpty());
}

class CompactFwMemory : public scripted::Test {};

TEST_F(CompactFwMemory, SendsABareOpcode) {
  mts.reply_with(result_only(KS_SUCCESS));
  EXPECT_EQ(ks_compact_fw_memory(), KS_SUCCESS);

  EXPECT_EQ(mts.request().op, 66594u);
  EXPECT_FALSE(mts.request().has_descriptor);
  EXPECT_FALSE(mts.request().has_options);
  EXPECT_THAT(flow(), ElementsAre("send", "recv", "drop sent", "drop received"));
}

TEST_F(CompactFwMemory, PassesOnEveryAnswerWithoutAReport) {
  mts.reply_with(result_only(KS_FW_COMPACT_CORRUPT));
  EXPECT_EQ(ks_compact_fw_memory(), KS_FW_COMPACT_CORRUPT);

  EXPECT_THAT(traces(), IsEmpty());
}

TEST(CompactFwMemoryResp, ReadsTheFirstWordWhateverTheSize) {
  scripted::Guarded payload(result_only(77));
  EXPECT_EQ(ks_compact_fw_memory_resp(0, payload.data()), 77u);
}

}  // namespace
