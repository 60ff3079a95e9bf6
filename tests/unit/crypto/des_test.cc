// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "crypto_test.h"

namespace {

using scripted::Bytes;
using scripted::bytes;
using scripted::bytes_of;
using scripted::operator+;
using scripted::reply;
using scripted::reply_with_len;
using scripted::result_only;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

struct DesOperation {
  const char *name;
  KsResult (*run)(const char *, const uint8_t *, uint16_t, uint8_t *, uint16_t);
  uint32_t op;
};

void PrintTo(const DesOperation &operation, std::ostream *out) {
  *out << operation.name;
}

class Des : public scripted::Test, public testing::WithParamInterface<DesOperation> {
 protected:
  Des() : output(1040, 0xee) { CaptureStderr(); }
  ~Des() override { dumped(); }

  std::string dumped() {
    if (std::exchange(captured, true)) return "";
    return GetCapturedStderr();
  }

  KsResult run(const std::string &name, const Bytes &input, size_t output_len) {
    return GetParam().run(name.c_str(), input.data(), static_cast<uint16_t>(input.size()), output.data(),
                          static_cast<uint16_t>(output_len));
  }
  KsResult run(const std::string &name, size_t len = 8) { return run(name, Bytes(len, 0x11), len); }

  Bytes output;
  bool captured = false;
};

INSTANTIATE_TEST_SUITE_P(Operations, Des,
                         testing::Values(DesOperation{"DesEcbEncrypt", ks_des_ecb_encrypt, 66585},
                                         DesOperation{"DesEcbDecrypt", ks_des_ecb_decrypt, 66586},
                                         DesOperation{"TripleDesEcbEncrypt", ks_3des_ecb_encrypt, 66587},
                                         DesOperation{"TripleDesEcbDecrypt", ks_3des_ecb_decrypt, 66588}),
                         [](const auto &param) { return param.param.name; });

TEST_P(Des, SendsNameAndDataAndCopiesTheReply) {
  const Bytes input = bytes("01 02 03 04 05 06 07 08");
  vdc_id = 0x1234;
  mts.reply_with(reply(bytes("a1 a2 a3 a4 a5 a6 a7 a8")));
  EXPECT_EQ(run("k1", input, 8), KS_SUCCESS);

  EXPECT_EQ(mts.request().op, GetParam().op);
  EXPECT_EQ(mts.sent(), bytes("06 06 08 00 0c 00  30 00 12 34 6b 31  01 02 03 04 05 06 07 08"));
  ASSERT_EQ(mts.request().sections.size(), 2u);
  EXPECT_EQ(mts.request().sections[1].data, input.data()) << "the caller's data is not copied";
  EXPECT_EQ(Bytes(output.begin(), output.begin() + 9), bytes("a1 a2 a3 a4 a5 a6 a7 a8 ee"));
  EXPECT_THAT(traces(), IsEmpty());
}

TEST_P(Des, TakesWholeBlocksUpTo1024Bytes) {
  for (const size_t len : {8u, 16u, 1016u, 1024u}) {
    mts.reply_with(reply(Bytes(len, 0x5a)));
    EXPECT_EQ(run("k1", len), KS_SUCCESS) << len;
    EXPECT_EQ(output[len - 1], 0x5a);
  }
  EXPECT_EQ(Bytes(mts.request(3).descriptor), bytes("06 06 00 04 0c 00"));
}

TEST_P(Des, RefusesOtherLengths) {
  for (const size_t len : {0u, 1u, 12u, 1023u, 1025u, 1032u, 65528u}) EXPECT_EQ(run("k1", len), KS_INVALID_ARGS) << len;
  EXPECT_THAT(scripted::platform().log, IsEmpty());
  EXPECT_EQ(dumped(), "");
}

TEST_P(Des, RefusesAnOutputOfAnotherSizeThanTheInput) {
  for (const size_t len : {0u, 8u, 15u, 17u, 24u}) EXPECT_EQ(run("k1", Bytes(16), len), KS_INVALID_ARGS) << len;
  EXPECT_THAT(scripted::platform().log, IsEmpty());
}

TEST_P(Des, TakesNamesOf1To31Bytes) {
  mts.reply_with(reply(Bytes(8)));
  EXPECT_EQ(run(name_of(31)), KS_SUCCESS);
  EXPECT_EQ(mts.request(0).descriptor, bytes("23 06 08 00 29 00"));
  EXPECT_EQ(mts.request(0).sections.at(0).content, bytes("30 00 00 07") + bytes_of(name_of(31)));

  mts.reply_with(reply(Bytes(8)));
  EXPECT_EQ(run("k"), KS_SUCCESS);
  EXPECT_EQ(mts.request(1).descriptor, bytes("05 06 08 00 0b 00"));
}

TEST_P(Des, RefusesNamesByTheLowBitsOfTheirLength) {
  for (const size_t len : {0u, 32u, 255u, 256u, 288u, 512u}) EXPECT_EQ(run(name_of(len)), KS_INVALID_ARGS) << len;
  EXPECT_THAT(scripted::platform().log, IsEmpty());
  EXPECT_EQ(dumped(), "");
}

// DIFFERS(des-name-low8) DIFFERS(name-copied-low16)
TEST_P(Des, TakesANameOf257BytesCopiesAllOfItAndSendsOneByte) {
  heap.pad_nth(2, 226);  // 4 + 257 bytes go into a buffer of 35
  mts.reply_with(reply(Bytes(8, 0x5a)));
  EXPECT_EQ(run(name_of(257)), KS_SUCCESS);

  EXPECT_EQ(mts.sent(), bytes("05 06 08 00 0b 00  30 00 00 07 6b") + Bytes(8, 0x11));
}

TEST_P(Des, TakesANameOf287BytesAs31) {
  heap.pad_nth(2, 256);
  mts.reply_with(reply(Bytes(8)));
  EXPECT_EQ(run(name_of(287)), KS_SUCCESS);

  EXPECT_EQ(mts.request().descriptor, bytes("23 06 08 00 29 00"));
  EXPECT_EQ(mts.request().sections.at(0).length, 35u);
}

TEST_P(Des, RefusesNullPointers) {
  uint8_t data[8] = {};
  EXPECT_EQ(GetParam().run(nullptr, data, 8, data, 8), KS_INVALID_ARGS);
  EXPECT_EQ(GetParam().run("k1", nullptr, 8, data, 8), KS_INVALID_ARGS);
  EXPECT_EQ(GetParam().run("k1", data, 8, nullptr, 8), KS_INVALID_ARGS);
  EXPECT_THAT(scripted::platform().log, IsEmpty());
}

TEST_P(Des, RefusesWithoutTouchingTheBuffers) {
  Forbidden input, out;
  EXPECT_EQ(GetParam().run("", input.data(), 8, out.data(), 8), KS_INVALID_ARGS);
  EXPECT_EQ(GetParam().run("k1", input.data(), 8, out.data(), 16), KS_INVALID_ARGS);
  EXPECT_EQ(GetParam().run("k1", input.data(), 12, out.data(), 12), KS_INVALID_ARGS);
}

TEST_P(Des, ReportsAReplyOfAnotherLengthAndLeavesTheOutput) {
  mts.reply_with(reply(Bytes(16)));
  EXPECT_EQ(run("k1"), KS_FAILURE);
  mts.reply_with(reply({}));
  EXPECT_EQ(run("k1"), KS_FAILURE);
  mts.reply_with(reply_with_len(0x0108, Bytes(8)));
  EXPECT_EQ(run("k1"), KS_FAILURE);

  EXPECT_THAT(output, Each(0xee));
  EXPECT_THAT(traces(true), ElementsAre("103:Invalid buffer len :8 output data len :16 \n",
                                        "103:Invalid buffer len :8 output data len :0 \n",
                                        "103:Invalid buffer len :8 output data len :264 \n"));
}

TEST_P(Des, PassesOnARefusalWhateverElseTheReplyHolds) {
  mts.reply_with(reply(Bytes(8, 0x5a), KS_BAD_KEY));
  EXPECT_EQ(run("k1"), KS_BAD_KEY);
  mts.reply_with(result_only(KS_NOT_REGISTERED));
  EXPECT_EQ(run("k1"), KS_NOT_REGISTERED);

  EXPECT_THAT(output, Each(0xee));
  EXPECT_THAT(traces(), IsEmpty());
}

TEST_P(Des, AnswersNoMemoryAndSendsNothing) {
  heap.fail_nth(1);
  EXPECT_EQ(run("k1"), KS_NO_MEMORY);
  heap.fail_nth(2);
  EXPECT_EQ(run("k1"), KS_NO_MEMORY);

  EXPECT_THAT(flow(), ElementsAre("calloc list[2]", "calloc list[2]", "calloc 35", "free list[2]"));
  EXPECT_EQ(dumped(), "");
}

// DIFFERS(des-encrypt-dump)
TEST_P(Des, DumpsTheRequestBeforeTheSendInDesEncryptionOnly) {
  trace.close();
  std::string before_send;
  mts.answer = [&](const scripted::Request &) {
    before_send = dumped();
    return scripted::Answer{.send_errno = 5};
  };
  EXPECT_EQ(run("k", bytes("00 01 0f 10 7f 80 fe ff"), 8), KS_FAILURE);

  const bool dumps = GetParam().op == 66585;
  EXPECT_EQ(before_send, dumps ? " 5  6  8  0  b  0 "        // descriptor
                                 "30  0  0  7 6b "           // name
                                 " 0  1  f 10 7f 80 fe ff "  // plaintext
                               : "");
}

class DesReq : public scripted::Test {
 protected:
  DesReq() {
    unwrite(sections);
    unwrite(descriptor);
  }

