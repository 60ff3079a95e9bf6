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

// The fourth byte of each descriptor here is reserved; shown as 0xa5.
Bytes without_fourth_byte(Bytes descriptor) {
  if (descriptor.size() > 3) descriptor[3] = 0xa5;
  return descriptor;
}

class NewPasswordEncrypted : public scripted::Test {
 protected:
  KsResult run(const std::string &name = "k1", size_t len = 3) {
    return ks_NewPasswordEncryptedWithOldNtPasswordHash(name.c_str(), password.data(), static_cast<uint16_t>(len),
                                                        output.data());
  }

  const Bytes password = Bytes(65535, 'p');
  Bytes output = Bytes(65536, 0xee);
};

TEST_F(NewPasswordEncrypted, SendsNameAndNewPasswordAndCopiesTheBlock) {
  mts.reply_with(reply(Bytes(516, 0x5a)));
  EXPECT_EQ(run(), KS_SUCCESS);

  EXPECT_EQ(mts.request().op, 66574u);
  EXPECT_EQ(without_fourth_byte(mts.request().descriptor), bytes("06 08 03 a5 0e 00 00 00"));
  ASSERT_EQ(mts.request().sections.size(), 2u);
  EXPECT_EQ(mts.request().sections[0].content, bytes("30 00 00 07 6b 31"));
  EXPECT_EQ(mts.request().sections[1].content, bytes_of("ppp"));
  EXPECT_EQ(mts.request().sections[1].data, password.data());
  EXPECT_EQ(output[515], 0x5a);
  EXPECT_EQ(output[516], 0xee);
  EXPECT_THAT(traces(), IsEmpty());
}

// DIFFERS(new-password-low8)
TEST_F(NewPasswordEncrypted, CountsAPasswordOf256BytesAs0AndSendsAllOfIt) {
  mts.reply_with(reply(Bytes(516)));
  EXPECT_EQ(run("k1", 256), KS_SUCCESS);
  EXPECT_EQ(without_fourth_byte(mts.request(0).descriptor), bytes("06 08 00 a5 0e 00 00 00"));
  EXPECT_EQ(mts.request(0).sections.at(1).content, Bytes(256, 'p'));

  mts.reply_with(reply(Bytes(516)));
  EXPECT_EQ(run("k1", 255), KS_SUCCESS);
  EXPECT_EQ(without_fourth_byte(mts.request(1).descriptor), bytes("06 08 ff a5 0e 00 00 00"));
}

TEST_F(NewPasswordEncrypted, RefusesOtherLengths) {
  for (const size_t len : {0u, 257u, 512u, 65535u}) EXPECT_EQ(run("k1", len), KS_INVALID_ARGS) << len;
  EXPECT_THAT(scripted::platform().log, IsEmpty());
}

TEST_F(NewPasswordEncrypted, TakesNamesOf1To31BytesByTheirWholeLength) {
  mts.reply_with(reply(Bytes(516)));
  EXPECT_EQ(run(name_of(31)), KS_SUCCESS);
  EXPECT_EQ(without_fourth_byte(mts.request().descriptor), bytes("23 08 03 a5 2b 00 00 00"));

  for (const size_t len : {0u, 32u, 256u, 257u, 287u}) EXPECT_EQ(run(name_of(len)), KS_INVALID_ARGS) << len;
  EXPECT_EQ(mts.requests.size(), 1u);
}

TEST_F(NewPasswordEncrypted, RefusesNullPointers) {
  uint8_t *out = output.data();
  EXPECT_EQ(ks_NewPasswordEncryptedWithOldNtPasswordHash(nullptr, password.data(), 3, out), KS_INVALID_ARGS);
  EXPECT_EQ(ks_NewPasswordEncryptedWithOldNtPasswordHash("k1", nullptr, 3, out), KS_INVALID_ARGS);
  EXPECT_EQ(ks_NewPasswordEncryptedWithOldNtPasswordHash("k1", password.data(), 3, nullptr), KS_INVALID_ARGS);
  EXPECT_THAT(scripted::platform().log, IsEmpty());
}

