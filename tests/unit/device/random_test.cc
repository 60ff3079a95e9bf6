// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "scripted.h"

namespace {

using scripted::bytes;
using scripted::reply;
using scripted::reply_with_len;
using scripted::result_only;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

class GenerateRandom : public scripted::Test {
 protected:
  GenerateRandom() { output.fill(0xee); }
  KsResult generate(uint8_t count, uint32_t word = 0) { return ks_generate_random_number(output.data(), count, word); }

  std::array<uint8_t, 300> output;
};

TEST_F(GenerateRandom, SendsCountAndRequestWord) {
  mts.reply_with(reply(bytes("0a 0b 0c")));
  EXPECT_EQ(generate(3, 0x12345678), KS_SUCCESS);

  const auto &request = mts.request();
  EXPECT_EQ(request.op, 66561u);
  EXPECT_FALSE(request.has_options);
  ASSERT_EQ(request.descriptor.size(), 8u);
  EXPECT_EQ(request.descriptor[0], 3);  // bytes 1 to 3 are not the library's
  EXPECT_EQ(scripted::Bytes(request.descriptor.begin() + 4, request.descriptor.end()), bytes("78 56 34 12"));
}

TEST_F(GenerateRandom, AllocatesNothingAndDropsSentThenReceived) {
  mts.reply_with(reply(bytes("0a")));
  EXPECT_EQ(generate(1), KS_SUCCESS);

  EXPECT_THAT(scripted::platform().log,
              ElementsAre("send", "hist sent", "recv", "hist received", "size", "drop sent", "drop received"));
}

TEST_F(GenerateRandom, RefusesNullBufferAndZeroCountSilently) {
  EXPECT_EQ(ks_generate_random_number(nullptr, 8, 0), KS_INVALID_ARGS);
  EXPECT_EQ(generate(0), KS_INVALID_ARGS);

  EXPECT_THAT(scripted::platform().log, IsEmpty());
}

TEST_F(GenerateRandom, AsksForUpTo255Bytes) {
  mts.reply_with(reply(scripted::Bytes(255, 0x5a)));
  EXPECT_EQ(generate(255), KS_SUCCESS);

  EXPECT_EQ(mts.request().descriptor[0], 255);
  EXPECT_EQ(output[254], 0x5a);
  EXPECT_EQ(output[255], 0xee);
}

TEST_F(GenerateRandom, CopiesExactlyTheBytesOfTheReply) {
  for (const size_t count : {1u, 2u, 3u, 5u}) {
    output.fill(0xee);
    mts.reply_with(reply(scripted::Bytes(count, 0x5a)));
    EXPECT_EQ(generate(16), KS_SUCCESS) << "fewer than asked for is a success";
    EXPECT_EQ(output[count - 1], 0x5a);
    EXPECT_EQ(output[count], 0xee);
  }
}

// DIFFERS(random-count-byte)
TEST_F(GenerateRandom, TakesTheCountFromTheLowByteOfTheLength) {
  mts.reply_with(reply_with_len(0x0104, bytes("01 02 03 04")));
  EXPECT_EQ(generate(16), KS_SUCCESS);

  EXPECT_EQ(output[3], 4);
  EXPECT_EQ(output[4], 0xee);
}

TEST_F(GenerateRandom, PassesOnARefusalAndLeavesTheBuffer) {
  mts.reply_with(result_only(KS_TIMEOUT));
  EXPECT_EQ(generate(16), KS_TIMEOUT);

  EXPECT_THAT(output, Each(0xee));
  EXPECT_THAT(traces(true), ElementsAre("103:Random number ret failed :8,                8 \n"));
}

TEST(GenerateRandomReq, WritesTheLowBitsOfTheCountAndTheWordOnly) {
  KsRandomDescriptor descriptor;
  std::memset(&descriptor, 0xa5, sizeof descriptor);
  ks_generate_random_number_req(0x1203, 0x01020304, &descriptor);

  const auto *raw = reinterpret_cast<const uint8_t *>(&descriptor);
  EXPECT_EQ(scripted::Bytes(raw, raw + 8), bytes("03 a5 a5 a5 04 03 02 01"));
}

TEST(GenerateRandomResp, TakesNoNoticeOfThePayloadSize) {
  scripted::Guarded payload(reply(bytes("01 02")));
  uint8_t output[2] = {};
  EXPECT_EQ(ks_generate_random_number_resp(0, payload.data(), output), KS_SUCCESS);

  EXPECT_THAT(output, ElementsAre(1, 2));
}

}  // namespace
