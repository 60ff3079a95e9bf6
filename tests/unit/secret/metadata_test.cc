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

// --- sending

class AddMetadata : public scripted::Test {};

TEST_F(AddMetadata, SendsNameAndBlock) {
  Guarded block(bytes("e0 e1 e2"));
  mts.reply_with(result_only(KS_SUCCESS));
  EXPECT_EQ(ks_add_metadata("k1", block.data(), 3), KS_SUCCESS);

  EXPECT_EQ(mts.sent(), bytes("06 06 03 00 0c 00  30 00 00 07 6b 31  e0 e1 e2"));
  ASSERT_EQ(mts.request().sections.size(), 2u);
  EXPECT_EQ(mts.request().sections[1].data, block.data()) << "not copied";
  EXPECT_THAT(traces(), IsEmpty());
}

TEST_F(AddMetadata, SendsAnEmptyBlock) {
  mts.reply_with(result_only(KS_SUCCESS));
  EXPECT_EQ(ks_add_metadata("k1", bytes("e0").data(), 0), KS_SUCCESS);
  mts.reply_with(result_only(KS_SUCCESS));
  EXPECT_EQ(ks_add_metadata("k1", nullptr, 0), KS_SUCCESS);

  for (const size_t index : {0u, 1u}) {
    EXPECT_EQ(mts.sent(index), bytes("06 06 00 00 0c 00  30 00 00 07 6b 31"));
    EXPECT_EQ(mts.request(index).sections.at(1).length, 0u);
  }
}

// DIFFERS(add-metadata-limit)
TEST_F(AddMetadata, AcceptsABlockOf1024BytesAndNoMore) {
  const Bytes block(1025, 0x5a);
  mts.reply_with(result_only(KS_SUCCESS));
  EXPECT_EQ(ks_add_metadata(std::string(31, 'n').c_str(), block.data(), 1024), KS_SUCCESS);
  EXPECT_EQ(mts.request().descriptor, bytes("23 06 00 04 29 00"));

  EXPECT_EQ(ks_add_metadata("k1", block.data(), 1025), KS_INVALID_ARGS);
  EXPECT_THAT(traces(true), ElementsAre("103:Invalid Arguments \n"));
}

// DIFFERS(add-metadata-null-name)
TEST_F(AddMetadata, RefusesANullNameSilently) {
  EXPECT_EQ(ks_add_metadata(nullptr, bytes("e0").data(), 2000), KS_INVALID_ARGS);

  EXPECT_THAT(scripted::platform().log, IsEmpty());
}

TEST_F(AddMetadata, RefusesAnEmptyOrLongNameWithAReport) {
  EXPECT_EQ(ks_add_metadata("", bytes("e0").data(), 1), KS_INVALID_ARGS);
  EXPECT_EQ(ks_add_metadata(std::string(32, 'n').c_str(), bytes("e0").data(), 1), KS_INVALID_ARGS);

  EXPECT_THAT(scripted::platform().log, ElementsAre("report Invalid Arguments \n", "report Invalid Arguments \n"));
}

TEST_F(AddMetadata, ReportsAnUnexpectedSizeAndStillReadsTheResult) {
  mts.reply_with(result_only(KS_NOT_FOUND) + bytes("00 00 00 00"));
  EXPECT_EQ(ks_add_metadata("k1", nullptr, 0), KS_NOT_FOUND);
  EXPECT_THAT(traces(true), ElementsAre("103:Invalid Payload Size :8 \n"));

  mts.reply_with(result_only(KS_SUCCESS), 0x10004);
  EXPECT_EQ(ks_add_metadata("k1", nullptr, 0), KS_SUCCESS) << "16 bits of the size count";
  EXPECT_EQ(traces().size(), 1u);
}