TEST_F(NewPasswordEncrypted, RefusesWithoutTouchingTheBuffers) {
  Forbidden in, out;
  EXPECT_EQ(ks_NewPasswordEncryptedWithOldNtPasswordHash("", in.data(), 3, out.data()), KS_INVALID_ARGS);
  EXPECT_EQ(ks_NewPasswordEncryptedWithOldNtPasswordHash("k1", in.data(), 0, out.data()), KS_INVALID_ARGS);
  EXPECT_EQ(ks_NewPasswordEncryptedWithOldNtPasswordHash("k1", in.data(), 257, out.data()), KS_INVALID_ARGS);
  EXPECT_EQ(ks_NewPasswordEncryptedWithOldNtPasswordHash("k1", in.data(), 3, nullptr), KS_INVALID_ARGS);
}

// DIFFERS(new-password-any-reply)
TEST_F(NewPasswordEncrypted, CopiesAsMuchAsTheReplySaysItHas) {
  for (const size_t len : {0u, 1u, 16u, 515u, 600u, 65535u}) {
    output.assign(output.size(), 0xee);
    mts.reply_with(reply(Bytes(len, 0x5a)));
    EXPECT_EQ(run(), KS_SUCCESS) << len;
    if (len > 0) {
      EXPECT_EQ(output[len - 1], 0x5a) << len;
    }
    EXPECT_EQ(output[len], 0xee) << len;
  }
  EXPECT_THAT(traces(), IsEmpty());
}

TEST_F(NewPasswordEncrypted, PassesOnARefusalWhateverElseTheReplyHolds) {
  mts.reply_with(reply(Bytes(516, 0x5a), KS_NOT_FOUND));
  EXPECT_EQ(run(), KS_NOT_FOUND);

  EXPECT_THAT(output, Each(0xee));
}

TEST_F(NewPasswordEncrypted, AnswersNoMemoryAndSendsNothing) {
  heap.fail_nth(1);
  EXPECT_EQ(run(), KS_NO_MEMORY);
  heap.fail_nth(2);
  EXPECT_EQ(run(), KS_NO_MEMORY);

  EXPECT_THAT(flow(), ElementsAre("calloc list[2]", "calloc list[2]", "calloc 35", "free list[2]"));
}

// DIFFERS(name-copied-low16)
TEST_F(NewPasswordEncrypted, BuildsRequestsForOthersAndLeavesTheReservedByte) {
  KsSection sections[2];
  KsNewPasswordDescriptor descriptor;
  unwrite(descriptor);
  heap.pad_next(226);
  EXPECT_EQ(ks_NewPasswordEncryptedWithOldNtPasswordHash_req(name_of(257).c_str(), password.data(), 0x1234, sections,
                                                             &descriptor),
            KS_SUCCESS);

  EXPECT_EQ(raw(descriptor), bytes("05 08 34 a5 0d 00 00 00"));
  const auto *wire_name = static_cast<const uint8_t *>(sections[0].data);
  EXPECT_EQ(Bytes(wire_name, wire_name + 261), bytes("30 00 00 07") + Bytes(257, 'k'));
  EXPECT_EQ(sections[0].length, 5u);
  EXPECT_EQ(sections[1].length, 0x1234u);
  heap.release(sections[0].data);
}

TEST_F(NewPasswordEncrypted, BuildsNothingWithoutMemory) {
  KsSection sections[2];
  unwrite(sections);
  KsNewPasswordDescriptor descriptor;
  unwrite(descriptor);
  heap.fail_nth(1);
  EXPECT_EQ(ks_NewPasswordEncryptedWithOldNtPasswordHash_req("k1", password.data(), 3, sections, &descriptor),
            KS_NO_MEMORY);

  EXPECT_THAT(raw(descriptor), Each(0xa5));
  EXPECT_THAT(raw(sections), Each(0xa5));
}

