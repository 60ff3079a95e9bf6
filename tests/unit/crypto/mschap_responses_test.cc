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

// The fixed parts of a descriptor, with what nobody writes shown as 0xa5.
Bytes without_length_padding(Bytes descriptor) {
  for (const size_t length_byte : {4u, 12u, 20u, 28u}) {
    for (size_t i = length_byte + 1; i < length_byte + 4 && i < descriptor.size(); ++i) descriptor[i] = 0xa5;
  }
  return descriptor;
}

const uint8_t *at(const Bytes &content) {
  return content.data();
}

class MsChap : public scripted::Test {
 protected:
  const Bytes authenticator = Bytes(16, 0xaa);
  const Bytes peer = Bytes(16, 0xbb);
  const Bytes nt_response = Bytes(24, 0xcc);
  Bytes output = Bytes(64, 0xee);
};

class GenerateNTResponse : public MsChap {
 protected:
  KsResult run(const std::string &name = "k1", const std::string &user_name = "User") {
    return ks_GenerateNTResponse(name.c_str(), at(authenticator), at(peer), user_name.c_str(), output.data());
  }
};

class GenerateAuthenticatorResponse : public MsChap {
 protected:
  KsResult run(const std::string &name = "k1", const std::string &user_name = "User") {
    return ks_GenerateAuthenticatorResponse(name.c_str(), at(nt_response), at(peer), at(authenticator),
                                            user_name.c_str(), output.data());
  }
};

TEST_F(GenerateNTResponse, SendsFourSectionsAndCopies24Bytes) {
  mts.reply_with(reply(Bytes(24, 0x5a)));
  EXPECT_EQ(run(), KS_SUCCESS);

  const auto &request = mts.request();
  EXPECT_EQ(request.op, 66572u);
  EXPECT_EQ(without_length_padding(request.descriptor), bytes("18 00  06 1c"
                                                              "10 a5 a5 a5  22 00 00 00"
                                                              "10 a5 a5 a5  32 00 00 00"
                                                              "04 a5 a5 a5  42 00 00 00"));
  ASSERT_EQ(request.sections.size(), 4u);
  EXPECT_EQ(request.sections[0].content, bytes("30 00 00 07 6b 31"));
  EXPECT_EQ(request.sections[1].content, authenticator);
  EXPECT_EQ(request.sections[1].data, at(authenticator));
  EXPECT_EQ(request.sections[2].content, peer);
  EXPECT_EQ(request.sections[2].data, at(peer));
  EXPECT_EQ(request.sections[3].content, bytes_of("User"));
  EXPECT_EQ(output[23], 0x5a);
  EXPECT_EQ(output[24], 0xee);
  EXPECT_THAT(traces(), IsEmpty());
}

TEST_F(GenerateNTResponse, TakesNamesOf1To31BytesByTheirWholeLength) {
  mts.reply_with(reply(Bytes(24)));
  EXPECT_EQ(run(name_of(31)), KS_SUCCESS);
  EXPECT_EQ(without_length_padding(mts.request().descriptor), bytes("18 00  23 1c"
                                                                    "10 a5 a5 a5  3f 00 00 00"
                                                                    "10 a5 a5 a5  4f 00 00 00"
                                                                    "04 a5 a5 a5  5f 00 00 00"));

  for (const size_t len : {0u, 32u, 256u, 257u, 287u}) EXPECT_EQ(run(name_of(len)), KS_INVALID_ARGS) << len;
  EXPECT_EQ(mts.requests.size(), 1u);
}

TEST_F(GenerateNTResponse, SendsAnEmptyUserName) {
  mts.reply_with(reply(Bytes(24)));
  EXPECT_EQ(run("k1", ""), KS_SUCCESS);

  EXPECT_EQ(mts.request().descriptor[20], 0);
  EXPECT_EQ(mts.request().descriptor[24], 66);
  EXPECT_EQ(mts.request().sections.size(), 4u);
  EXPECT_EQ(mts.request().sections.at(3).length, 0u);
}

