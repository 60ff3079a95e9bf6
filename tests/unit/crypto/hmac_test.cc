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

// for_pac gives ks_hmac_sha1_for_pac the shape of its siblings, for what the three have in common.
KsResult for_pac(const char *name, const uint8_t *data, uint16_t len, uint8_t *output) {
  const size_t aid_len = name == nullptr ? 1 : std::min<size_t>(strlen(name), 255);
  return ks_hmac_sha1_for_pac(reinterpret_cast<const uint8_t *>(name), static_cast<uint8_t>(aid_len), data, len,
                              output);
}

struct HmacOperation {
  const char *name;
  KsResult (*run)(const char *, const uint8_t *, uint16_t, uint8_t *);
  uint32_t op;
  size_t hmac_len;
  Bytes wire_name;  // of "k1"
};

void PrintTo(const HmacOperation &operation, std::ostream *out) {
  *out << operation.name;
}

class Hmac : public scripted::Test, public testing::WithParamInterface<HmacOperation> {
 protected:
  KsResult run(const char *name = "k1", size_t len = 3) {
    return GetParam().run(name, data.data(), static_cast<uint16_t>(len), output.data());
  }
  Bytes hmac() const { return Bytes(GetParam().hmac_len, 0x5a); }

  Bytes data = Bytes(65535, 0xd1);
  Bytes output = Bytes(32, 0xee);
};

// DIFFERS(hmac-pac-tag)
INSTANTIATE_TEST_SUITE_P(Operations, Hmac,
                         testing::Values(HmacOperation{"HmacMd5", ks_hmac_md5, 66581, 16, bytes("30 00 00 07 6b 31")},
                                         HmacOperation{"HmacSha1", ks_hmac_sha1, 66582, 20, bytes("30 00 00 07 6b 31")},
                                         HmacOperation{"HmacSha1ForPac", for_pac, 66582, 20,
                                                       bytes("31 00 00 07 6b 31")}),
                         [](const auto &param) { return param.param.name; });

TEST_P(Hmac, SendsNameAndDataAndCopiesTheHmac) {
  mts.reply_with(reply(hmac()));
  EXPECT_EQ(run(), KS_SUCCESS);

  EXPECT_EQ(mts.request().op, GetParam().op);
  EXPECT_EQ(mts.sent(), bytes("06 06 03 00 0c 00") + GetParam().wire_name + bytes("d1 d1 d1"));
  EXPECT_EQ(mts.request().sections.at(1).data, data.data());
  EXPECT_EQ(Bytes(output.begin(), output.begin() + static_cast<long>(hmac().size())), hmac());
  EXPECT_EQ(output[hmac().size()], 0xee);
  EXPECT_THAT(traces(), IsEmpty());
  EXPECT_THAT(flow(), ElementsAre("calloc list[2]", "calloc 35", "send", "recv", "free 35", "free list[2]", "drop sent",
                                  "drop received"));
}

TEST_P(Hmac, TakesOneTo1024Bytes) {
  for (const size_t len : {1u, 1023u, 1024u}) {
    mts.reply_with(reply(hmac()));
    EXPECT_EQ(run("k1", len), KS_SUCCESS) << len;
  }
  EXPECT_EQ(mts.request(2).descriptor, bytes("06 06 00 04 0c 00"));

  for (const size_t len : {0u, 1025u, 65535u}) EXPECT_EQ(run("k1", len), KS_INVALID_ARGS) << len;
  EXPECT_EQ(mts.requests.size(), 3u);
}

TEST_P(Hmac, TakesNamesOf1To31BytesByTheirWholeLength) {
  mts.reply_with(reply(hmac()));
  EXPECT_EQ(run(name_of(31).c_str()), KS_SUCCESS);
  EXPECT_EQ(mts.request().descriptor, bytes("23 06 03 00 29 00"));
  EXPECT_EQ(mts.request().sections.at(0).length, 35u);

  for (const size_t len : {0u, 32u, 256u, 257u, 287u}) {
    EXPECT_EQ(run(name_of(len).c_str()), KS_INVALID_ARGS) << len;
  }
  EXPECT_EQ(mts.requests.size(), 1u);
}

TEST_P(Hmac, RefusesNullPointers) {
  EXPECT_EQ(run(nullptr), KS_INVALID_ARGS);
  EXPECT_EQ(GetParam().run("k1", nullptr, 3, output.data()), KS_INVALID_ARGS);
  EXPECT_EQ(GetParam().run("k1", data.data(), 3, nullptr), KS_INVALID_ARGS);
  EXPECT_THAT(scripted::platform().log, IsEmpty());
}

TEST_P(Hmac, RefusesWithoutTouchingTheBuffers) {
  Forbidden in, out;
  EXPECT_EQ(GetParam().run("", in.data(), 3, out.data()), KS_INVALID_ARGS);
  EXPECT_EQ(GetParam().run("k1", in.data(), 0, out.data()), KS_INVALID_ARGS);
  EXPECT_EQ(GetParam().run("k1", in.data(), 1025, out.data()), KS_INVALID_ARGS);
  EXPECT_EQ(GetParam().run("k1", in.data(), 3, nullptr), KS_INVALID_ARGS);
}

