// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "crypto_test.h"

namespace {

using scripted::Bytes;
using scripted::bytes;
using scripted::bytes_of;
using scripted::operator+;
using scripted::reply;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

struct AesEcbOperation {
  const char *name;
  KsResult (*run)(const char *, const uint8_t *, uint8_t *, uint16_t);
  KsResult (*req)(const char *, const uint8_t *, uint16_t, KsSection *, KsAesDescriptor *);
  KsResult (*resp)(uint16_t, const void *, uint8_t *, uint16_t);
  uint32_t op;
};

void PrintTo(const AesEcbOperation &operation, std::ostream *out) {
  *out << operation.name;
}

class AesEcb : public scripted::Test, public testing::WithParamInterface<AesEcbOperation> {
 protected:
  KsResult run(const std::string &name, size_t len = 16) {
    return GetParam().run(name.c_str(), input.data(), output.data(), static_cast<uint16_t>(len));
  }

  Bytes input = Bytes(65536, 0x11);
  Bytes output = Bytes(65536, 0xee);
};

INSTANTIATE_TEST_SUITE_P(
    Operations, AesEcb,
    testing::Values(AesEcbOperation{"AesEncrypt", ks_aes_encrypt, ks_aes_encrypt_req, ks_aes_encrypt_resp, 66577},
                    AesEcbOperation{"AesDecrypt", ks_aes_decrypt, ks_aes_decrypt_req, ks_aes_decrypt_resp, 66578}),
    [](const auto &param) { return param.param.name; });

// DIFFERS(aes-wide-offset) DIFFERS(aes-argument-order)
TEST_P(AesEcb, SendsNameAndDataAndCopiesTheReply) {
  mts.reply_with(reply(Bytes(16, 0x5a)));
  EXPECT_EQ(GetParam().run("k1", input.data(), output.data(), 16), KS_SUCCESS);

  EXPECT_EQ(mts.request().op, GetParam().op);
  EXPECT_EQ(mts.sent(), bytes("06 08 10 00 0e 00 00 00  30 00 00 07 6b 31") + Bytes(16, 0x11));
  EXPECT_EQ(mts.request().sections.at(1).data, input.data());
  EXPECT_EQ(output[15], 0x5a);
  EXPECT_EQ(output[16], 0xee);
  EXPECT_THAT(traces(), IsEmpty());
}

// DIFFERS(aes-ecb-empty)
TEST_P(AesEcb, SendsAnEmptyTextToo) {
  mts.reply_with(reply({}));
  EXPECT_EQ(run("k1", 0), KS_SUCCESS);

  EXPECT_EQ(mts.sent(), bytes("06 08 00 00 0e 00 00 00  30 00 00 07 6b 31"));
  EXPECT_EQ(mts.request().sections.size(), 2u);
  EXPECT_THAT(output, Each(0xee));
}

// DIFFERS(aes-no-limit)
TEST_P(AesEcb, TakesWholeBlocksUpTo65520Bytes) {
  mts.reply_with(reply(Bytes(65520, 0x5a)));
  EXPECT_EQ(run("k1", 65520), KS_SUCCESS);

  EXPECT_EQ(mts.request().descriptor, bytes("06 08 f0 ff 0e 00 00 00"));
  EXPECT_EQ(mts.request().sections.at(1).length, 65520u);
  EXPECT_EQ(output[65519], 0x5a);
  EXPECT_EQ(output[65520], 0xee);
}

TEST_P(AesEcb, RefusesOtherLengths) {
  for (const size_t len : {1u, 8u, 15u, 17u, 24u, 65535u}) EXPECT_EQ(run("k1", len), KS_INVALID_ARGS) << len;
  EXPECT_THAT(scripted::platform().log, IsEmpty());
}

TEST_P(AesEcb, TakesNamesOf1To31BytesByTheirWholeLength) {
  mts.reply_with(reply(Bytes(16)));
  EXPECT_EQ(run(name_of(31)), KS_SUCCESS);
  EXPECT_EQ(mts.request().descriptor, bytes("23 08 10 00 2b 00 00 00"));
  EXPECT_EQ(mts.request().sections.at(0).content, bytes("30 00 00 07") + bytes_of(name_of(31)));

  for (const size_t len : {0u, 32u, 256u, 257u, 287u}) EXPECT_EQ(run(name_of(len)), KS_INVALID_ARGS) << len;
  EXPECT_EQ(mts.requests.size(), 1u);
}

TEST_P(AesEcb, RefusesNullPointers) {
  EXPECT_EQ(GetParam().run(nullptr, input.data(), output.data(), 16), KS_INVALID_ARGS);
  EXPECT_EQ(GetParam().run("k1", nullptr, output.data(), 16), KS_INVALID_ARGS);
  EXPECT_EQ(GetParam().run("k1", input.data(), nullptr, 16), KS_INVALID_ARGS);
  EXPECT_EQ(GetParam().run("k1", nullptr, output.data(), 0), KS_INVALID_ARGS);
  EXPECT_EQ(GetParam().run("k1", input.data(), nullptr, 0), KS_INVALID_ARGS);
  EXPECT_THAT(scripted::platform().log, IsEmpty());
}

TEST_P(AesEcb, RefusesWithoutTouchingTheBuffers) {
  Forbidden in, out;
  EXPECT_EQ(GetParam().run("", in.data(), out.data(), 16), KS_INVALID_ARGS);
  EXPECT_EQ(GetParam().run("k1", in.data(), out.data(), 8), KS_INVALID_ARGS);
}

TEST_P(AesEcb, ReportsAReplyOfAnotherLengthAndLeavesTheOutput) {
  mts.reply_with(reply(Bytes(32, 0x5a)));
  EXPECT_EQ(run("k1"), KS_FAILURE);

  EXPECT_THAT(output, Each(0xee));
  EXPECT_THAT(traces(true), ElementsAre("103:Invalid buffer len :16 output data len :32 \n"));
}

TEST_P(AesEcb, PassesOnARefusalWhateverElseTheReplyHolds) {
  mts.reply_with(reply(Bytes(16, 0x5a), KS_KEY_LEN_UNSUPPORTED));
  EXPECT_EQ(run("k1"), KS_KEY_LEN_UNSUPPORTED);

  EXPECT_THAT(output, Each(0xee));
  EXPECT_THAT(traces(), IsEmpty());
}

TEST_P(AesEcb, AnswersNoMemoryAndSendsNothing) {
  heap.fail_nth(1);
  EXPECT_EQ(run("k1"), KS_NO_MEMORY);
  heap.fail_nth(2);
  EXPECT_EQ(run("k1"), KS_NO_MEMORY);

  EXPECT_THAT(flow(), ElementsAre("calloc list[2]", "calloc list[2]", "calloc 35", "free list[2]"));
}

TEST_P(AesEcb, BuildsRequestsForOthersByTheLowBitsOfTheNamesLength) {
  KsSection sections[2];
  KsAesDescriptor descriptor;
  unwrite(descriptor);
  EXPECT_EQ(GetParam().req(name_of(258).c_str(), input.data(), 7, sections, &descriptor), KS_SUCCESS);

  EXPECT_EQ(raw(descriptor), bytes("06 08 07 00 0e 00 00 00"));
  EXPECT_EQ(heap.content(sections[0].data, 35), bytes("30 00 00 07 6b 6b") + Bytes(29, 0));
  EXPECT_EQ(sections[0].length, 6u);
  EXPECT_EQ(sections[1].data, input.data());
  EXPECT_EQ(sections[1].length, 7u);
  heap.release(sections[0].data);
}

TEST_P(AesEcb, BuildsRequestsOfLongNamesPastTheEndOfTheBuffer) {
  KsSection sections[2];
  KsAesDescriptor descriptor;
  heap.pad_next(224);  // 4 + 255 bytes go into a buffer of 35
  EXPECT_EQ(GetParam().req(name_of(255).c_str(), input.data(), 7, sections, &descriptor), KS_SUCCESS);

  const auto *wire_name = static_cast<const uint8_t *>(sections[0].data);
  EXPECT_EQ(Bytes(wire_name, wire_name + 259), bytes("30 00 00 07") + Bytes(255, 'k'));
  EXPECT_EQ(sections[0].length, 3u);
  heap.release(sections[0].data);
}

TEST_P(AesEcb, BuildsNothingWithoutMemory) {
  KsSection sections[2];
  unwrite(sections);
  KsAesDescriptor descriptor;
  unwrite(descriptor);
  heap.fail_nth(1);
  EXPECT_EQ(GetParam().req("k1", input.data(), 16, sections, &descriptor), KS_NO_MEMORY);

  EXPECT_THAT(raw(descriptor), Each(0xa5));
  EXPECT_THAT(raw(sections), Each(0xa5));
}

TEST_P(AesEcb, ReadsRepliesForOthersWhateverThePayloadSize) {
  scripted::Guarded payload(reply(Bytes(3, 0x5a)));
  for (const uint16_t size : {uint16_t{0}, uint16_t{65535}}) {
    uint8_t three[3] = {};
    EXPECT_EQ(GetParam().resp(size, payload.data(), three, 3), KS_SUCCESS);
    EXPECT_THAT(three, Each(0x5a));
  }
  EXPECT_EQ(GetParam().resp(9, payload.data(), output.data(), 4), KS_FAILURE);
  EXPECT_THAT(output, Each(0xee));
}

}  // namespace