// DIFFERS(mschap-user-name-low8)
TEST_F(GenerateNTResponse, CutsTheUserNameByTheLowBitsOfItsLength) {
  const std::pair<size_t, uint8_t> cuts[] = {{255, 255}, {256, 0}, {257, 1}, {300, 44}};
  for (const auto &[len, sent_len] : cuts) {
    mts.reply_with(reply(Bytes(24)));
    EXPECT_EQ(run("k1", std::string(len, 'u')), KS_SUCCESS);
    const auto &request = mts.requests.back();
    EXPECT_EQ(request.descriptor[20], sent_len) << len;
    EXPECT_EQ(request.sections.at(3).content, Bytes(sent_len, 'u')) << len;
  }
}

TEST_F(GenerateNTResponse, RefusesNullPointers) {
  uint8_t *out = output.data();
  EXPECT_EQ(ks_GenerateNTResponse(nullptr, at(authenticator), at(peer), "User", out), KS_INVALID_ARGS);
  EXPECT_EQ(ks_GenerateNTResponse("k1", nullptr, at(peer), "User", out), KS_INVALID_ARGS);
  EXPECT_EQ(ks_GenerateNTResponse("k1", at(authenticator), nullptr, "User", out), KS_INVALID_ARGS);
  EXPECT_EQ(ks_GenerateNTResponse("k1", at(authenticator), at(peer), nullptr, out), KS_INVALID_ARGS);
  EXPECT_EQ(ks_GenerateNTResponse("k1", at(authenticator), at(peer), "User", nullptr), KS_INVALID_ARGS);
  EXPECT_THAT(scripted::platform().log, IsEmpty());
}

TEST_F(GenerateNTResponse, RefusesWithoutTouchingWhatStandsBehindTheFault) {
  Forbidden user_name, challenge, out;
  EXPECT_EQ(ks_GenerateNTResponse("", challenge.data(), challenge.data(), user_name.text(), out.data()),
            KS_INVALID_ARGS);
  EXPECT_EQ(ks_GenerateNTResponse("k1", nullptr, challenge.data(), user_name.text(), out.data()), KS_INVALID_ARGS);
  EXPECT_EQ(ks_GenerateNTResponse("k1", challenge.data(), nullptr, user_name.text(), out.data()), KS_INVALID_ARGS);
  EXPECT_EQ(ks_GenerateNTResponse("k1", challenge.data(), challenge.data(), user_name.text(), nullptr),
            KS_INVALID_ARGS);
}

TEST_F(GenerateNTResponse, ReportsAResponseOfAnotherLengthAndLeavesTheOutput) {
  mts.reply_with(reply(Bytes(42, 0x5a)));
  EXPECT_EQ(run(), KS_FAILURE);

  EXPECT_THAT(output, Each(0xee));
  EXPECT_THAT(traces(true), ElementsAre("103:Invalid buffer len :24 output data len :42 \n"));
}

TEST_F(GenerateNTResponse, PassesOnARefusalWhateverElseTheReplyHolds) {
  mts.reply_with(reply(Bytes(24, 0x5a), KS_NOT_FOUND));
  EXPECT_EQ(run(), KS_NOT_FOUND);

  EXPECT_THAT(output, Each(0xee));
  EXPECT_THAT(traces(), IsEmpty());
}

TEST_F(GenerateNTResponse, AnswersNoMemoryAndSendsNothing) {
  heap.fail_nth(1);
  EXPECT_EQ(run(), KS_NO_MEMORY);
  heap.fail_nth(2);
  EXPECT_EQ(run(), KS_NO_MEMORY);

  EXPECT_THAT(flow(), ElementsAre("calloc list[4]", "calloc list[4]", "calloc 35", "free list[4]"));
}