// DIFFERS(new-password-any-reply)
TEST_F(NewPasswordEncrypted, ReadsRepliesForOthersWhateverThePayloadSize) {
  scripted::Guarded payload(reply_with_len(3, Bytes(3, 0x5a)));
  EXPECT_EQ(ks_NewPasswordEncryptedWithOldNtPasswordHash_resp(0, payload.data(), output.data()), KS_SUCCESS);

  EXPECT_EQ(Bytes(output.begin(), output.begin() + 4), bytes("5a 5a 5a ee"));
}

class OldHashEncrypted : public scripted::Test {
 protected:
  KsResult run(const std::string &new_name = "new", const std::string &old_name = "k1") {
    return ks_OldNtPasswordHashEncryptedWithNewNtPasswordHash(new_name.c_str(), old_name.c_str(), output.data());
  }

  Bytes output = Bytes(32, 0xee);
};

TEST_F(OldHashEncrypted, SendsBothNamesAndCopies16Bytes) {
  mts.reply_with(reply(Bytes(16, 0x5a)));
  EXPECT_EQ(run(), KS_SUCCESS);

  EXPECT_EQ(mts.request().op, 66575u);
  EXPECT_EQ(without_fourth_byte(mts.request().descriptor), bytes("07 08 06 a5 0f 00 00 00"));
  ASSERT_EQ(mts.request().sections.size(), 2u);
  EXPECT_EQ(mts.request().sections[0].content, bytes("30 00 00 07 6e 65 77"));
  EXPECT_EQ(mts.request().sections[1].content, bytes("30 00 00 07 6b 31"));
  EXPECT_EQ(output[15], 0x5a);
  EXPECT_EQ(output[16], 0xee);
  EXPECT_THAT(traces(), IsEmpty());
  EXPECT_THAT(flow(), ElementsAre("calloc list[2]", "calloc 35", "calloc 35", "send", "recv", "free 35", "free 35",
                                  "free list[2]", "drop sent", "drop received"));
}

TEST_F(OldHashEncrypted, TakesTheSameNameTwice) {
  mts.reply_with(reply(Bytes(16)));
  EXPECT_EQ(run("k1", "k1"), KS_SUCCESS);
  EXPECT_NE(mts.request().sections.at(0).data, mts.request().sections.at(1).data);
}

TEST_F(OldHashEncrypted, TakesNamesOf1To31BytesByTheirWholeLength) {
  mts.reply_with(reply(Bytes(16)));
  EXPECT_EQ(run(name_of(31), name_of(31)), KS_SUCCESS);
  EXPECT_EQ(without_fourth_byte(mts.request().descriptor), bytes("23 08 23 a5 2b 00 00 00"));

  for (const size_t len : {0u, 32u, 256u, 257u, 287u}) {
    EXPECT_EQ(run(name_of(len), "k1"), KS_INVALID_ARGS) << len;
    EXPECT_EQ(run("k1", name_of(len)), KS_INVALID_ARGS) << len;
  }
  EXPECT_EQ(mts.requests.size(), 1u);
}

TEST_F(OldHashEncrypted, RefusesNullPointers) {
  uint8_t *out = output.data();
  EXPECT_EQ(ks_OldNtPasswordHashEncryptedWithNewNtPasswordHash(nullptr, "k1", out), KS_INVALID_ARGS);
  EXPECT_EQ(ks_OldNtPasswordHashEncryptedWithNewNtPasswordHash("k1", nullptr, out), KS_INVALID_ARGS);
  EXPECT_EQ(ks_OldNtPasswordHashEncryptedWithNewNtPasswordHash("k1", "k1", nullptr), KS_INVALID_ARGS);
  EXPECT_THAT(scripted::platform().log, IsEmpty());
}