// DIFFERS(hmac-md5-keeps-name)
TEST_P(Hmac, KeepsTheNameBufferWhenTheSendFailsForMd5Only) {
  mts.fail_send();
  EXPECT_EQ(run(), KS_FAILURE);

  if (GetParam().op == 66581) {
    EXPECT_THAT(flow(), ElementsAre("calloc list[2]", "calloc 35", "send", "free list[2]"));
    expect_leaked({35});
  } else {
    EXPECT_THAT(flow(), ElementsAre("calloc list[2]", "calloc 35", "send", "free 35", "free list[2]"));
  }
}

TEST_P(Hmac, FreesTheNameBufferWhenTheReceiveFails) {
  mts.fail_recv();
  EXPECT_EQ(run(), KS_FAILURE);

  EXPECT_THAT(flow(),
              ElementsAre("calloc list[2]", "calloc 35", "send", "recv", "drop sent", "free 35", "free list[2]"));
}

TEST_P(Hmac, ReportsAnHmacOfAnotherLengthAndLeavesTheOutput) {
  const bool md5 = GetParam().hmac_len == 16;
  mts.reply_with(reply(Bytes(md5 ? 20 : 16, 0x5a)));
  EXPECT_EQ(run(), KS_FAILURE);

  EXPECT_THAT(output, Each(0xee));
  EXPECT_THAT(traces(true), ElementsAre(md5 ? "103:Invalid buffer len :16 output data len :20 \n"
                                            : "103:Invalid buffer len :20 output data len :16 \n"));
}

TEST_P(Hmac, PassesOnARefusalWhateverElseTheReplyHolds) {
  mts.reply_with(reply(hmac(), KS_NOT_FOUND));
  EXPECT_EQ(run(), KS_NOT_FOUND);

  EXPECT_THAT(output, Each(0xee));
  EXPECT_THAT(traces(), IsEmpty());
}

TEST_P(Hmac, AnswersNoMemoryAndSendsNothing) {
  heap.fail_nth(1);
  EXPECT_EQ(run(), KS_NO_MEMORY);
  heap.fail_nth(2);
  EXPECT_EQ(run(), KS_NO_MEMORY);

  EXPECT_THAT(flow(), ElementsAre("calloc list[2]", "calloc list[2]", "calloc 35", "free list[2]"));
}

class HmacSha1ForPac : public scripted::Test {};

// DIFFERS(hmac-pac-tag)
TEST_F(HmacSha1ForPac, SendsANameOfAnyBytesWholeAndReadsNoneBehindIt) {
  scripted::Guarded aid(bytes("00 ff 00 41"));
  const uint8_t data[2] = {0xd1, 0xd2};
  uint8_t output[20];
  mts.reply_with(reply(Bytes(20, 0x5a)));
  EXPECT_EQ(ks_hmac_sha1_for_pac(aid.data(), 4, data, 2, output), KS_SUCCESS);

  EXPECT_EQ(mts.sent(), bytes("08 06 02 00 0e 00  31 00 00 07 00 ff 00 41  d1 d2"));
}

TEST_F(HmacSha1ForPac, ChecksTheNameWithoutReadingIt) {
  Forbidden aid;
  const uint8_t data[2] = {};
  uint8_t output[20];
  for (const uint8_t len : {uint8_t{0}, uint8_t{32}, uint8_t{255}}) {
    EXPECT_EQ(ks_hmac_sha1_for_pac(aid.data(), len, data, 2, output), KS_INVALID_ARGS);
  }
  EXPECT_EQ(ks_hmac_sha1_for_pac(aid.data(), 4, data, 2, nullptr), KS_INVALID_ARGS);
  EXPECT_THAT(scripted::platform().log, IsEmpty());
}

class HmacReq : public scripted::Test {
 protected:
  HmacReq() {
    unwrite(sections);
    unwrite(descriptor);
  }

  KsSection sections[2];
  KsHmacDescriptor descriptor;
};

TEST_F(HmacReq, TakesTheLowBitsOfTheTagAndChecksNothing) {
  EXPECT_EQ(ks_hmac_md5_sha1_req("k1", 1, nullptr, 65535, 0xabcdef31, sections, &descriptor), KS_SUCCESS);

  EXPECT_EQ(raw(descriptor), bytes("05 06 ff ff 0b 00"));
  EXPECT_EQ(heap.content(sections[0].data, 35), bytes("31 00 00 07 6b") + Bytes(30, 0));
  EXPECT_EQ(sections[0].length, 5u);
  EXPECT_EQ(sections[1].data, nullptr);
  EXPECT_EQ(sections[1].length, 65535u);
  heap.release(sections[0].data);
}

TEST_F(HmacReq, WritesNothingWithoutMemory) {
  heap.fail_nth(1);
  EXPECT_EQ(ks_hmac_md5_sha1_req("k1", 2, nullptr, 1, 0x30, sections, &descriptor), KS_NO_MEMORY);

  EXPECT_THAT(raw(descriptor), Each(0xa5));
  EXPECT_THAT(raw(sections), Each(0xa5));
}

TEST(HmacResp, TakesNoNoticeOfThePayloadSize) {
  scripted::Guarded payload(reply(Bytes(3, 0x5a)));
  for (const uint16_t size : {uint16_t{0}, uint16_t{65535}}) {
    uint8_t output[3] = {};
    EXPECT_EQ(ks_hmac_md5_sha1_resp(size, payload.data(), output, 3), KS_SUCCESS);
    EXPECT_THAT(output, Each(0x5a));
  }
}

}  // namespace