// DIFFERS(name-copied-low16)
TEST_F(GenerateNTResponse, BuildsRequestsForOthersAndLeavesTheReservedBytes) {
  KsSection sections[4];
  KsNtResponseDescriptor descriptor;
  unwrite(descriptor);
  heap.pad_next(226);
  EXPECT_EQ(ks_GenerateNTResponse_req(name_of(257).c_str(), at(authenticator), at(peer), "User", 0x1234, sections,
                                      &descriptor),
            KS_SUCCESS);

  EXPECT_EQ(raw(descriptor), bytes("34 12  05 1c"
                                   "10 a5 a5 a5  21 00 00 00"
                                   "10 a5 a5 a5  31 00 00 00"
                                   "04 a5 a5 a5  41 00 00 00"));
  const auto *wire_name = static_cast<const uint8_t *>(sections[0].data);
  EXPECT_EQ(Bytes(wire_name, wire_name + 261), bytes("30 00 00 07") + Bytes(257, 'k'));
  EXPECT_EQ(sections[0].length, 5u);
  EXPECT_EQ(sections[3].length, 4u);
  heap.release(sections[0].data);
}

TEST_F(GenerateNTResponse, BuildsNothingWithoutMemory) {
  KsSection sections[4];
  unwrite(sections);
  KsNtResponseDescriptor descriptor;
  unwrite(descriptor);
  heap.fail_nth(1);
  EXPECT_EQ(ks_GenerateNTResponse_req("k1", at(authenticator), at(peer), "User", 24, sections, &descriptor),
            KS_NO_MEMORY);

  EXPECT_THAT(raw(descriptor), Each(0xa5));
  EXPECT_THAT(raw(sections), Each(0xa5));
}

// DIFFERS(auth-response-order)
TEST_F(GenerateAuthenticatorResponse, SendsFiveSectionsInAnotherOrderThanItsArgumentsAndCopies42Bytes) {
  mts.reply_with(reply(Bytes(42, 0x5a)));
  EXPECT_EQ(ks_GenerateAuthenticatorResponse("k1", at(nt_response), at(peer), at(authenticator), "User", output.data()),
            KS_SUCCESS);

  const auto &request = mts.request();
  EXPECT_EQ(request.op, 66573u);
  EXPECT_EQ(without_length_padding(request.descriptor), bytes("2a 00  06 24"
                                                              "10 a5 a5 a5  2a 00 00 00"
                                                              "10 a5 a5 a5  3a 00 00 00"
                                                              "04 a5 a5 a5  4a 00 00 00"
                                                              "18 a5 a5 a5  4e 00 00 00"));
  ASSERT_EQ(request.sections.size(), 5u);
  EXPECT_EQ(request.sections[0].content, bytes("30 00 00 07 6b 31"));
  EXPECT_EQ(request.sections[1].content, authenticator);
  EXPECT_EQ(request.sections[2].content, peer);
  EXPECT_EQ(request.sections[3].content, bytes_of("User"));
  EXPECT_EQ(request.sections[4].content, nt_response);
  EXPECT_EQ(request.sections[4].data, at(nt_response));
  EXPECT_EQ(output[41], 0x5a);
  EXPECT_EQ(output[42], 0xee);
  EXPECT_THAT(traces(), IsEmpty());
}

TEST_F(GenerateAuthenticatorResponse, PutsTheResponseWhereAnEmptyUserNameIs) {
  mts.reply_with(reply(Bytes(42)));
  EXPECT_EQ(run("k1", ""), KS_SUCCESS);

  EXPECT_EQ(without_length_padding(mts.request().descriptor), bytes("2a 00  06 24"
                                                                    "10 a5 a5 a5  2a 00 00 00"
                                                                    "10 a5 a5 a5  3a 00 00 00"
                                                                    "00 a5 a5 a5  4a 00 00 00"
                                                                    "18 a5 a5 a5  4a 00 00 00"));
}

