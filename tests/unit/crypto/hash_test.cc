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

struct HashOperation {
  const char *name;
  KsResult (*run)(const char *, const uint8_t *, uint16_t, const uint8_t *, uint16_t, uint8_t *);
  uint32_t op;
  size_t digest_len;
};

void PrintTo(const HashOperation &operation, std::ostream *out) {
  *out << operation.name;
}

constexpr size_t kNameSize = 6;  // of "k1" on the wire

class Hash : public scripted::Test, public testing::WithParamInterface<HashOperation> {
 protected:
  KsResult run(const char *name, size_t first_len, size_t second_len) {
    return GetParam().run(name, first.data(), static_cast<uint16_t>(first_len), second.data(),
                          static_cast<uint16_t>(second_len), output.data());
  }
  KsResult run() { return run("k1", 2, 3); }
  Bytes digest() const { return Bytes(GetParam().digest_len, 0x5a); }

  Bytes first = Bytes(65535, 0xf1);
  Bytes second = Bytes(65535, 0xf2);
  Bytes output = Bytes(32, 0xee);
};

INSTANTIATE_TEST_SUITE_P(Operations, Hash,
                         testing::Values(HashOperation{"Md5Hash", ks_md5_hash, 66583, 16},
                                         HashOperation{"Sha1Hash", ks_sha1_hash, 66584, 20}),
                         [](const auto &param) { return param.param.name; });

TEST_P(Hash, SendsNameAndBothPiecesAndCopiesTheDigest) {
  mts.reply_with(reply(digest()));
  EXPECT_EQ(run(), KS_SUCCESS);

  EXPECT_EQ(mts.request().op, GetParam().op);
  EXPECT_EQ(mts.sent(), bytes("06 0a  02 00 10 00  03 00 12 00   30 00 00 07 6b 31   f1 f1   f2 f2 f2"));
  ASSERT_EQ(mts.request().sections.size(), 3u);
  EXPECT_EQ(mts.request().sections[1].data, first.data());
  EXPECT_EQ(mts.request().sections[2].data, second.data());
  EXPECT_EQ(Bytes(output.begin(), output.begin() + static_cast<long>(digest().size())), digest());
  EXPECT_EQ(output[digest().size()], 0xee);
  EXPECT_THAT(traces(), IsEmpty());
  expect_leaked({kNameSize});
}

// DIFFERS(hash-exact-name) DIFFERS(hash-keeps-name)
TEST_P(Hash, KeepsANameBufferOfTheExactSizeAfterTheReply) {
  mts.reply_with(reply(digest()));
  EXPECT_EQ(run(), KS_SUCCESS);

  EXPECT_THAT(flow(),
              ElementsAre("calloc list[3]", "calloc 6", "send", "recv", "free list[3]", "drop sent", "drop received"));
  EXPECT_EQ(heap.content(mts.request().sections.at(0).data, 6), bytes("30 00 00 07 6b 31"));
  expect_leaked({kNameSize});
}

// DIFFERS(hash-keeps-name)
TEST_P(Hash, KeepsTheNameBufferAfterAFailedExchangeToo) {
  mts.fail_send();
  EXPECT_EQ(run(), KS_FAILURE);
  mts.fail_recv();
  EXPECT_EQ(run(), KS_FAILURE);

  EXPECT_THAT(flow(), ElementsAre("calloc list[3]", "calloc 6", "send", "free list[3]",  //
                                  "calloc list[3]", "calloc 6", "send", "recv", "drop sent", "free list[3]"));
  expect_leaked({kNameSize, kNameSize});
}

TEST_P(Hash, SendsAnAbsentPieceAsAnEmptySection) {
  mts.reply_with(reply(digest()));
  EXPECT_EQ(GetParam().run("k1", nullptr, 0, second.data(), 3, output.data()), KS_SUCCESS);
  EXPECT_EQ(mts.sent(0), bytes("06 0a  00 00 10 00  03 00 10 00   30 00 00 07 6b 31   f2 f2 f2"));
  EXPECT_EQ(mts.request(0).sections.size(), 3u);

  mts.reply_with(reply(digest()));
  EXPECT_EQ(GetParam().run("k1", first.data(), 2, nullptr, 0, output.data()), KS_SUCCESS);
  EXPECT_EQ(mts.sent(1), bytes("06 0a  02 00 10 00  00 00 12 00   30 00 00 07 6b 31   f1 f1"));

  mts.reply_with(reply(digest()));
  EXPECT_EQ(run("k1", 2, 0), KS_SUCCESS);
  EXPECT_EQ(mts.request(2).sections.at(2).data, second.data()) << "the caller's pointer goes along";
  expect_leaked({kNameSize, kNameSize, kNameSize});
}

