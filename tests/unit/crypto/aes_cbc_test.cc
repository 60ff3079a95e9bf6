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
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

struct AesCbcOperation {
  const char *name;
  KsResult (*run)(const char *, uint8_t *, const uint8_t *, uint16_t, uint8_t *);
  KsResult (*req)(const char *, const uint8_t *, const uint8_t *, uint16_t, KsSection *, KsAesCbcDescriptor *);
  KsResult (*resp)(uint16_t, const void *, uint8_t *, uint8_t *, uint16_t);
  uint32_t op;
};

constexpr uint32_t kEncrypt = 66579;

void PrintTo(const AesCbcOperation &operation, std::ostream *out) {
  *out << operation.name;
}

class AesCbc : public scripted::Test, public testing::WithParamInterface<AesCbcOperation> {
 protected:
  KsResult run(const std::string &name, size_t len = 16) {
    return GetParam().run(name.c_str(), iv.data(), input.data(), static_cast<uint16_t>(len), output.data());
  }

  Bytes iv = Bytes(16, 0x1f);
  Bytes input = Bytes(65536, 0x11);
  Bytes output = Bytes(65536, 0xee);
};

INSTANTIATE_TEST_SUITE_P(Operations, AesCbc,
                         testing::Values(AesCbcOperation{"AesCbcEncrypt", ks_aes_cbc_encrypt, ks_aes_cbc_encrypt_req,
                                                         ks_aes_cbc_encrypt_resp, 66579},
                                         AesCbcOperation{"AesCbcDecrypt", ks_aes_cbc_decrypt, ks_aes_cbc_decrypt_req,
                                                         ks_aes_cbc_decrypt_resp, 66580}),
                         [](const auto &param) { return param.param.name; });

// DIFFERS(aes-argument-order)
TEST_P(AesCbc, SendsNameIvAndDataAndTakesBackIvAndData) {
  mts.reply_with(reply(Bytes(16, 0x2f) + Bytes(16, 0x5a)));
  EXPECT_EQ(GetParam().run("k1", iv.data(), input.data(), 16, output.data()), KS_SUCCESS);

  const auto &request = mts.request();
  EXPECT_EQ(request.op, GetParam().op);
  ASSERT_EQ(request.descriptor.size(), 12u);
  EXPECT_EQ(Bytes(request.descriptor.begin(), request.descriptor.begin() + 3), bytes("06 0c 10"));
  EXPECT_EQ(Bytes(request.descriptor.begin() + 4, request.descriptor.end()), bytes("12 00 10 00 22 00 00 00"));
  ASSERT_EQ(request.sections.size(), 3u);
  EXPECT_EQ(request.sections[0].content, bytes("30 00 00 07 6b 31"));
  EXPECT_EQ(request.sections[1].content, Bytes(16, 0x1f));
  EXPECT_EQ(request.sections[1].data, iv.data());
  EXPECT_EQ(request.sections[2].content, Bytes(16, 0x11));
  EXPECT_EQ(request.sections[2].data, input.data());
  EXPECT_THAT(iv, Each(0x2f));
  EXPECT_EQ(output[15], 0x5a);
  EXPECT_EQ(output[16], 0xee);
  EXPECT_THAT(traces(), IsEmpty());
}

TEST_P(AesCbc, ChainsThroughTheIvFromCallToCall) {
  mts.reply_with(reply(Bytes(16, 0x2f) + Bytes(16)));
  mts.reply_with(reply(Bytes(16, 0x3f) + Bytes(16)));
  EXPECT_EQ(run("k1"), KS_SUCCESS);
  EXPECT_EQ(run("k1"), KS_SUCCESS);

  EXPECT_EQ(mts.request(1).sections.at(1).content, Bytes(16, 0x2f));
  EXPECT_THAT(iv, Each(0x3f));
}

TEST_P(AesCbc, RefusesEmptyTextsAndBrokenBlocks) {
  for (const size_t len : {0u, 1u, 8u, 24u, 65535u}) EXPECT_EQ(run("k1", len), KS_INVALID_ARGS) << len;
  EXPECT_THAT(scripted::platform().log, IsEmpty());
}