// DIFFERS(mschap-user-name-low8)
TEST_F(GenerateAuthenticatorResponse, CutsTheUserNameByTheLowBitsOfItsLength) {
  mts.reply_with(reply(Bytes(42)));
  EXPECT_EQ(run(name_of(31), std::string(300, 'u')), KS_SUCCESS);

  EXPECT_EQ(without_length_padding(mts.request().descriptor), bytes("2a 00  23 24"
                                                                    "10 a5 a5 a5  47 00 00 00"
                                                                    "10 a5 a5 a5  57 00 00 00"
                                                                    "2c a5 a5 a5  67 00 00 00"
                                                                    "18 a5 a5 a5  93 00 00 00"));
  EXPECT_EQ(mts.request().sections.at(3).content, Bytes(44, 'u'));
}

TEST_F(GenerateAuthenticatorResponse, RefusesOtherNames) {
  for (const size_t len : {0u, 32u, 256u, 257u, 287u}) EXPECT_EQ(run(name_of(len)), KS_INVALID_ARGS) << len;
  EXPECT_THAT(scripted::platform().log, IsEmpty());
}

TEST_F(GenerateAuthenticatorResponse, RefusesNullPointers) {
  const uint8_t *nt = at(nt_response), *pc = at(peer), *ac = at(authenticator);
  uint8_t *out = output.data();
  EXPECT_EQ(ks_GenerateAuthenticatorResponse(nullptr, nt, pc, ac, "User", out), KS_INVALID_ARGS);
  EXPECT_EQ(ks_GenerateAuthenticatorResponse("k1", nullptr, pc, ac, "User", out), KS_INVALID_ARGS);
  EXPECT_EQ(ks_GenerateAuthenticatorResponse("k1", nt, nullptr, ac, "User", out), KS_INVALID_ARGS);
  EXPECT_EQ(ks_GenerateAuthenticatorResponse("k1", nt, pc, nullptr, "User", out), KS_INVALID_ARGS);
  EXPECT_EQ(ks_GenerateAuthenticatorResponse("k1", nt, pc, ac, nullptr, out), KS_INVALID_ARGS);
  EXPECT_EQ(ks_GenerateAuthenticatorResponse("k1", nt, pc, ac, "User", nullptr), KS_INVALID_ARGS);
  EXPECT_THAT(scripted::platform().log, IsEmpty());
}

TEST_F(GenerateAuthenticatorResponse, RefusesWithoutTouchingWhatStandsBehindTheFault) {
  Forbidden any, user;
  const auto refuse = [&](const char *name, const uint8_t *nt, const uint8_t *pc, const uint8_t *ac, uint8_t *out) {
    EXPECT_EQ(ks_GenerateAuthenticatorResponse(name, nt, pc, ac, user.text(), out), KS_INVALID_ARGS);
  };
  refuse("", any.data(), any.data(), any.data(), any.data());
  refuse("k1", nullptr, any.data(), any.data(), any.data());
  refuse("k1", any.data(), nullptr, any.data(), any.data());
  refuse("k1", any.data(), any.data(), nullptr, any.data());
  refuse("k1", any.data(), any.data(), any.data(), nullptr);
}

TEST_F(GenerateAuthenticatorResponse, ReportsAResponseOfAnotherLengthAndLeavesTheOutput) {
  mts.reply_with(reply(Bytes(24, 0x5a)));
  EXPECT_EQ(run(), KS_FAILURE);

  EXPECT_THAT(output, Each(0xee));
  EXPECT_THAT(traces(true), ElementsAre("103:Invalid buffer len :42 output data len :24 \n"));
}

TEST_F(GenerateAuthenticatorResponse, PassesOnARefusalWhateverElseTheReplyHolds) {
  mts.reply_with(reply(Bytes(42, 0x5a), KS_CRYPT_ERROR));
  EXPECT_EQ(run(), KS_CRYPT_ERROR);

  EXPECT_THAT(output, Each(0xee));
  EXPECT_THAT(traces(), IsEmpty());
}