// DIFFERS(hash-one-piece)
TEST_P(Hash, AsksForOnePresentPieceAndDoesNotLookAtTheOther) {
  mts.reply_with(reply(digest()));
  EXPECT_EQ(GetParam().run("k1", first.data(), 2, nullptr, 3, output.data()), KS_SUCCESS);
  EXPECT_EQ(mts.request(0).descriptor, bytes("06 0a  02 00 10 00  03 00 12 00"));
  EXPECT_EQ(mts.request(0).sections.at(2).data, nullptr);
  EXPECT_EQ(mts.request(0).sections.at(2).length, 3u);

  mts.reply_with(reply(digest()));
  EXPECT_EQ(GetParam().run("k1", nullptr, 2, second.data(), 3, output.data()), KS_SUCCESS);
  EXPECT_EQ(mts.request(1).descriptor, bytes("06 0a  02 00 10 00  03 00 12 00"));
  EXPECT_EQ(mts.request(1).sections.at(1).data, nullptr);
  EXPECT_EQ(mts.request(1).sections.at(1).length, 2u);

  // But its length counts.
  EXPECT_EQ(GetParam().run("k1", first.data(), 2, nullptr, 1023, output.data()), KS_INVALID_ARGS);
  expect_leaked({kNameSize, kNameSize});
}

TEST_P(Hash, RefusesTwoAbsentPieces) {
  EXPECT_EQ(GetParam().run("k1", nullptr, 0, nullptr, 0, output.data()), KS_INVALID_ARGS);
  EXPECT_EQ(GetParam().run("k1", nullptr, 2, nullptr, 3, output.data()), KS_INVALID_ARGS);
  EXPECT_EQ(GetParam().run("k1", nullptr, 2, second.data(), 0, output.data()), KS_INVALID_ARGS);
  EXPECT_EQ(run("k1", 0, 0), KS_INVALID_ARGS);
  EXPECT_THAT(scripted::platform().log, IsEmpty());
}

TEST_P(Hash, TakesUpTo1024BytesInAll) {
  const std::pair<size_t, size_t> fitting[] = {{512, 512}, {1024, 0}, {0, 1024}, {1023, 1}};
  for (const auto &[first_len, second_len] : fitting) {
    mts.reply_with(reply(digest()));
    EXPECT_EQ(run("k1", first_len, second_len), KS_SUCCESS) << first_len << " and " << second_len;
  }
  EXPECT_EQ(mts.request(0).descriptor, bytes("06 0a  00 02 10 00  00 02 10 02"));

  const std::pair<size_t, size_t> excessive[] = {{1024, 1},      {1, 1024},  {1025, 0},
                                                 {65535, 65535}, {65535, 1}, {513, 512}};
  for (const auto &[first_len, second_len] : excessive) {
    EXPECT_EQ(run("k1", first_len, second_len), KS_INVALID_ARGS) << first_len << " and " << second_len;
  }
  EXPECT_EQ(mts.requests.size(), 4u);
  expect_leaked({kNameSize, kNameSize, kNameSize, kNameSize});
}

TEST_P(Hash, TakesNamesOf1To31BytesByTheirWholeLength) {
  mts.reply_with(reply(digest()));
  EXPECT_EQ(run(name_of(31).c_str(), 2, 3), KS_SUCCESS);
  EXPECT_EQ(mts.request().descriptor, bytes("23 0a  02 00 2d 00  03 00 2f 00"));
  EXPECT_EQ(mts.request().sections.at(0).content, bytes("30 00 00 07") + bytes_of(name_of(31)));

  for (const size_t len : {0u, 32u, 256u, 257u, 287u}) {
    EXPECT_EQ(run(name_of(len).c_str(), 2, 3), KS_INVALID_ARGS) << len;
  }
  EXPECT_EQ(run(nullptr, 2, 3), KS_INVALID_ARGS);
  EXPECT_EQ(mts.requests.size(), 1u);
  expect_leaked({35});
}

TEST_P(Hash, RefusesANullOutput) {
  EXPECT_EQ(GetParam().run("k1", first.data(), 2, second.data(), 3, nullptr), KS_INVALID_ARGS);
  EXPECT_THAT(scripted::platform().log, IsEmpty());
}

TEST_P(Hash, RefusesWithoutTouchingTheBuffers) {
  Forbidden one, two, out;
  EXPECT_EQ(GetParam().run("", one.data(), 2, two.data(), 3, out.data()), KS_INVALID_ARGS);
  EXPECT_EQ(GetParam().run("k1", one.data(), 0, two.data(), 0, out.data()), KS_INVALID_ARGS);
  EXPECT_EQ(GetParam().run("k1", one.data(), 1024, two.data(), 3, out.data()), KS_INVALID_ARGS);
  EXPECT_EQ(GetParam().run("k1", one.data(), 2, two.data(), 3, nullptr), KS_INVALID_ARGS);
}

TEST_P(Hash, ReportsADigestOfAnotherLengthAndLeavesTheOutput) {
  const bool md5 = GetParam().digest_len == 16;
  mts.reply_with(reply(Bytes(md5 ? 20 : 16, 0x5a)));
  EXPECT_EQ(run(), KS_FAILURE);

  EXPECT_THAT(output, Each(0xee));
  EXPECT_THAT(traces(true), ElementsAre(md5 ? "103:Invalid buffer len :16 output data len :20 \n"
                                            : "103:Invalid buffer len :20 output data len :16 \n"));
  expect_leaked({kNameSize});
}