// DIFFERS(aes-no-limit)
TEST_P(AesCbc, TakesWholeBlocksAsFarAsAReplyCanCountThem) {
  mts.reply_with(reply(Bytes(16, 0x2f) + Bytes(65504, 0x5a)));
  EXPECT_EQ(run("k1", 65504), KS_SUCCESS);
  EXPECT_EQ(output[65503], 0x5a);

  // A block more is sent, but 16 + 65,520 doesn't fit the reply's 16 bits.
  mts.reply_with(reply_with_len(0, Bytes(16, 0x2f) + Bytes(65520, 0x5a)));
  iv = Bytes(16, 0x1f);
  EXPECT_EQ(run("k1", 65520), KS_FAILURE);
  EXPECT_EQ(mts.request(1).sections.at(2).length, 65520u);
  EXPECT_THAT(iv, Each(0x1f));
}

TEST_P(AesCbc, TakesNamesOf1To31Bytes) {
  mts.reply_with(reply(Bytes(32)));
  EXPECT_EQ(run(name_of(31)), KS_SUCCESS);
  const Bytes &descriptor = mts.request().descriptor;
  EXPECT_EQ(Bytes(descriptor.begin() + 4, descriptor.end()), bytes("2f 00 10 00 3f 00 00 00"));
  EXPECT_EQ(mts.request().sections.at(0).content, bytes("30 00 00 07") + bytes_of(name_of(31)));

  for (const size_t len : {0u, 32u, 255u, 256u, 288u}) EXPECT_EQ(run(name_of(len)), KS_INVALID_ARGS) << len;
  EXPECT_EQ(mts.requests.size(), 1u);
}

// DIFFERS(aes-cbc-encrypt-name)
TEST_P(AesCbc, TakesLongNamesByTheLowBitsOfTheirLengthInEncryptionOnly) {
  const bool takes = GetParam().op == kEncrypt;
  if (takes) {
    mts.reply_with(reply(Bytes(32)));
    mts.reply_with(reply(Bytes(32)));
  }
  EXPECT_EQ(run("x" + name_of(256)), takes ? KS_SUCCESS : KS_INVALID_ARGS);
  EXPECT_EQ(run("x" + name_of(286)), takes ? KS_SUCCESS : KS_INVALID_ARGS);

  ASSERT_EQ(mts.requests.size(), takes ? 2u : 0u);
  if (takes) {
    EXPECT_EQ(mts.request(0).descriptor[0], 5);
    EXPECT_EQ(mts.request(0).sections.at(0).content, bytes("30 00 00 07 78"));
    EXPECT_EQ(mts.request(1).sections.at(0).content, bytes("30 00 00 07 78") + bytes_of(name_of(30)));
  }
}

TEST_P(AesCbc, RefusesNullPointers) {
  EXPECT_EQ(GetParam().run(nullptr, iv.data(), input.data(), 16, output.data()), KS_INVALID_ARGS);
  EXPECT_EQ(GetParam().run("k1", nullptr, input.data(), 16, output.data()), KS_INVALID_ARGS);
  EXPECT_EQ(GetParam().run("k1", iv.data(), nullptr, 16, output.data()), KS_INVALID_ARGS);
  EXPECT_EQ(GetParam().run("k1", iv.data(), input.data(), 16, nullptr), KS_INVALID_ARGS);
  EXPECT_THAT(scripted::platform().log, IsEmpty());
}

TEST_P(AesCbc, RefusesWithoutTouchingTheBuffers) {
  Forbidden vector, in, out;
  EXPECT_EQ(GetParam().run("", vector.data(), in.data(), 16, out.data()), KS_INVALID_ARGS);
  EXPECT_EQ(GetParam().run("k1", vector.data(), in.data(), 0, out.data()), KS_INVALID_ARGS);
  EXPECT_EQ(GetParam().run("k1", vector.data(), in.data(), 8, out.data()), KS_INVALID_ARGS);
  EXPECT_EQ(GetParam().run("k1", vector.data(), in.data(), 16, nullptr), KS_INVALID_ARGS);
}

// DIFFERS(aes-cbc-reported-length)
TEST_P(AesCbc, ReportsTheTotalLengthOfAReplyThatDoesNotMatch) {
  for (const size_t total : {0u, 8u, 16u, 31u, 33u, 48u}) {
    mts.reply_with(reply(Bytes(total, 0x5a)));
    EXPECT_EQ(run("k1"), KS_FAILURE) << total;
  }

  EXPECT_THAT(output, Each(0xee));
  EXPECT_THAT(iv, Each(0x1f));
  EXPECT_THAT(traces(true), ElementsAre("103:Invalid buffer len :16 output data len :0 \n",
                                        "103:Invalid buffer len :16 output data len :8 \n",
                                        "103:Invalid buffer len :16 output data len :16 \n",
                                        "103:Invalid buffer len :16 output data len :31 \n",
                                        "103:Invalid buffer len :16 output data len :33 \n",
                                        "103:Invalid buffer len :16 output data len :48 \n"));
}