TEST_F(AddMetadata, ReportsTheListItCantAllocateButNotTheName) {
  heap.fail_nth(2);
  EXPECT_EQ(ks_add_metadata("k1", nullptr, 0), KS_NO_MEMORY);
  EXPECT_THAT(traces(), IsEmpty());
  EXPECT_THAT(flow(), ElementsAre("calloc list[2]", "calloc 35", "free list[2]"));

  heap.fail_nth(1);
  EXPECT_EQ(ks_add_metadata("k1", nullptr, 0), KS_NO_MEMORY);
  EXPECT_THAT(traces(true), ElementsAre("103:Memory Allocation Failed \n"));
}

TEST(AddMetadataReq, FillsBothOutputsAndLeavesTheNameToItsCaller) {
  scripted::platform().heap.reset();
  vdc_id = 0x0102;
  KsSection sections[2] = {};
  KsNameDataDescriptor descriptor;
  const Bytes block = bytes("e0 e1");
  EXPECT_EQ(ks_add_metadata_req("k", block.data(), 2, sections, &descriptor), KS_SUCCESS);

  EXPECT_EQ(memcmp(&descriptor, bytes("05 06 02 00 0b 00").data(), 6), 0);
  EXPECT_EQ(sections[0].length, 5u);
  EXPECT_EQ(scripted::platform().heap.content(sections[0].data, 35), bytes("30 00 01 02 6b") + Bytes(30, 0));
  EXPECT_EQ(sections[1].data, block.data());
  EXPECT_EQ(sections[1].length, 2u);
  scripted::platform().heap.reset();
}

TEST(AddMetadataResp, ReturnsTheFirstWordWhateverTheSize) {
  Guarded payload(result_only(KS_RPC_TOO_LARGE));
  EXPECT_EQ(ks_add_metadata_resp(0, payload.data()), KS_RPC_TOO_LARGE);
}

// --- fetching

class ReturnMetadata : public scripted::Test {
 protected:
  KsResult fetch(const char *name = "k1") { return ks_return_metadata(name, &metadata, &metadata_len); }

  uint8_t byte = 0xee;
  uint8_t *const untouched = &byte;
  uint8_t *metadata = untouched;
  uint16_t metadata_len = 0xeeee;
};

TEST_F(ReturnMetadata, SendsTheNameAndHandsOutTheBlock) {
  mts.reply_with(reply(bytes("e0 e1 e2")));
  EXPECT_EQ(fetch(), KS_SUCCESS);

  EXPECT_EQ(mts.sent(), bytes("06 02  30 00 00 07 6b 31"));
  EXPECT_EQ(metadata_len, 3);
  EXPECT_EQ(heap.content(metadata, 3), bytes("e0 e1 e2"));
  EXPECT_THAT(flow(), ElementsAre("calloc list[1]", "calloc 35", "send", "recv", "calloc 3", "free 35", "free list[1]",
                                  "drop sent", "drop received"));
  EXPECT_THAT(traces(), IsEmpty());
  heap.release(metadata);
}

TEST_F(ReturnMetadata, HandsOutAnEmptyBlockToBeFreed) {
  mts.reply_with(reply({}));
  EXPECT_EQ(fetch(), KS_SUCCESS);

  EXPECT_EQ(metadata_len, 0);
  EXPECT_NE(metadata, nullptr);
  EXPECT_NE(metadata, untouched);
  heap.release(metadata);
}

TEST_F(ReturnMetadata, HandsOutTheLargestBlock) {
  mts.reply_with(reply(Bytes(65535, 0x5a)));
  EXPECT_EQ(fetch(), KS_SUCCESS);

  EXPECT_EQ(metadata_len, 65535);
  EXPECT_EQ(heap.content(metadata, 65535), Bytes(65535, 0x5a));
  heap.release(metadata);
}

TEST_F(ReturnMetadata, RefusesBadArgumentsWithAReport) {
  EXPECT_EQ(fetch(nullptr), KS_INVALID_ARGS);
  EXPECT_EQ(fetch(""), KS_INVALID_ARGS);
  EXPECT_EQ(fetch(std::string(32, 'n').c_str()), KS_INVALID_ARGS);
  EXPECT_EQ(ks_return_metadata("k1", nullptr, &metadata_len), KS_INVALID_ARGS);

  EXPECT_THAT(scripted::platform().log, testing::Each("report Invalid Arguments \n"));
  EXPECT_EQ(traces().size(), 4u);
}