TEST_P(Hash, PassesOnARefusalWhateverElseTheReplyHolds) {
  mts.reply_with(reply(digest(), KS_NOT_FOUND));
  EXPECT_EQ(run(), KS_NOT_FOUND);

  EXPECT_THAT(output, Each(0xee));
  EXPECT_THAT(traces(), IsEmpty());
  expect_leaked({kNameSize});
}

TEST_P(Hash, AnswersNoMemoryForTheList) {
  heap.fail_nth(1);
  EXPECT_EQ(run(), KS_NO_MEMORY);

  EXPECT_THAT(flow(), ElementsAre("calloc list[3]"));
}

class Md5Hash : public scripted::Test {};
class Sha1Hash : public scripted::Test {};

TEST_F(Md5Hash, GivesUpWithoutAName) {
  const uint8_t data[3] = {};
  uint8_t output[16];
  heap.fail_nth(2);
  EXPECT_EQ(ks_md5_hash("k1", data, 3, nullptr, 0, output), KS_NO_MEMORY);

  EXPECT_THAT(flow(), ElementsAre("calloc list[3]", "calloc 6", "free list[3]"));
}

// DIFFERS(sha1-sends-without-name)
TEST_F(Sha1Hash, SendsEmptySectionsWithoutAName) {
  const uint8_t data[3] = {};
  uint8_t output[20];
  heap.fail_nth(2);
  mts.reply_with(scripted::result_only(KS_INVALID_ARGS));
  EXPECT_EQ(ks_sha1_hash("k1", data, 3, data, 3, output), KS_INVALID_ARGS);

  EXPECT_EQ(mts.request().descriptor.size(), 10u);  // of whatever content
  ASSERT_EQ(mts.request().sections.size(), 3u);
  for (const auto &section : mts.request().sections) {
    EXPECT_EQ(section.data, nullptr);
    EXPECT_EQ(section.length, 0u);
  }
  EXPECT_THAT(flow(),
              ElementsAre("calloc list[3]", "calloc 6", "send", "recv", "free list[3]", "drop sent", "drop received"));
}

// DIFFERS(sha1-sends-without-name)
TEST_F(Sha1Hash, GivesWhatTheExchangeGivesWithoutAName) {
  const uint8_t data[3] = {};
  uint8_t output[20];
  heap.fail_nth(2);
  mts.reply_with(reply(Bytes(20, 0x5a)));
  EXPECT_EQ(ks_sha1_hash("k1", data, 3, data, 3, output), KS_SUCCESS);
  EXPECT_THAT(output, Each(0x5a));

  heap.fail_nth(2);
  mts.fail_send();
  EXPECT_EQ(ks_sha1_hash("k1", data, 3, data, 3, output), KS_FAILURE);
}

class HashReq : public scripted::Test {
 protected:
  HashReq() {
    unwrite(sections);
    unwrite(descriptor);
  }

  KsSection sections[3];
  KsHashDescriptor descriptor;
};

// DIFFERS(hash-exact-name)
TEST_F(HashReq, AllocatesTheLowBitsOfTheNamesLengthAndChecksNothing) {
  uint8_t byte = 0;
  EXPECT_EQ(ks_hash_md5_sha1_req(name_of(258).c_str(), nullptr, 65535, &byte, 2, sections, &descriptor), KS_SUCCESS);

  EXPECT_EQ(raw(descriptor), bytes("06 0a  ff ff 10 00  02 00 0f 00"));
  EXPECT_EQ(heap.content(sections[0].data, 6), bytes("30 00 00 07 6b 6b"));
  EXPECT_EQ(sections[0].length, 6u);
  EXPECT_EQ(sections[1].data, nullptr);
  EXPECT_EQ(sections[1].length, 65535u);
  EXPECT_EQ(sections[2].data, &byte);
  EXPECT_EQ(sections[2].length, 2u);
  heap.release(sections[0].data);
}

TEST_F(HashReq, WritesNothingWithoutMemory) {
  heap.fail_nth(1);
  EXPECT_EQ(ks_hash_md5_sha1_req("k1", nullptr, 1, nullptr, 1, sections, &descriptor), KS_NO_MEMORY);

  EXPECT_THAT(raw(descriptor), Each(0xa5));
  EXPECT_THAT(raw(sections), Each(0xa5));
}

TEST(HashResp, TakesNoNoticeOfThePayloadSize) {
  scripted::Guarded payload(reply(Bytes(3, 0x5a)));
  for (const uint16_t size : {uint16_t{0}, uint16_t{65535}}) {
    uint8_t output[3] = {};
    EXPECT_EQ(ks_hash_md5_sha1_resp(size, payload.data(), output, 3), KS_SUCCESS);
    EXPECT_THAT(output, Each(0x5a));
  }
}

}  // namespace