TEST_F(OldHashEncrypted, ChecksTheFirstNameFirst) {
  Forbidden old_name, out;
  EXPECT_EQ(ks_OldNtPasswordHashEncryptedWithNewNtPasswordHash(nullptr, old_name.text(), out.data()), KS_INVALID_ARGS);
  EXPECT_EQ(ks_OldNtPasswordHashEncryptedWithNewNtPasswordHash("", old_name.text(), out.data()), KS_INVALID_ARGS);
  EXPECT_EQ(ks_OldNtPasswordHashEncryptedWithNewNtPasswordHash("k1", "", out.data()), KS_INVALID_ARGS);
}

// DIFFERS(old-hash-no-memory)
TEST_F(OldHashEncrypted, AnswersFailureWhenANameCannotBeAllocated) {
  heap.fail_nth(1);
  EXPECT_EQ(run(), KS_NO_MEMORY) << "the list";
  heap.fail_nth(2);
  EXPECT_EQ(run(), KS_FAILURE) << "the first name";
  heap.fail_nth(3);
  EXPECT_EQ(run(), KS_FAILURE) << "the second name";

  EXPECT_THAT(flow(), ElementsAre("calloc list[2]",                               //
                                  "calloc list[2]", "calloc 35", "free list[2]",  //
                                  "calloc list[2]", "calloc 35", "calloc 35", "free 35", "free list[2]"));
  EXPECT_THAT(traces(), IsEmpty()) << "nothing was sent, so no send is reported";
}

TEST_F(OldHashEncrypted, FreesTheFirstNameFirst) {
  mts.fail_send();
  EXPECT_EQ(run(), KS_FAILURE);
  mts.fail_recv();
  EXPECT_EQ(run(), KS_FAILURE);

  EXPECT_THAT(flow(), ElementsAre("calloc list[2]", "calloc 35", "calloc 35", "send",                       //
                                  "free 35", "free 35", "free list[2]",                                     //
                                  "calloc list[2]", "calloc 35", "calloc 35", "send", "recv", "drop sent",  //
                                  "free 35", "free 35", "free list[2]"));
}

// DIFFERS(old-hash-reader)
TEST_F(OldHashEncrypted, ReportsAHashOfAnotherLengthAndLeavesTheOutput) {
  mts.reply_with(reply(Bytes(42, 0x5a)));
  EXPECT_EQ(run(), KS_FAILURE);

  EXPECT_THAT(output, Each(0xee));
  EXPECT_THAT(traces(true), ElementsAre("103:Invalid buffer len :16 output data len :42 \n"));
}

// DIFFERS(old-hash-reader)
TEST_F(OldHashEncrypted, HasAReaderOfItsOwnThatIsLikeTheOneItUses) {
  const Bytes replies[] = {reply(Bytes(16, 0x5a)), reply(Bytes(15, 0x5a)), reply(Bytes(16, 0x5a), KS_TIMEOUT)};
  for (const Bytes &one : replies) {
    scripted::Guarded payload(one);
    Bytes mine(16, 0xee), others(16, 0xee);
    EXPECT_EQ(ks_OldNtPasswordHashEncryptedWithNewNtPasswordHash_resp(0, payload.data(), mine.data(), 16),
              ks_GenerateNTAuthenticatorResponse_resp(0, payload.data(), others.data(), 16));
    EXPECT_EQ(mine, others);
  }
  EXPECT_THAT(traces(), ElementsAre("Invalid buffer len :16 output data len :15 \n",
                                    "Invalid buffer len :16 output data len :15 \n"));
}

TEST_F(OldHashEncrypted, PassesOnARefusalWhateverElseTheReplyHolds) {
  mts.reply_with(reply(Bytes(16, 0x5a), KS_NO_MEMORY));
  EXPECT_EQ(run(), KS_NO_MEMORY) << "the service's own word is not turned into another";

  EXPECT_THAT(output, Each(0xee));
  EXPECT_THAT(traces(), IsEmpty());
}