TEST_F(GenerateAuthenticatorResponse, AnswersNoMemoryAndSendsNothing) {
  heap.fail_nth(1);
  EXPECT_EQ(run(), KS_NO_MEMORY);
  heap.fail_nth(2);
  EXPECT_EQ(run(), KS_NO_MEMORY);

  EXPECT_THAT(flow(), ElementsAre("calloc list[5]", "calloc list[5]", "calloc 35", "free list[5]"));
}

// DIFFERS(auth-response-order)
TEST_F(GenerateAuthenticatorResponse, BuildsRequestsForOthersAndLeavesTheReservedBytes) {
  KsSection sections[5];
  KsAuthenticatorResponseDescriptor descriptor;
  unwrite(descriptor);
  EXPECT_EQ(ks_GenerateNTAuthenticatorResponse_req("k1", at(nt_response), at(peer), at(authenticator), "User", 0x1234,
                                                   sections, &descriptor),
            KS_SUCCESS);

  EXPECT_EQ(raw(descriptor), bytes("34 12  06 24"
                                   "10 a5 a5 a5  2a 00 00 00"
                                   "10 a5 a5 a5  3a 00 00 00"
                                   "04 a5 a5 a5  4a 00 00 00"
                                   "18 a5 a5 a5  4e 00 00 00"));
  EXPECT_EQ(heap.content(sections[0].data, 35), bytes("30 00 00 07 6b 31") + Bytes(29, 0));
  EXPECT_EQ(sections[1].data, at(authenticator));
  EXPECT_EQ(sections[2].data, at(peer));
  EXPECT_EQ(sections[4].data, at(nt_response));
  EXPECT_EQ(sections[4].length, 24u);
  heap.release(sections[0].data);
}

// DIFFERS(name-copied-low16)
TEST_F(GenerateAuthenticatorResponse, CopiesANameByTheLow16BitsOfItsLength) {
  KsSection sections[5];
  KsAuthenticatorResponseDescriptor descriptor;
  EXPECT_EQ(ks_GenerateNTAuthenticatorResponse_req(name_of(65538).c_str(), at(nt_response), at(peer), at(authenticator),
                                                   "User", 42, sections, &descriptor),
            KS_SUCCESS);

  EXPECT_EQ(heap.content(sections[0].data, 35), bytes("30 00 00 07 6b 6b") + Bytes(29, 0));
  heap.release(sections[0].data);
}

TEST_F(GenerateAuthenticatorResponse, BuildsNothingWithoutMemory) {
  KsSection sections[5];
  unwrite(sections);
  KsAuthenticatorResponseDescriptor descriptor;
  unwrite(descriptor);
  heap.fail_nth(1);
  EXPECT_EQ(ks_GenerateNTAuthenticatorResponse_req("k1", at(nt_response), at(peer), at(authenticator), "User", 42,
                                                   sections, &descriptor),
            KS_NO_MEMORY);

  EXPECT_THAT(raw(descriptor), Each(0xa5));
  EXPECT_THAT(raw(sections), Each(0xa5));
}

TEST_F(MsChap, ReadsResponsesForOthersWhateverThePayloadSize) {
  scripted::Guarded payload(reply(Bytes(3, 0x5a)));
  for (const auto read : {ks_GenerateNTResponse_resp, ks_GenerateNTAuthenticatorResponse_resp}) {
    for (const uint16_t size : {uint16_t{0}, uint16_t{65535}}) {
      uint8_t three[3] = {};
      EXPECT_EQ(read(size, payload.data(), three, 3), KS_SUCCESS);
      EXPECT_THAT(three, Each(0x5a));
    }
    EXPECT_EQ(read(9, payload.data(), output.data(), 4), KS_FAILURE);
    EXPECT_THAT(output, Each(0xee));
  }
}

}  // namespace