  KsSection sections[2];
  KsDesDescriptor descriptor;
};

TEST_F(DesReq, FillsSectionsAndDescriptorAndChecksNothing) {
  EXPECT_EQ(ks_des_req("", nullptr, 0xfff1, sections, &descriptor), KS_SUCCESS);

  EXPECT_EQ(raw(descriptor), bytes("04 06 f1 ff 0a 00"));
  EXPECT_EQ(heap.content(sections[0].data, 35), bytes("30 00 00 07") + Bytes(31, 0));
  EXPECT_EQ(sections[0].length, 4u);
  EXPECT_EQ(sections[1].data, nullptr);
  EXPECT_EQ(sections[1].length, 0xfff1u);
  heap.release(sections[0].data);
}

// DIFFERS(name-copied-low16)
TEST_F(DesReq, CopiesTheNameByTheLow16BitsOfItsLength) {
  heap.pad_next(226);
  EXPECT_EQ(ks_des_req(name_of(257).c_str(), nullptr, 8, sections, &descriptor), KS_SUCCESS);
  const auto *wire_name = static_cast<const uint8_t *>(sections[0].data);
  EXPECT_EQ(Bytes(wire_name, wire_name + 261), bytes("30 00 00 07") + Bytes(257, 'k'));
  EXPECT_EQ(sections[0].length, 5u);
  heap.release(sections[0].data);

  EXPECT_EQ(ks_des_req(name_of(65538).c_str(), nullptr, 8, sections, &descriptor), KS_SUCCESS);
  EXPECT_EQ(heap.content(sections[0].data, 35), bytes("30 00 00 07 6b 6b") + Bytes(29, 0));
  EXPECT_EQ(raw(descriptor), bytes("06 06 08 00 0c 00"));
  heap.release(sections[0].data);
}

TEST_F(DesReq, WritesNothingWithoutMemory) {
  heap.fail_nth(1);
  EXPECT_EQ(ks_des_req("k1", nullptr, 8, sections, &descriptor), KS_NO_MEMORY);

  EXPECT_THAT(raw(descriptor), Each(0xa5));
  EXPECT_THAT(raw(sections), Each(0xa5));
}

TEST(DesResp, TakesNoNoticeOfThePayloadSize) {
  scripted::Guarded payload(reply(Bytes(8, 0x5a)));
  for (const uint16_t size : {uint16_t{0}, uint16_t{14}, uint16_t{65535}}) {
    uint8_t output[8] = {};
    EXPECT_EQ(ks_des_resp(size, payload.data(), output, 8), KS_SUCCESS);
    EXPECT_THAT(output, Each(0x5a));
  }
}

}  // namespace
