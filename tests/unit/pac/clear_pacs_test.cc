// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "pac_fixture.h"

namespace {

using pac::Bytes;
using pac::bytes;
using pac::Flow;
using pac::kOpaque;
using pac::operator+;
using scripted::Answer;
using scripted::reply;
using scripted::Request;
using scripted::result_only;
using testing::ElementsAre;
using testing::IsEmpty;

const Bytes kToKeep = kOpaque + bytes("00 09 00 07  00 05 00 03 62 6f 62");
const Bytes kToGo = kOpaque + bytes("00 09 00 07  00 05 00 03 61 6c 66");
const size_t kName = 35;

// Table is the service's: entries by position, of which clearing leaves a gap or closes it.
class ClearPacs : public pac::Test {
 protected:
  struct Entry {
    Bytes name;
    Bytes metadata;
    bool gone = false;
  };

  ClearPacs() {
    mts.answer = [this](const Request &request) { return Answer{.payload = serve(request)}; };
  }

  void add(const char *wire_name, const Bytes &metadata = {}) { table.push_back({bytes(wire_name), metadata}); }

  Bytes serve(const Request &request) {
    if (request.op == 66566) {
      const size_t position = request.descriptor[0] + request.descriptor[1] * size_t{256};
      if (position >= table.size()) return result_only(KS_NO_MORE_ENTRIES);
      visited.push_back(position);
      return reply(table[position].gone ? bytes("00 00 ff ff") : table[position].name);
    }
    for (size_t i = 0; i < table.size(); ++i) {
      if (table[i].gone || table[i].name != request.sections.at(0).content) continue;
      if (request.op == 66567) {
        described.push_back(table[i].name.back());
        return reply(table[i].metadata);
      }
      if (clear_result != KS_SUCCESS) return result_only(clear_result);
      cleared.push_back(table[i].name.back());
      if (closes_up) {
        table.erase(table.begin() + static_cast<long>(i));
      } else {
        table[i].gone = true;
      }
      return bytes("01 00 00 00 00 00");
    }
    return result_only(KS_NOT_FOUND);
  }

  // Each PAC whose metadata was read costs two messages and a name.
  void expect_kept(int pacs) {
    expect_undropped(2 * pacs);
    expect_leaked(std::vector<size_t>(static_cast<size_t>(pacs), kName));
  }