TEST_P(AesCbc, PassesOnARefusalAndLeavesTheIvForAnotherTry) {
  mts.reply_with(reply(Bytes(32, 0x5a), KS_CRYPT_ERROR));
  EXPECT_EQ(run("k1"), KS_CRYPT_ERROR);
  mts.fail_recv();
  EXPECT_EQ(run("k1"), KS_FAILURE);

  EXPECT_THAT(output, Each(0xee));
  EXPECT_THAT(iv, Each(0x1f));
}

// DIFFERS(aes-cbc-copy-order)
TEST_P(AesCbc, WritesTheIvFirstInEncryptionAndLastInDecryption) {
  mts.reply_with(reply(Bytes(16, 0x2f) + Bytes(16, 0x5a)));
  EXPECT_EQ(GetParam().run("k1", iv.data(), input.data(), 16, iv.data()), KS_SUCCESS);

  EXPECT_THAT(iv, Each(GetParam().op == kEncrypt ? 0x5a : 0x2f));
}

TEST_P(AesCbc, AnswersNoMemoryAndSendsNothing) {
  heap.fail_nth(1);
  EXPECT_EQ(run("k1"), KS_NO_MEMORY);
  heap.fail_nth(2);
  EXPECT_EQ(run("k1"), KS_NO_MEMORY);

  EXPECT_THAT(flow(), ElementsAre("calloc list[3]", "calloc list[3]", "calloc 35", "free list[3]"));
  EXPECT_THAT(iv, Each(0x1f));
}

TEST_P(AesCbc, BuildsRequestsOfLongNamesPastTheEndOfTheBuffer) {
  KsSection sections[3];
  KsAesCbcDescriptor descriptor;
  heap.pad_next(1);  // 4 + 32 bytes go into a buffer of 35
  EXPECT_EQ(GetParam().req(name_of(32).c_str(), iv.data(), input.data(), 7, sections, &descriptor), KS_SUCCESS);

  const auto *wire_name = static_cast<const uint8_t *>(sections[0].data);
  EXPECT_EQ(Bytes(wire_name, wire_name + 36), bytes("30 00 00 07") + Bytes(32, 'k'));
  EXPECT_EQ(sections[0].length, 36u);
  heap.release(sections[0].data);
}

TEST_P(AesCbc, BuildsRequestsForOthersAndLeavesTheReservedByte) {
  KsSection sections[3];
  KsAesCbcDescriptor descriptor;
  unwrite(descriptor);
  EXPECT_EQ(GetParam().req(name_of(258).c_str(), iv.data(), input.data(), 7, sections, &descriptor), KS_SUCCESS);

  EXPECT_EQ(raw(descriptor), bytes("06 0c 10 a5  12 00  07 00  22 00 00 00"));
  EXPECT_EQ(heap.content(sections[0].data, 35), bytes("30 00 00 07 6b 6b") + Bytes(29, 0));
  EXPECT_EQ(sections[0].length, 6u);
  EXPECT_EQ(sections[1].data, iv.data());
  EXPECT_EQ(sections[1].length, 16u);
  EXPECT_EQ(sections[2].data, input.data());
  EXPECT_EQ(sections[2].length, 7u);
  heap.release(sections[0].data);
}

TEST_P(AesCbc, BuildsNothingWithoutMemory) {
  KsSection sections[3];
  unwrite(sections);
  KsAesCbcDescriptor descriptor;
  unwrite(descriptor);
  heap.fail_nth(1);
  EXPECT_EQ(GetParam().req("k1", iv.data(), input.data(), 16, sections, &descriptor), KS_NO_MEMORY);

  EXPECT_THAT(raw(descriptor), Each(0xa5));
  EXPECT_THAT(raw(sections), Each(0xa5));
}

TEST_P(AesCbc, ReadsRepliesForOthersWhateverThePayloadSize) {
  scripted::Guarded payload(reply(Bytes(16, 0x2f) + Bytes(3, 0x5a)));
  for (const uint16_t size : {uint16_t{0}, uint16_t{65535}}) {
    uint8_t three[3] = {}, chained[16] = {};
    EXPECT_EQ(GetParam().resp(size, payload.data(), three, chained, 3), KS_SUCCESS);
    EXPECT_THAT(three, Each(0x5a));
    EXPECT_THAT(chained, Each(0x2f));
  }
}

}  // namespace