// DIFFERS(name-copied-low16)
TEST_F(OldHashEncrypted, BuildsRequestsForOthersAndLeavesTheReservedByte) {
  KsSection sections[2];
  KsOldHashDescriptor descriptor;
  unwrite(descriptor);
  heap.pad_nth(2, 226);
  EXPECT_EQ(ks_OldNtPasswordHashEncryptedWithNewNtPasswordHash_req(name_of(65537).c_str(), name_of(257).c_str(),
                                                                   sections, &descriptor),
            KS_SUCCESS);

  EXPECT_EQ(raw(descriptor), bytes("05 08 05 a5 0d 00 00 00"));
  EXPECT_EQ(heap.content(sections[0].data, 35), bytes("30 00 00 07 6b") + Bytes(30, 0));
  const auto *second = static_cast<const uint8_t *>(sections[1].data);
  EXPECT_EQ(Bytes(second, second + 261), bytes("30 00 00 07") + Bytes(257, 'k'));
  EXPECT_EQ(sections[0].length, 5u);
  EXPECT_EQ(sections[1].length, 5u);
  heap.release(sections[0].data);
  heap.release(sections[1].data);
}

// DIFFERS(old-hash-no-memory)
TEST_F(OldHashEncrypted, BuildsNothingWithoutMemoryAndSaysSo) {
  KsSection sections[2];
  unwrite(sections);
  KsOldHashDescriptor descriptor;
  unwrite(descriptor);
  for (const int n : {1, 2}) {
    heap.fail_nth(n);
    EXPECT_EQ(ks_OldNtPasswordHashEncryptedWithNewNtPasswordHash_req("new", "k1", sections, &descriptor), KS_NO_MEMORY);
  }

  EXPECT_THAT(flow(), ElementsAre("calloc 35", "calloc 35", "calloc 35", "free 35"));
  EXPECT_THAT(raw(descriptor), Each(0xa5));
  EXPECT_THAT(raw(sections), Each(0xa5));
}

class GetMasterKey : public scripted::Test {
 protected:
  KsResult run(const std::string &name = "k1") {
    return ks_GetMasterKey(name.c_str(), nt_response.data(), output.data());
  }

  const Bytes nt_response = Bytes(24, 0xcc);
  Bytes output = Bytes(32, 0xee);
};

TEST_F(GetMasterKey, SendsNameAndResponseAndCopies16Bytes) {
  mts.reply_with(reply(Bytes(16, 0x5a)));
  EXPECT_EQ(run(), KS_SUCCESS);

  EXPECT_EQ(mts.request().op, 66576u);
  EXPECT_EQ(without_fourth_byte(mts.request().descriptor), bytes("06 06 18 a5 0c 00"));
  ASSERT_EQ(mts.request().sections.size(), 2u);
  EXPECT_EQ(mts.request().sections[0].content, bytes("30 00 00 07 6b 31"));
  EXPECT_EQ(mts.request().sections[1].content, nt_response);
  EXPECT_EQ(mts.request().sections[1].data, nt_response.data());
  EXPECT_EQ(output[15], 0x5a);
  EXPECT_EQ(output[16], 0xee);
  EXPECT_THAT(traces(), IsEmpty());
}

TEST_F(GetMasterKey, TakesNamesOf1To31BytesByTheirWholeLength) {
  mts.reply_with(reply(Bytes(16)));
  EXPECT_EQ(run(name_of(31)), KS_SUCCESS);
  EXPECT_EQ(without_fourth_byte(mts.request().descriptor), bytes("23 06 18 a5 29 00"));

  for (const size_t len : {0u, 32u, 256u, 257u, 287u}) EXPECT_EQ(run(name_of(len)), KS_INVALID_ARGS) << len;
  EXPECT_EQ(mts.requests.size(), 1u);
}