  std::vector<Entry> table;
  bool closes_up = true;
  KsResult clear_result = KS_SUCCESS;
  std::vector<size_t> visited;
  std::vector<uint8_t> described, cleared;  // the last byte of the names
};

class ClearOldPacs : public ClearPacs {};
class ClearAllPacs : public ClearPacs {};

TEST_F(ClearOldPacs, RemovesWhatIsNotValidForTheIdentity) {
  add("31 00 00 07 a1", kToGo);
  EXPECT_EQ(ks_clear_old_pacs("bob"), KS_SUCCESS);

  EXPECT_THAT(cleared, ElementsAre(0xa1));
  EXPECT_EQ(mts.request(1).op, 66567u);
  EXPECT_EQ(mts.sent(1), bytes("05 02  31 00 00 07 a1"));
  EXPECT_EQ(mts.request(2).op, 66564u);
  EXPECT_EQ(mts.sent(3), bytes("01 00")) << "behind the PAC that went";
  expect_kept(1);
}

// DIFFERS(clear-old-pacs-keeps)
TEST_F(ClearOldPacs, NeitherDropsTheMetadataMessagesNorFreesTheName) {
  add("31 00 00 07 a1", kToKeep);
  EXPECT_EQ(ks_clear_old_pacs("bob"), KS_SUCCESS);

  EXPECT_EQ(flow(), (Flow{"calloc list[1]",                                          // for the whole walk
                          "send", "recv", "calloc 5", "drop sent", "drop received",  // the A-ID
                          "calloc 35", "send", "recv", "calloc 18", "free 5", "free 18", "send", "recv", "drop sent",
                          "drop received",  // no more
                          "free list[1]"}));
  EXPECT_THAT(traces(), testing::Not(testing::Contains(testing::HasSubstr("retrieval"))));
  EXPECT_EQ(traces().front(), "ks_clear_old_pacs(#)\n");
  expect_kept(1);
}

// DIFFERS(clear-old-pacs-cursor)
TEST_F(ClearOldPacs, PassesOverThePositionBehindAPacThatStays) {
  add("31 00 00 07 a0", kToKeep);
  add("31 00 00 07 a1", kToKeep);
  add("31 00 00 07 a2", kToKeep);
  add("31 00 00 07 a3", kToKeep);
  EXPECT_EQ(ks_clear_old_pacs("bob"), KS_SUCCESS);

  EXPECT_THAT(described, ElementsAre(0xa0, 0xa2));
  EXPECT_THAT(visited, ElementsAre(0, 2));
  expect_kept(2);
}

TEST_F(ClearOldPacs, ClearsEveryPacInATableThatKeepsItsGaps) {
  closes_up = false;
  add("31 00 00 07 a0", kToGo);
  add("31 00 00 07 a1", kToGo);
  add("31 00 00 07 a2", kToGo);
  EXPECT_EQ(ks_clear_old_pacs("bob"), KS_SUCCESS);

  EXPECT_THAT(visited, ElementsAre(0, 1, 2));
  EXPECT_THAT(cleared, ElementsAre(0xa0, 0xa1, 0xa2));
  expect_kept(3);
}

TEST_F(ClearOldPacs, LeavesForASecondCallWhatAClosingTableMovedAway) {
  add("31 00 00 07 a0", kToGo);
  add("31 00 00 07 a1", kToGo);
  add("31 00 00 07 a2", kToGo);
  EXPECT_EQ(ks_clear_old_pacs("bob"), KS_SUCCESS);
  EXPECT_THAT(cleared, ElementsAre(0xa0, 0xa2));

  EXPECT_EQ(ks_clear_old_pacs("bob"), KS_SUCCESS);
  EXPECT_THAT(cleared, ElementsAre(0xa0, 0xa2, 0xa1));
  expect_kept(3);
}

// An A-ID of 65,531 bytes comes in a reply of 65,541, of which mts_payload_size's low 16 bits show 5.
TEST_F(ClearOldPacs, PassesOverAnAidTooLongToBeCleared) {
  const Bytes longest = bytes("31 00 00 07") + Bytes(65531, 0xa1);
  mts.reply_with(bytes("01 00 00 00 ff ff") + longest);
  mts.reply_with(reply(kToGo));
  mts.reply_with(result_only(KS_NO_MORE_ENTRIES));
  EXPECT_EQ(ks_clear_old_pacs("bob"), KS_SUCCESS);

  ASSERT_EQ(mts.requests.size(), 3u);
  EXPECT_EQ(mts.request(1).descriptor, bytes("ff 02"));
  EXPECT_EQ(mts.request(1).sections.at(0).content, bytes("31 00 00 07") + Bytes(251, 0xa1));
  EXPECT_EQ(mts.sent(2), bytes("02 00")) << "as behind any PAC that stays";
  expect_undropped(2);
  expect_leaked({65535});
}

TEST_F(ClearOldPacs, GoesOnBehindAClearThatFails) {
  clear_result = KS_FW_PANIC;
  add("31 00 00 07 a0", kToGo);
  add("31 00 00 07 a1", kToGo);
  add("31 00 00 07 a2", kToGo);
  EXPECT_EQ(ks_clear_old_pacs("bob"), KS_SUCCESS);

  EXPECT_THAT(described, ElementsAre(0xa0, 0xa2));
  EXPECT_EQ(table.size(), 3u);
  expect_kept(2);
}

TEST_F(ClearOldPacs, RemovesNothingInHold) {
  sysmgr.supstate = 2;
  add("31 00 00 07 a0", kToGo);
  add("31 00 00 07 a1", kToGo);
  EXPECT_EQ(ks_clear_old_pacs("bob"), KS_SUCCESS);

  EXPECT_THAT(cleared, IsEmpty());
  EXPECT_THAT(described, ElementsAre(0xa0));
  expect_kept(1);
}

TEST_F(ClearOldPacs, RemovesAPacWithEmptyOrDamagedMetadata) {
  closes_up = false;
  add("31 00 00 07 a0", {});
  add("31 00 00 07 a1", bytes("00 09 ff ff 01"));
  EXPECT_EQ(ks_clear_old_pacs("bob"), KS_SUCCESS);

  EXPECT_THAT(cleared, ElementsAre(0xa0, 0xa1));
  expect_kept(2);
}

TEST_F(ClearOldPacs, SendsNothingButByIndexRequestsWithoutAPacOfItsOwn) {
  add("30 00 00 07 61");
  add("31 00 00 08 a1", kToGo);
  EXPECT_EQ(ks_clear_old_pacs("bob"), KS_SUCCESS);
  EXPECT_EQ(ks_clear_all_pacs(), KS_SUCCESS);

  EXPECT_EQ(mts.requests.size(), 6u);
  for (const Request &request : mts.requests) EXPECT_EQ(request.op, 66566u);
}

TEST_F(ClearOldPacs, LeavesTheCacheAlone) {
  open_cache();
  cache(kToGo);
  add("31 00 00 07 a1 00 a3", kToGo);
  EXPECT_EQ(ks_clear_old_pacs("bob"), KS_SUCCESS);

  EXPECT_THAT(events({"sdb_open", "sdb_read", "sdb_write", "sdb_delete"}), IsEmpty());
  expect_kept(1);
}

TEST_F(ClearOldPacs, ReportsARefusalOfTheMetadataAndReleasesTheNameThisOnce) {
  mts.reply_with(reply(bytes("31 00 00 07 a1")));
  mts.reply_with(result_only(KS_FW_PANIC));
  EXPECT_EQ(ks_clear_old_pacs("bob"), KS_FW_PANIC);

  EXPECT_EQ(traces().back(), "PAC metadata retrieval from hw keystore failed, status 21.");
  EXPECT_THAT(flow(), ElementsAre("calloc list[1]", "send", "recv", "calloc 5", "drop sent", "drop received",
                                  "calloc 35", "send", "recv", "free 5", "free 35", "free list[1]"));
  expect_undropped(2);
}

TEST_F(ClearOldPacs, ReportsMetadataThatCannotBeAllocatedLikeARefusal) {
  mts.reply_with(reply(bytes("31 00 00 07 a1")));
  mts.reply_with(reply(kToGo));
  heap.fail_nth(4);
  EXPECT_EQ(ks_clear_old_pacs("bob"), KS_NO_MEMORY);

  EXPECT_EQ(traces().back(), "PAC metadata retrieval from hw keystore failed, status 4.");
  EXPECT_THAT(flow(), ElementsAre("calloc list[1]", "send", "recv", "calloc 5", "drop sent", "drop received",
                                  "calloc 35", "send", "recv", "calloc 18", "free 5", "free 35", "free list[1]"));
  expect_undropped(2);
}

TEST_F(ClearOldPacs, AnswersAFailedExchangeForTheMetadataWith12Or2) {
  mts.reply_with(reply(bytes("31 00 00 07 a1")));
  mts.fail_send(17);
  EXPECT_EQ(ks_clear_old_pacs("bob"), 12u);
  EXPECT_EQ(traces().back(), "mts_send failed. Error:17\n");
  EXPECT_THAT(flow(), ElementsAre("calloc list[1]", "send", "recv", "calloc 5", "drop sent", "drop received",
                                  "calloc 35", "send", "free 35", "free list[1]", "free 5"));

  forget_reports();
  mts.reply_with(reply(bytes("31 00 00 07 a1")));
  mts.fail_recv(18);
  EXPECT_EQ(ks_clear_old_pacs("bob"), 2u);
  EXPECT_EQ(traces().back(), "mts_recv failed. Error:18\n");
  EXPECT_THAT(flow(), ElementsAre("calloc list[1]", "send", "recv", "calloc 5", "drop sent", "drop received",
                                  "calloc 35", "send", "recv", "drop sent", "free 35", "free list[1]", "free 5"));
}

TEST_F(ClearOldPacs, PassesOnWhatEndsTheWalkAndFreesTheList) {
  mts.fail_send();
  EXPECT_EQ(ks_clear_old_pacs("bob"), KS_FAILURE);
  mts.fail_recv();
  EXPECT_EQ(ks_clear_old_pacs("bob"), KS_FAILURE);
  mts.reply_with(result_only(KS_TIMEOUT));
  EXPECT_EQ(ks_clear_old_pacs("bob"), KS_TIMEOUT);
  heap.fail_nth(2);
  mts.reply_with(reply(bytes("31 00 00 07 a1")));
  EXPECT_EQ(ks_clear_old_pacs("bob"), KS_NO_MEMORY);
}

TEST_F(ClearOldPacs, AnswersNoMemoryForTheListAndForTheName) {
  heap.fail_nth(1);
  EXPECT_EQ(ks_clear_old_pacs("bob"), KS_NO_MEMORY);

  forget_reports();
  mts.reply_with(reply(bytes("31 00 00 07 a1")));
  heap.fail_nth(3);
  EXPECT_EQ(ks_clear_old_pacs("bob"), KS_NO_MEMORY);
  EXPECT_THAT(flow(), ElementsAre("calloc list[1]", "send", "recv", "calloc 5", "drop sent", "drop received",
                                  "calloc 35", "free list[1]", "free 5"));
}

TEST_F(ClearOldPacs, SendsAnOverlongAidOfTheServiceFromABufferThatHoldsIt) {
  table.push_back({bytes("31 00 00 07") + Bytes(100, 0xa7), kToKeep});
  EXPECT_EQ(ks_clear_old_pacs("bob"), KS_SUCCESS);

  EXPECT_EQ(mts.request(1).sections[0].content, bytes("31 00 00 07") + Bytes(100, 0xa7));
  expect_undropped(2);
  expect_leaked({104});
}

TEST_F(ClearAllPacs, EndsAtAnAidTooLongToBeCleared) {
  mts.reply_with(bytes("01 00 00 00 ff ff  31 00 00 07") + Bytes(65531, 0xa1));
  EXPECT_EQ(ks_clear_all_pacs(), KS_INVALID_ARGS);

  EXPECT_EQ(mts.requests.size(), 1u);
}

TEST_F(ClearAllPacs, StartsAtTheFirstPositionForEveryPac) {
  add("30 00 00 07 61");
  add("31 00 00 07 a0");
  add("31 00 00 08 b0");
  add("31 00 00 07 a1");
  EXPECT_EQ(ks_clear_all_pacs(), KS_SUCCESS);

  EXPECT_THAT(cleared, ElementsAre(0xa0, 0xa1));
  EXPECT_THAT(visited, ElementsAre(0, 1, 0, 1, 2, 0, 1));
  EXPECT_EQ(table.size(), 2u);
}

TEST_F(ClearAllPacs, ReportsNothingAndAllocatesNothingOfItsOwn) {
  add("31 00 00 07 a0");
  EXPECT_EQ(ks_clear_all_pacs(), KS_SUCCESS);

  for (const std::string &text : traces()) {
    EXPECT_THAT(text,
                testing::MatchesRegex("ks_(return_aid_by_index|clear_pac|return_secret_handle_by_index_resp).*\n"));
  }
  EXPECT_THAT(flow(), ElementsAre("send", "recv", "calloc 5", "drop sent", "drop received",  //
                                  "calloc list[1]", "calloc 35", "send", "recv", "free 35", "free list[1]", "drop sent",
                                  "drop received", "free 5",  //
                                  "send", "recv", "drop sent", "drop received"));
}

TEST_F(ClearAllPacs, StopsAtTheFirstClearThatFails) {
  clear_result = KS_FW_PANIC;
  add("31 00 00 07 a0");
  add("31 00 00 07 a1");
  EXPECT_EQ(ks_clear_all_pacs(), KS_FW_PANIC);

  EXPECT_EQ(mts.requests.size(), 2u);
}

TEST_F(ClearAllPacs, AnswersZeroInHold) {
  sysmgr.supstate = 2;
  add("31 00 00 07 a0");
  EXPECT_EQ(ks_clear_all_pacs(), 0u);
}

TEST_F(ClearAllPacs, PassesOnWhatEndsTheWalk) {
  mts.fail_send();
  EXPECT_EQ(ks_clear_all_pacs(), KS_FAILURE);
  mts.fail_recv();
  EXPECT_EQ(ks_clear_all_pacs(), KS_FAILURE);
  mts.reply_with(result_only(KS_TIMEOUT));
  EXPECT_EQ(ks_clear_all_pacs(), KS_TIMEOUT);
}

}  // namespace
