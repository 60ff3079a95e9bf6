// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "scripted.h"

namespace {

using scripted::Bytes;
using scripted::bytes;
using scripted::Guarded;
using scripted::operator+;
using scripted::result_only;
using testing::ElementsAre;
using testing::IsEmpty;

class RenameSecret : public scripted::Test {};

TEST_F(RenameSecret, SendsBothNames) {
  mts.reply_with(result_only(KS_SUCCESS));
  EXPECT_EQ(ks_rename_secret("old", "newer", nullptr), KS_SUCCESS);

  EXPECT_EQ(mts.request().op, 66568u);
  EXPECT_EQ(mts.sent(), bytes("07 06 09 0d 00 00  30 00 00 07 6f 6c 64  30 00 00 07 6e 65 77 65 72"));
  EXPECT_EQ(mts.request().sections.size(), 2u);
  EXPECT_THAT(flow(), ElementsAre("calloc list[2]", "calloc 35", "calloc 35", "send", "recv", "free 35", "free 35",
                                  "free list[2]", "drop sent", "drop received"));
  EXPECT_THAT(traces(), IsEmpty());
}

// DIFFERS(rename-linked-name)
TEST_F(RenameSecret, SendsOneByteOfALinkedName) {
  mts.reply_with(result_only(KS_SUCCESS));
  EXPECT_EQ(ks_rename_secret("old", "newer", "0123456789"), KS_SUCCESS);

  EXPECT_EQ(mts.request().descriptor, bytes("07 06 09 0d 01 16"));
  ASSERT_EQ(mts.request().sections.size(), 3u);
  EXPECT_EQ(mts.request().sections[2].content, bytes("30"));
  EXPECT_THAT(flow(), ElementsAre("calloc list[3]", "calloc 35", "calloc 35", "calloc 14", "send", "recv", "free 35",
                                  "free 35", "free 14", "free list[3]", "drop sent", "drop received"));
}

// DIFFERS(rename-linked-name)
TEST_F(RenameSecret, PutsNoBoundOnALinkedName) {
  mts.reply_with(result_only(KS_SUCCESS));
  EXPECT_EQ(ks_rename_secret("a", "b", std::string(3000, 'l').c_str()), KS_SUCCESS);

  EXPECT_EQ(mts.request().descriptor, bytes("05 06 05 0b 01 10"));
  EXPECT_THAT(events({"calloc"}), ElementsAre("calloc list[3]", "calloc 35", "calloc 35", "calloc 3004"));
}

TEST_F(RenameSecret, SendsANullEntryForAnEmptyLinkedName) {
  mts.reply_with(result_only(KS_SUCCESS));
  EXPECT_EQ(ks_rename_secret("old", "newer", ""), KS_SUCCESS);

  EXPECT_EQ(mts.request().descriptor, bytes("07 06 09 0d 00 00"));
  ASSERT_EQ(mts.request().sections.size(), 3u);
  EXPECT_EQ(mts.request().sections[2].data, nullptr);
  EXPECT_EQ(mts.request().sections[2].length, 0u);
  EXPECT_THAT(flow(), ElementsAre("calloc list[3]", "calloc 35", "calloc 35", "send", "recv", "free 35", "free 35",
                                  "free list[3]", "drop sent", "drop received"));
}

TEST_F(RenameSecret, AnswersEqualNamesAtOnce) {
  EXPECT_EQ(ks_rename_secret("same", "same", nullptr), KS_SUCCESS);
  EXPECT_EQ(ks_rename_secret("same", "same", "linked"), KS_SUCCESS);

  EXPECT_THAT(scripted::platform().log, IsEmpty());
}

TEST_F(RenameSecret, SendsNamesThatDifferInCaseOrLengthOnly) {
  for (const char *name : {"Same", "sam", "same1", "samf"}) {
    mts.reply_with(result_only(KS_NOT_FOUND));
    EXPECT_EQ(ks_rename_secret("same", name, nullptr), KS_NOT_FOUND);
  }
  EXPECT_EQ(mts.requests.size(), 4u);
}

TEST_F(RenameSecret, RefusesABadNameInEitherPlaceSilently) {
  const std::string longer(32, 'n');
  for (const char *bad : {static_cast<const char *>(nullptr), "", longer.c_str()}) {
    EXPECT_EQ(ks_rename_secret(bad, "b", nullptr), KS_INVALID_ARGS);
    EXPECT_EQ(ks_rename_secret("a", bad, nullptr), KS_INVALID_ARGS);
    EXPECT_EQ(ks_rename_secret(bad, bad, nullptr), KS_INVALID_ARGS);
  }
  EXPECT_THAT(scripted::platform().log, IsEmpty());
}

TEST_F(RenameSecret, AcceptsNamesOf31Bytes) {
  mts.reply_with(result_only(KS_SUCCESS));
  EXPECT_EQ(ks_rename_secret(std::string(31, 'o').c_str(), std::string(31, 'n').c_str(), "l"), KS_SUCCESS);

  EXPECT_EQ(mts.sent(), bytes("23 06 23 29 01 4c  30 00 00 07") + Bytes(31, 'o') + bytes("30 00 00 07") +
                            Bytes(31, 'n') + bytes("30"));
}

// DIFFERS(rename-no-size)
TEST_F(RenameSecret, NeverAsksForTheReplysSize) {
  mts.reply_with(result_only(KS_NOT_FOUND));
  EXPECT_EQ(ks_rename_secret("a", "b", nullptr), KS_NOT_FOUND);

  EXPECT_EQ(mts.size_calls, 0);
}

// DIFFERS(rename-no-list)
TEST_F(RenameSecret, AnswersAMissingListWithFailure) {
  heap.fail_nth(1);
  EXPECT_EQ(ks_rename_secret("a", "b", nullptr), KS_FAILURE);

  EXPECT_THAT(scripted::platform().log, ElementsAre("calloc list[2]", "report Memory Allocation failed \n"));
}

// DIFFERS(rename-without-names)
TEST_F(RenameSecret, SendsAnEmptyListWhenANameCantBeAllocated) {
  const std::vector<std::vector<std::string>> until_sent = {
      {"calloc list[3]", "calloc 35"},
      {"calloc list[3]", "calloc 35", "calloc 35", "free 35"},
      {"calloc list[3]", "calloc 35", "calloc 35", "calloc 5", "free 35", "free 35"}};
  for (size_t i = 0; i < until_sent.size(); ++i) {
    scripted::platform().log.clear();
    mts.requests.clear();
    mts.reply_with(result_only(KS_BAD_FRAGMENT_SIZE));
    heap.fail_nth(static_cast<int>(i) + 2);
    EXPECT_EQ(ks_rename_secret("a", "b", "l"), KS_BAD_FRAGMENT_SIZE);

    std::vector<std::string> all = until_sent[i];
    for (const char *event : {"send", "recv", "free list[3]", "drop sent", "drop received"}) all.emplace_back(event);
    EXPECT_EQ(flow(), all);
    EXPECT_EQ(mts.request().descriptor.size(), 6u);
    ASSERT_EQ(mts.request().sections.size(), 3u);
    for (const auto &section : mts.request().sections) {
      EXPECT_EQ(section.data, nullptr);
      EXPECT_EQ(section.length, 0u);
    }
  }
  EXPECT_THAT(traces(), IsEmpty());
}

// DIFFERS(rename-without-names)
TEST_F(RenameSecret, SendsAnEmptyListOfTwoWithoutALinkedName) {
  mts.reply_with(result_only(KS_SUCCESS));
  heap.fail_from(2);
  EXPECT_EQ(ks_rename_secret("a", "b", nullptr), KS_SUCCESS);

  EXPECT_EQ(mts.request().sections.size(), 2u);
}

TEST_F(RenameSecret, ReleasesAllNamesWhenTheExchangeFails) {
  mts.fail_send(17);
  EXPECT_EQ(ks_rename_secret("a", "b", "l"), KS_FAILURE);
  mts.fail_recv(17);
  EXPECT_EQ(ks_rename_secret("a", "b", "l"), KS_FAILURE);

  EXPECT_THAT(traces(), ElementsAre("mts_send failed. Error:17\n", "mts_recv failed. Error:17\n"));
}

class RenameSecretReq : public scripted::Test {
 protected:
  RenameSecretReq() { memset(&descriptor, 0xa5, sizeof descriptor); }
  KsResult build() { return ks_rename_secret_req("old", "newer", &linked_name, sections, &descriptor); }
  Bytes written() const {
    const auto *raw = reinterpret_cast<const uint8_t *>(&descriptor);
    return Bytes(raw, raw + sizeof descriptor);
  }
  const char *linked_name = nullptr;
  KsSection sections[3] = {};
  KsRenameDescriptor descriptor;
};

TEST_F(RenameSecretReq, ReplacesTheLinkedNameByItsBuffer) {
  linked_name = "link";
  EXPECT_EQ(build(), KS_SUCCESS);

  EXPECT_EQ(written(), bytes("07 06 09 0d 01 16"));
  EXPECT_EQ(linked_name, sections[2].data);
  EXPECT_EQ(heap.content(linked_name, 8), bytes("30 00 00 07 6c 69 6e 6b"));
  EXPECT_EQ(heap.content(sections[0].data, 35), bytes("30 00 00 07 6f 6c 64") + Bytes(28, 0));
  EXPECT_EQ(heap.content(sections[1].data, 35), bytes("30 00 00 07 6e 65 77 65 72") + Bytes(26, 0));
  EXPECT_EQ(sections[2].length, 1u);
  for (const KsSection &section : sections) heap.release(section.data);
}

TEST_F(RenameSecretReq, LeavesANullOrEmptyLinkedNameAlone) {
  for (const char *none : {static_cast<const char *>(nullptr), ""}) {
    linked_name = none;
    EXPECT_EQ(build(), KS_SUCCESS);

    EXPECT_EQ(written(), bytes("07 06 09 0d 00 00"));
    EXPECT_EQ(linked_name, none);
    EXPECT_EQ(sections[2].data, nullptr);
    heap.release(sections[0].data);
    heap.release(sections[1].data);
  }
}

TEST_F(RenameSecretReq, StopsAndWritesNothingWithoutMemory) {
  linked_name = "link";
  const char *given = linked_name;
  for (const int nth : {1, 2, 3}) {
    heap.fail_nth(nth);
    EXPECT_EQ(build(), KS_NO_MEMORY);
    EXPECT_THAT(heap.live(), IsEmpty());
  }
  EXPECT_EQ(linked_name, given);
  EXPECT_EQ(written(), Bytes(6, 0xa5));
  EXPECT_EQ(sections[0].data, nullptr);
}

TEST(RenameSecretResp, ReturnsTheFirstWord) {
  Guarded payload(result_only(KS_NOT_FOUND));
  EXPECT_EQ(ks_rename_secret_resp(payload.data()), KS_NOT_FOUND);
}

}  // namespace