TEST_F(GetMasterKey, RefusesNullPointers) {
  EXPECT_EQ(ks_GetMasterKey(nullptr, nt_response.data(), output.data()), KS_INVALID_ARGS);
  EXPECT_EQ(ks_GetMasterKey("k1", nullptr, output.data()), KS_INVALID_ARGS);
  EXPECT_EQ(ks_GetMasterKey("k1", nt_response.data(), nullptr), KS_INVALID_ARGS);
  EXPECT_THAT(scripted::platform().log, IsEmpty());
}

TEST_F(GetMasterKey, RefusesWithoutTouchingTheBuffers) {
  Forbidden response, out;
  EXPECT_EQ(ks_GetMasterKey("", response.data(), out.data()), KS_INVALID_ARGS);
  EXPECT_EQ(ks_GetMasterKey("k1", response.data(), nullptr), KS_INVALID_ARGS);
}

TEST_F(GetMasterKey, ReportsAKeyOfAnotherLengthAndLeavesTheOutput) {
  mts.reply_with(reply(Bytes(24, 0x5a)));
  EXPECT_EQ(run(), KS_FAILURE);

  EXPECT_THAT(output, Each(0xee));
  EXPECT_THAT(traces(true), ElementsAre("103:Invalid buffer len :16 output data len :24 \n"));
}

TEST_F(GetMasterKey, PassesOnARefusalWhateverElseTheReplyHolds) {
  mts.reply_with(reply(Bytes(16, 0x5a), KS_NOT_FOUND));
  EXPECT_EQ(run(), KS_NOT_FOUND);

  EXPECT_THAT(output, Each(0xee));
  EXPECT_THAT(traces(), IsEmpty());
}

TEST_F(GetMasterKey, AnswersNoMemoryAndSendsNothing) {
  heap.fail_nth(1);
  EXPECT_EQ(run(), KS_NO_MEMORY);
  heap.fail_nth(2);
  EXPECT_EQ(run(), KS_NO_MEMORY);

  EXPECT_THAT(flow(), ElementsAre("calloc list[2]", "calloc list[2]", "calloc 35", "free list[2]"));
}

// DIFFERS(name-copied-low16)
TEST_F(GetMasterKey, BuildsRequestsForOthersAndLeavesTheReservedByte) {
  KsSection sections[2];
  KsMasterKeyDescriptor descriptor;
  unwrite(descriptor);
  heap.pad_next(226);
  EXPECT_EQ(ks_GetMasterKey_req(name_of(257).c_str(), nt_response.data(), sections, &descriptor), KS_SUCCESS);

  EXPECT_EQ(raw(descriptor), bytes("05 06 18 a5 0b 00"));
  const auto *wire_name = static_cast<const uint8_t *>(sections[0].data);
  EXPECT_EQ(Bytes(wire_name, wire_name + 261), bytes("30 00 00 07") + Bytes(257, 'k'));
  EXPECT_EQ(sections[0].length, 5u);
  EXPECT_EQ(sections[1].length, 24u);
  heap.release(sections[0].data);
}

TEST_F(GetMasterKey, BuildsNothingWithoutMemory) {
  KsSection sections[2];
  unwrite(sections);
  KsMasterKeyDescriptor descriptor;
  unwrite(descriptor);
  heap.fail_nth(1);
  EXPECT_EQ(ks_GetMasterKey_req("k1", nt_response.data(), sections, &descriptor), KS_NO_MEMORY);

  EXPECT_THAT(raw(descriptor), Each(0xa5));
  EXPECT_THAT(raw(sections), Each(0xa5));
}

TEST_F(GetMasterKey, ReadsRepliesForOthersWhateverThePayloadSize) {
  scripted::Guarded payload(reply(Bytes(3, 0x5a)));
  EXPECT_EQ(ks_GetMasterKey_resp(0, payload.data(), output.data(), 3), KS_SUCCESS);
  EXPECT_EQ(Bytes(output.begin(), output.begin() + 4), bytes("5a 5a 5a ee"));
}

}  // namespace
