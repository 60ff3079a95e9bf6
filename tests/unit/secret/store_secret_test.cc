// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "scripted.h"

namespace {

using scripted::Bytes;
using scripted::bytes;
using scripted::bytes_of;
using scripted::Guarded;
using scripted::operator+;
using scripted::result_only;
using testing::ElementsAre;
using testing::IsEmpty;

class StoreSecret : public scripted::Test {
 protected:
  KsResult store(const char *name, const char *linked_name = nullptr) {
    return ks_store_secret_and_metadata(name, linked_name, secret.data(), 3, nullptr, 0);
  }
  Guarded secret{bytes("0a 00 0c")};
};

TEST_F(StoreSecret, SendsNameAndSecret) {
  mts.reply_with(result_only(KS_SUCCESS));
  EXPECT_EQ(store("k1"), KS_SUCCESS);

  EXPECT_EQ(mts.sent(), bytes("06 0c 00 12 03 00 12 00 00 00 15 00  30 00 00 07 6b 31  0a 00 0c"));
  ASSERT_EQ(mts.request().sections.size(), 2u);
  EXPECT_EQ(mts.request().sections[1].data, secret.data()) << "not copied";
  EXPECT_EQ(mts.request().descriptor.size(), 12u);
}

TEST_F(StoreSecret, SendsLinkedNameAndMetadata) {
  Guarded metadata(bytes("e0 e1"));
  mts.reply_with(result_only(KS_SUCCESS));
  EXPECT_EQ(ks_store_secret_and_metadata("k1", "alias", secret.data(), 3, metadata.data(), 2), KS_SUCCESS);

  EXPECT_EQ(mts.sent(), bytes("06 0c 09 12 03 00 1b 00 02 00 1e 00  30 00 00 07 6b 31  30 00 00 07 61 6c 69 61 73"
                              "0a 00 0c  e0 e1"));
  ASSERT_EQ(mts.request().sections.size(), 4u);
  EXPECT_EQ(mts.request().sections[3].data, metadata.data()) << "not copied";
  EXPECT_THAT(flow(), ElementsAre("calloc list[4]", "calloc 35", "calloc 35", "send", "recv", "free 35", "free 35",
                                  "free list[4]", "drop sent", "drop received"));
}

TEST_F(StoreSecret, SendsMetadataWithoutALinkedName) {
  mts.reply_with(result_only(KS_SUCCESS));
  EXPECT_EQ(ks_store_secret_and_metadata("k1", nullptr, secret.data(), 3, bytes("e0").data(), 1), KS_SUCCESS);

  EXPECT_EQ(mts.sent(), bytes("06 0c 00 12 03 00 12 00 01 00 15 00  30 00 00 07 6b 31  0a 00 0c  e0"));
  EXPECT_THAT(flow(), ElementsAre("calloc list[3]", "calloc 35", "calloc 35", "free 35", "send", "recv", "free 35",
                                  "free list[3]", "drop sent", "drop received"));
}

TEST_F(StoreSecret, SendsAnEmptySectionForMetadataOfNoLength) {
  mts.reply_with(result_only(KS_SUCCESS));
  EXPECT_EQ(ks_store_secret_and_metadata("k1", nullptr, secret.data(), 3, secret.data(), 0), KS_SUCCESS);

  ASSERT_EQ(mts.request().sections.size(), 3u);
  EXPECT_EQ(mts.request().sections[2].data, secret.data());
  EXPECT_EQ(mts.request().sections[2].length, 0u);
  EXPECT_EQ(mts.request().descriptor, bytes("06 0c 00 12 03 00 12 00 00 00 15 00"));
}

TEST_F(StoreSecret, TakesNoNoticeOfALengthWithoutMetadata) {
  mts.reply_with(result_only(KS_SUCCESS));
  EXPECT_EQ(ks_store_secret_and_metadata("k1", nullptr, secret.data(), 3, nullptr, 77), KS_SUCCESS);

  EXPECT_EQ(mts.request().descriptor, bytes("06 0c 00 12 03 00 12 00 00 00 15 00"));
  EXPECT_EQ(mts.request().sections.size(), 2u);
}

// DIFFERS(add-metadata-limit)
TEST_F(StoreSecret, PutsNoLimitOnMetadata) {
  const Bytes metadata(65535, 0x5a);
  mts.reply_with(result_only(KS_SUCCESS));
  EXPECT_EQ(ks_store_secret_and_metadata("k1", nullptr, secret.data(), 3, metadata.data(), 65535), KS_SUCCESS);

  EXPECT_EQ(mts.request().descriptor, bytes("06 0c 00 12 03 00 12 00 ff ff 15 00"));
  EXPECT_EQ(mts.request().sections[2].length, 65535u);
}

TEST_F(StoreSecret, AcceptsNamesOf31Bytes) {
  mts.reply_with(result_only(KS_SUCCESS));
  EXPECT_EQ(store(std::string(31, 'n').c_str(), std::string(31, 'l').c_str()), KS_SUCCESS);

  EXPECT_EQ(mts.sent(), bytes("23 0c 23 2f 03 00 52 00 00 00 55 00  30 00 00 07") + Bytes(31, 'n') +
                            bytes("30 00 00 07") + Bytes(31, 'l') + bytes("0a 00 0c"));
}

TEST_F(StoreSecret, AcceptsASecretOf256Bytes) {
  const Bytes longest(257, 0x5a);
  mts.reply_with(result_only(KS_SUCCESS));
  EXPECT_EQ(ks_store_secret_and_metadata("k1", nullptr, longest.data(), 256, nullptr, 0), KS_SUCCESS);

  EXPECT_EQ(mts.request().descriptor, bytes("06 0c 00 12 00 01 12 00 00 00 12 01"));
}

TEST_F(StoreSecret, RefusesBadArgumentsSilently) {
  const Bytes longest(257, 0x5a);
  EXPECT_EQ(store(nullptr), KS_INVALID_ARGS);
  EXPECT_EQ(store(""), KS_INVALID_ARGS);
  EXPECT_EQ(store(std::string(32, 'n').c_str()), KS_INVALID_ARGS);
  EXPECT_EQ(store(std::string(257, 'n').c_str()), KS_INVALID_ARGS);
  EXPECT_EQ(ks_store_secret_and_metadata("k1", nullptr, nullptr, 3, nullptr, 0), KS_INVALID_ARGS);
  EXPECT_EQ(ks_store_secret_and_metadata("k1", nullptr, longest.data(), 0, nullptr, 0), KS_INVALID_ARGS);
  EXPECT_EQ(ks_store_secret_and_metadata("k1", nullptr, longest.data(), 257, nullptr, 0), KS_INVALID_ARGS);

  EXPECT_THAT(scripted::platform().log, IsEmpty());
}

// DIFFERS(store-linked-name-code)
TEST_F(StoreSecret, AnswersALinkedNameThatIsTooLongLikeMissingMemory) {
  EXPECT_EQ(store("k1", std::string(32, 'l').c_str()), KS_NO_MEMORY);

  EXPECT_THAT(scripted::platform().log,
              ElementsAre("calloc list[3]", "calloc 35", "calloc 35", "free 35", "free 35", "free list[3]"));
}

TEST_F(StoreSecret, PassesOnTheServicesAnswerAndReportsIt) {
  mts.reply_with(result_only(KS_SUCCESS));
  EXPECT_EQ(store("k1"), KS_SUCCESS);
  mts.reply_with(result_only(KS_STORE_FULL));
  EXPECT_EQ(store("k1"), KS_STORE_FULL);
  mts.reply_with(result_only(KS_NOT_REGISTERED));
  EXPECT_EQ(store("k1"), KS_NOT_REGISTERED);

  EXPECT_THAT(traces(true), ElementsAre("103:Store secret success\n", "103:Store secret failed :7\n",
                                        "103:Store secret failed :0\n"));
}

TEST_F(StoreSecret, AsksForTheReplysSizeAndDoesNotLookAtIt) {
  mts.reply_with(scripted::reply(bytes("01 02 03")), 99);
  EXPECT_EQ(store("k1"), KS_SUCCESS);

  EXPECT_EQ(mts.size_calls, 1);
  EXPECT_THAT(traces(), ElementsAre("Store secret success\n"));
}

TEST_F(StoreSecret, ReportsTheListItCantAllocateAndNothingElse) {
  heap.fail_nth(1);
  EXPECT_EQ(store("k1"), KS_NO_MEMORY);
  EXPECT_THAT(traces(true), ElementsAre("103:Memory Allocation Failed\n"));

  for (const int nth : {2, 3}) {
    heap.fail_nth(nth);
    EXPECT_EQ(store("k1", "alias"), KS_NO_MEMORY);
  }
  EXPECT_EQ(traces().size(), 1u);
  EXPECT_THAT(mts.requests, IsEmpty());
}

// DIFFERS(store-secret-silent-receive)
TEST_F(StoreSecret, ReportsAFailedSendButNotAFailedReceive) {
  mts.fail_recv(17);
  EXPECT_EQ(store("k1"), KS_FAILURE);
  EXPECT_THAT(traces(), IsEmpty());
  EXPECT_EQ(mts.errno_calls, 0);

  mts.fail_send(17);
  EXPECT_EQ(store("k1"), KS_FAILURE);
  EXPECT_THAT(traces(true), ElementsAre("103:mts_send failed :17 \n"));
}

// A secret that the library is to take over.
class StoreWithEmptyLinkedName : public scripted::Test {
 protected:
  uint8_t *secret = static_cast<uint8_t *>(heap.adopt(bytes("0a 00 0c")));
  KsResult store(const uint8_t *metadata = nullptr) {
    return ks_store_secret_and_metadata("k1", "", secret, 3, metadata, 0);
  }
};

// DIFFERS(store-empty-linked-name)
TEST_F(StoreWithEmptyLinkedName, SendsANullEntryAtTheEndAndFreesTheSecret) {
  mts.reply_with(result_only(KS_SUCCESS));
  EXPECT_EQ(store(), KS_SUCCESS);

  const auto &sections = mts.request().sections;
  ASSERT_EQ(sections.size(), 3u);
  EXPECT_EQ(sections[1].data, secret);
  EXPECT_EQ(sections[2].data, nullptr);
  EXPECT_EQ(sections[2].length, 0u);
  EXPECT_EQ(mts.sent(), bytes("06 0c 00 12 03 00 12 00 00 00 15 00  30 00 00 07 6b 31  0a 00 0c"));
  EXPECT_THAT(flow(), ElementsAre("calloc list[3]", "calloc 35", "calloc 35", "free 35", "send", "recv", "free 35",
                                  "free 3", "free list[3]", "drop sent", "drop received"));
}

// DIFFERS(store-empty-linked-name)
TEST_F(StoreWithEmptyLinkedName, KeepsTheSecretInFrontOfMetadataAndFreesItAllTheSame) {
  mts.reply_with(result_only(KS_SUCCESS));
  EXPECT_EQ(store(bytes("e0").data()), KS_SUCCESS);

  const auto &sections = mts.request().sections;
  ASSERT_EQ(sections.size(), 4u);
  EXPECT_EQ(sections[1].data, secret);
  EXPECT_EQ(sections[3].data, nullptr);
  EXPECT_THAT(heap.live(), IsEmpty());
}

// DIFFERS(store-empty-linked-name)
TEST_F(StoreWithEmptyLinkedName, FreesTheSecretWhenTheExchangeFails) {
  mts.fail_send();
  EXPECT_EQ(store(), KS_FAILURE);
  EXPECT_THAT(flow(), ElementsAre("calloc list[3]", "calloc 35", "calloc 35", "free 35", "send", "free 35", "free 3",
                                  "free list[3]"));

  secret = static_cast<uint8_t *>(heap.adopt(bytes("0a 00 0c")));
  mts.fail_recv();
  EXPECT_EQ(store(), KS_FAILURE);
  EXPECT_THAT(heap.live(), IsEmpty());
}

TEST_F(StoreWithEmptyLinkedName, LeavesTheSecretWhenNothingCouldBeBuilt) {
  for (const int nth : {1, 2, 3}) {
    heap.fail_nth(nth);
    EXPECT_EQ(store(), KS_NO_MEMORY);
  }
  expect_leaked({3});  // the secret, still the caller's
}

class StoreSecretReq : public scripted::Test {
 protected:
  StoreSecretReq() { memset(&descriptor, 0xa5, sizeof descriptor); }
  KsResult build(const char *linked_name) {
    return ks_store_secret_and_metadata_req("k1", linked_name, bytes("0a").data(), 1, nullptr, 0, sections,
                                            &descriptor);
  }
  Bytes written() const {
    const auto *raw = reinterpret_cast<const uint8_t *>(&descriptor);
    return Bytes(raw, raw + sizeof descriptor);
  }
  KsSection sections[4] = {};
  KsStoreDescriptor descriptor;
};

TEST_F(StoreSecretReq, LeavesTheNamesToItsCaller) {
  EXPECT_EQ(build("al"), KS_SUCCESS);

  EXPECT_EQ(written(), bytes("06 0c 06 12 01 00 18 00 00 00 19 00"));
  EXPECT_EQ(heap.content(sections[0].data, 35), bytes("30 00 00 07 6b 31") + Bytes(29, 0));
  EXPECT_EQ(heap.content(sections[1].data, 35), bytes("30 00 00 07 61 6c") + Bytes(29, 0));
  heap.release(sections[0].data);
  heap.release(sections[1].data);
}

TEST_F(StoreSecretReq, RefusesALinkedNameThatIsTooLongAndWritesNothing) {
  EXPECT_EQ(build(std::string(32, 'l').c_str()), KS_INVALID_ARGS);

  EXPECT_EQ(written(), Bytes(12, 0xa5));
  EXPECT_EQ(sections[0].data, nullptr);
  EXPECT_THAT(heap.live(), IsEmpty());
}

TEST_F(StoreSecretReq, FreesWhatItHasWhenANameCantBeAllocated) {
  for (const int nth : {1, 2}) {
    heap.fail_nth(nth);
    EXPECT_EQ(build("al"), KS_NO_MEMORY);
    EXPECT_THAT(heap.live(), IsEmpty());
  }
  EXPECT_EQ(written(), Bytes(12, 0xa5));
}

TEST(StoreSecretResp, ReturnsTheFirstWordWhateverTheSize) {
  Guarded payload(result_only(KS_FW_BAD_CELL));
  EXPECT_EQ(ks_store_secret_and_metadata_resp(0, payload.data()), KS_FW_BAD_CELL);
}

}  // namespace