TEST_F(ReturnMetadata, PassesOnARefusalAndLeavesBothOutputs) {
  mts.reply_with(result_only(KS_NOT_FOUND));
  EXPECT_EQ(fetch(), KS_NOT_FOUND);

  EXPECT_EQ(metadata, untouched);
  EXPECT_EQ(metadata_len, 0xeeee);
}

TEST_F(ReturnMetadata, NullsTheBlockItCantAllocate) {
  mts.reply_with(reply(bytes("e0 e1 e2")));
  heap.fail_nth(3);
  EXPECT_EQ(fetch(), KS_NO_MEMORY);

  EXPECT_EQ(metadata, nullptr);
  EXPECT_EQ(metadata_len, 0xeeee);
}

TEST_F(ReturnMetadata, ReportsTheListItCantAllocateButNotTheName) {
  heap.fail_nth(2);
  EXPECT_EQ(fetch(), KS_NO_MEMORY);
  EXPECT_THAT(traces(), IsEmpty());

  heap.fail_nth(1);
  EXPECT_EQ(fetch(), KS_NO_MEMORY);
  EXPECT_THAT(traces(true), ElementsAre("103:Memory Allocation failed \n"));
  EXPECT_EQ(metadata, untouched);
}

// DIFFERS(return-metadata-late-drop)
TEST_F(ReturnMetadata, DropsTheSentMessageAfterItsBuffersWhenNoReplyComes) {
  mts.fail_recv(17);
  EXPECT_EQ(fetch(), KS_FAILURE);

  EXPECT_THAT(flow(),
              ElementsAre("calloc list[1]", "calloc 35", "send", "recv", "free 35", "free list[1]", "drop sent"));
  EXPECT_THAT(traces(), ElementsAre("mts_recv failed. Error:17 \n"));
}

using ReturnMetadataDeathTest = ReturnMetadata;

// DIFFERS(return-metadata-null-length)
TEST_F(ReturnMetadataDeathTest, FaultsOnANullLengthWhenTheReplySucceeds) {
  mts.reply_with(result_only(KS_NOT_FOUND));
  EXPECT_EQ(ks_return_metadata("k1", &metadata, nullptr), KS_NOT_FOUND);

  mts.reply_with(reply(bytes("e0")));
  EXPECT_DEATH(ks_return_metadata("k1", &metadata, nullptr), "");
  mts.script.clear();  // answered in the child
}

TEST(ReturnMetadataReq, FillsBothOutputs) {
  scripted::platform().heap.reset();
  vdc_id = 7;
  KsSection section = {};
  KsNameDescriptor descriptor;
  EXPECT_EQ(ks_return_metadata_req("k1", &section, &descriptor), KS_SUCCESS);

  EXPECT_EQ(descriptor.name_len, 6);
  EXPECT_EQ(descriptor.name_offset, 2);
  EXPECT_EQ(section.length, 6u);
  EXPECT_EQ(scripted::platform().heap.content(section.data, 35), bytes("30 00 00 07 6b 31") + Bytes(29, 0));
  scripted::platform().heap.reset();
}

TEST(ReturnMetadataReq, HoldsALongerNameInABufferOfItsLength) {
  scripted::platform().heap.reset();
  KsSection section = {};
  KsNameDescriptor descriptor;
  EXPECT_EQ(ks_return_metadata_req(std::string(300, 'n').c_str(), &section, &descriptor), KS_SUCCESS);

  EXPECT_EQ(descriptor.name_len, 48) << "the length in 8 bits";
  EXPECT_EQ(scripted::platform().heap.live(), std::vector<size_t>{304});
  scripted::platform().heap.reset();
}

}  // namespace
