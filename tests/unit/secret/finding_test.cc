// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "scripted.h"

namespace {

using scripted::Bytes;
using scripted::bytes;
using scripted::Guarded;
using scripted::operator+;
using scripted::reply;
using scripted::reply_with_len;
using scripted::result_only;
using testing::ElementsAre;
using testing::IsEmpty;

// --- the walk

class SecretByIndex : public scripted::Test {
 protected:
  KsResult next() { return ks_return_secret_handle_by_index(&index, &name); }
  // Answers the positions from 0 on with the table's entries, and the end behind them.
  void serve(std::vector<Bytes> table) {
    mts.answer = [table = std::move(table)](const scripted::Request &request) {
      const size_t position = static_cast<size_t>(request.descriptor[0] | request.descriptor[1] << 8);
      return scripted::Answer{.payload =
                                  position < table.size() ? reply(table[position]) : result_only(KS_NO_MORE_ENTRIES)};
    };
  }

  const Bytes kOwn = bytes("30 00 00 07 6b 31");      // the secret k1
  const Bytes kForeign = bytes("30 00 00 08 6b 31");  // of another VDC
  const Bytes kPac = bytes("31 00 00 07 6b 31");
  static constexpr char kRead[] = "ks_return_secret_handle_by_index_resp: Ret :1 len:6 \n";
  static constexpr char kEnd[] = "ks_return_secret_handle_by_index_resp: Ret :6 len:0 \n";

  uint16_t index = 0;
  char byte = 'x';
  char *const untouched = &byte;
  char *name = untouched;
};

TEST_F(SecretByIndex, SendsThePositionAlone) {
  index = 0x1234;
  mts.reply_with(result_only(KS_NO_MORE_ENTRIES));
  EXPECT_EQ(next(), KS_NO_MORE_ENTRIES);

  EXPECT_EQ(mts.request().op, 66566u);
  EXPECT_EQ(mts.sent(), bytes("34 12"));
  EXPECT_FALSE(mts.request().has_options);
}

TEST_F(SecretByIndex, HandsOutTheNameInTheReplysOwnSize) {
  mts.reply_with(reply(kOwn));
  EXPECT_EQ(next(), KS_SUCCESS);

  EXPECT_EQ(index, 1);
  EXPECT_EQ(heap.content(name, 6), bytes("6b 31 00 07 6b 31"));  // the name, its end, what was there
  EXPECT_THAT(traces(true),
              ElementsAre("103:" + std::string(kRead), "103:Received a key \n", "103:Key is a password \n"));
  EXPECT_THAT(flow(), ElementsAre("send", "recv", "calloc 6", "drop sent", "drop received"));
  heap.release(name);
}

TEST_F(SecretByIndex, HandsOutNamesOf0And31Bytes) {
  mts.reply_with(reply(bytes("30 00 00 07")));
  EXPECT_EQ(next(), KS_SUCCESS);
  EXPECT_STREQ(name, "");
  heap.release(name);

  mts.reply_with(reply(bytes("30 00 00 07") + Bytes(31, 'n')));
  EXPECT_EQ(next(), KS_SUCCESS);
  EXPECT_EQ(name, std::string(31, 'n'));
  heap.release(name);
}

TEST_F(SecretByIndex, EndsOnAnEmptyTableWithBothUntouched) {
  serve({});
  EXPECT_EQ(next(), KS_NO_MORE_ENTRIES);

  EXPECT_EQ(index, 0);
  EXPECT_EQ(name, untouched);
  EXPECT_THAT(traces(), ElementsAre(kEnd));
  EXPECT_THAT(flow(), ElementsAre("send", "recv", "drop sent", "drop received"));
}

TEST_F(SecretByIndex, SkipsPacsAndForeignSecretsToTheEnd) {
  serve({kPac, kForeign, kPac});
  EXPECT_EQ(next(), KS_NO_MORE_ENTRIES);

  EXPECT_EQ(index, 0);
  EXPECT_EQ(name, untouched);
  EXPECT_EQ(mts.requests.size(), 4u);
}

// DIFFERS(foreign-secret-two-texts)
TEST_F(SecretByIndex, ReportsAPacOnceAndAForeignSecretTwice) {
  serve({kPac, kForeign});
  EXPECT_EQ(next(), KS_NO_MORE_ENTRIES);

  EXPECT_THAT(traces(), ElementsAre(kRead, "Received a key \n", "Key not a password \n",  //
                                    kRead, "Received a key \n", "Key is a password \n", "Key not a password \n", kEnd));
}

TEST_F(SecretByIndex, FreesASkippedEntryBeforeItDropsItsMessages) {
  serve({kForeign});
  EXPECT_EQ(next(), KS_NO_MORE_ENTRIES);

  EXPECT_THAT(flow(), ElementsAre("send", "recv", "calloc 6", "free 6", "drop sent", "drop received", "send", "recv",
                                  "drop sent", "drop received"));
}

TEST_F(SecretByIndex, MovesTheCursorBehindWhatItFound) {
  serve({kPac, kPac, kForeign, kPac, kForeign, kOwn, kPac, bytes("30 00 00 07 6b 32")});
  EXPECT_EQ(next(), KS_SUCCESS);
  EXPECT_EQ(index, 6);
  EXPECT_STREQ(name, "k1");
  heap.release(name);

  EXPECT_EQ(next(), KS_SUCCESS);
  EXPECT_EQ(index, 8);
  EXPECT_STREQ(name, "k2");
  heap.release(name);

  EXPECT_EQ(next(), KS_NO_MORE_ENTRIES);
  EXPECT_EQ(index, 8);
}

TEST_F(SecretByIndex, ComparesBothBytesOfTheVdc) {
  vdc_id = 0x1234;
  serve({bytes("30 00 34 12 61"), bytes("30 00 12 35 62"), bytes("30 00 00 34 63"), bytes("30 00 12 34 64")});
  EXPECT_EQ(next(), KS_SUCCESS);

  EXPECT_STREQ(name, "d");
  heap.release(name);
}

TEST_F(SecretByIndex, WrapsFrom65535To0) {
  index = 0xffff;
  mts.reply_with(reply(kOwn));
  EXPECT_EQ(next(), KS_SUCCESS);
  EXPECT_EQ(index, 0);
  heap.release(name);

  index = 0xffff;
  mts.reply_with(reply(kPac));
  mts.reply_with(reply(kOwn));
  EXPECT_EQ(next(), KS_SUCCESS);
  EXPECT_EQ(mts.sent(1), bytes("ff ff"));
  EXPECT_EQ(mts.sent(2), bytes("00 00"));
  EXPECT_EQ(index, 1);
  heap.release(name);
}

TEST_F(SecretByIndex, SkipsEntriesTooShortToHaveAVdc) {
  for (const Bytes &entry : {Bytes(), bytes("30"), bytes("30 00"), bytes("30 00 00"), bytes("31 00 00")}) {
    trace.reports.clear();
    mts.reply_with(reply(entry));
    mts.reply_with(result_only(KS_NO_MORE_ENTRIES));
    EXPECT_EQ(next(), KS_NO_MORE_ENTRIES);
    EXPECT_EQ(traces().at(2), "Key not a password \n");
  }
  EXPECT_EQ(name, untouched);
}

TEST_F(SecretByIndex, AbandonsTheWalkOnARefusalOrAFailedExchange) {
  const auto fails_behind_a_skipped_entry = [this](const scripted::Answer &answer, KsResult result) {
    mts.reply_with(reply(kPac));
    mts.script.push_back(answer);
    index = 5;
    EXPECT_EQ(next(), result);
    EXPECT_EQ(index, 5);
    EXPECT_EQ(name, untouched);
  };
  fails_behind_a_skipped_entry({.payload = result_only(KS_TIMEOUT)}, KS_TIMEOUT);
  fails_behind_a_skipped_entry({.send_errno = 17}, KS_FW_COMM_ERROR);
  EXPECT_EQ(traces().back(), "mts_send failed. Error :17 \n");
  fails_behind_a_skipped_entry({.recv_errno = 17}, KS_FW_COMM_ERROR);
  EXPECT_EQ(traces().back(), "mts_recv failed. Error :17 \n");
}

TEST_F(SecretByIndex, LeavesBothWithoutMemory) {
  mts.reply_with(reply(kOwn));
  heap.fail_nth(1);
  EXPECT_EQ(next(), KS_NO_MEMORY);

  EXPECT_EQ(index, 0);
  EXPECT_EQ(name, untouched);
  EXPECT_THAT(traces(), ElementsAre(kRead));
  EXPECT_THAT(flow(), ElementsAre("send", "recv", "calloc 6", "drop sent", "drop received"));
}

TEST_F(SecretByIndex, RefusesNullPointersWithAReport) {
  EXPECT_EQ(ks_return_secret_handle_by_index(nullptr, &name), KS_INVALID_ARGS);
  EXPECT_EQ(ks_return_secret_handle_by_index(&index, nullptr), KS_INVALID_ARGS);

  EXPECT_THAT(scripted::platform().log, ElementsAre("report Invalid arguments \n", "report Invalid arguments \n"));
}

TEST(SecretByIndexReq, StoresThePosition) {
  KsIndexDescriptor descriptor;
  ks_return_secret_handle_by_index_req(0xabcd, &descriptor);
  EXPECT_EQ(memcmp(&descriptor, bytes("cd ab").data(), 2), 0);
}

class SecretByIndexResp : public scripted::Test {
 protected:
  KsResult read(const Bytes &payload, uint16_t size) {
    Guarded guarded(payload);
    return ks_return_secret_handle_by_index_resp(size, guarded.data(), &name, &name_len);
  }
  uint8_t byte = 0xee;
  uint8_t *const untouched = &byte;
  uint8_t *name = untouched;
  uint16_t name_len = 0xeeee;
};

TEST_F(SecretByIndexResp, HandsOutTheWholeEntryOfAnyKindWhateverTheSize) {
  EXPECT_EQ(read(reply(bytes("31 00 00 09 61")), 0), KS_SUCCESS);

  EXPECT_EQ(name_len, 5);
  EXPECT_EQ(heap.content(name, 5), bytes("31 00 00 09 61"));
  EXPECT_THAT(traces(true), ElementsAre("103:ks_return_secret_handle_by_index_resp: Ret :1 len:5 \n"));
  heap.release(name);
}

TEST_F(SecretByIndexResp, PassesOnARefusalAndReadsNoLengthThatIsNotThere) {
  EXPECT_EQ(read(result_only(KS_NO_MORE_ENTRIES), 4), KS_NO_MORE_ENTRIES);
  EXPECT_EQ(read(reply_with_len(3, {}, KS_TIMEOUT), 6), KS_TIMEOUT);

  EXPECT_EQ(name, untouched);
  EXPECT_EQ(name_len, 0xeeee);
  EXPECT_THAT(traces(), ElementsAre("ks_return_secret_handle_by_index_resp: Ret :6 len:0 \n",
                                    "ks_return_secret_handle_by_index_resp: Ret :8 len:3 \n"));
}

TEST_F(SecretByIndexResp, NullsTheBlockItCantAllocate) {
  heap.fail_nth(1);
  EXPECT_EQ(read(reply(bytes("30 00 00 07 61")), 11), KS_NO_MEMORY);

  EXPECT_EQ(name, nullptr);
  EXPECT_EQ(name_len, 0xeeee);
}

// --- the look-up

class SecretExists : public scripted::Test {
 protected:
  KsResult ask(const char *name = "k1") { return ks_secret_exists(name, &exists); }
  uint32_t exists = 0xeeeeeeee;
};

TEST_F(SecretExists, SendsTheNameAndStoresTheFlagAsItIs) {
  mts.reply_with(reply(bytes("01")));
  EXPECT_EQ(ask(), KS_SUCCESS);
  EXPECT_EQ(exists, 1u);
  EXPECT_EQ(mts.request().op, 66565u);
  EXPECT_EQ(mts.sent(), bytes("06 02  30 00 00 07 6b 31"));

  for (const uint8_t flag : bytes("02 00 80 ff")) {
    mts.reply_with(reply(Bytes(1, flag)));
    EXPECT_EQ(ask(), KS_SUCCESS);
    EXPECT_EQ(exists, flag);
  }
  EXPECT_THAT(traces(), IsEmpty());
}

TEST_F(SecretExists, TakesNoNoticeOfTheLength) {
  mts.reply_with(reply_with_len(0, bytes("01")));
  EXPECT_EQ(ask(), KS_SUCCESS);
  EXPECT_EQ(exists, 1u);

  mts.reply_with(reply_with_len(0xffff, bytes("01")), 3);
  EXPECT_EQ(ask(), KS_SUCCESS);
}

// DIFFERS(secret-missing-success)
TEST_F(SecretExists, AnswersAMissingSecretWithSuccessAnd0) {
  mts.reply_with(result_only(KS_NOT_FOUND));
  EXPECT_EQ(ask(), KS_SUCCESS);

  EXPECT_EQ(exists, 0u);
}

TEST_F(SecretExists, PassesOnAnyOtherRefusalAndLeavesTheFlag) {
  mts.reply_with(result_only(KS_TIMEOUT));
  EXPECT_EQ(ask(), KS_TIMEOUT);

  EXPECT_EQ(exists, 0xeeeeeeeeu);
}

TEST_F(SecretExists, RefusesBadArgumentsWithAReport) {
  EXPECT_EQ(ask(nullptr), KS_INVALID_ARGS);
  EXPECT_EQ(ask(""), KS_INVALID_ARGS);
  EXPECT_EQ(ask(std::string(32, 'n').c_str()), KS_INVALID_ARGS);
  EXPECT_EQ(ks_secret_exists("k1", nullptr), KS_INVALID_ARGS);

  EXPECT_THAT(scripted::platform().log, testing::Each("report Invalid Arguments \n"));
  EXPECT_EQ(traces().size(), 4u);
  EXPECT_EQ(exists, 0xeeeeeeeeu);
}

TEST_F(SecretExists, AcceptsANameOf31Bytes) {
  mts.reply_with(reply(bytes("01")));
  EXPECT_EQ(ask(std::string(31, 'n').c_str()), KS_SUCCESS);

  EXPECT_EQ(mts.sent(), bytes("23 02  30 00 00 07") + Bytes(31, 'n'));
}

TEST_F(SecretExists, ReportsTheListItCantAllocateButNotTheName) {
  heap.fail_nth(2);
  EXPECT_EQ(ask(), KS_NO_MEMORY);
  EXPECT_THAT(traces(), IsEmpty());

  heap.fail_nth(1);
  EXPECT_EQ(ask(), KS_NO_MEMORY);
  EXPECT_THAT(traces(true), ElementsAre("103:Memory Allocation failed \n"));
  EXPECT_EQ(exists, 0xeeeeeeeeu);
}

TEST(SecretExistsReq, FillsBothOutputs) {
  scripted::platform().heap.reset();
  vdc_id = 7;
  KsSection section = {};
  KsNameDescriptor descriptor;
  EXPECT_EQ(ks_secret_exists_req("k1", &section, &descriptor), KS_SUCCESS);

  EXPECT_EQ(descriptor.name_len, 6);
  EXPECT_EQ(descriptor.name_offset, 2);
  EXPECT_EQ(scripted::platform().heap.content(section.data, 35), bytes("30 00 00 07 6b 31") + Bytes(29, 0));
  scripted::platform().heap.reset();
}

TEST(SecretExistsResp, ReadsAReplyAsTheOperationDoes) {
  uint32_t exists = 0xeeeeeeee;
  Guarded there(reply(bytes("02")));
  EXPECT_EQ(ks_secret_exists_resp(0, there.data(), &exists), KS_SUCCESS);
  EXPECT_EQ(exists, 2u);

  Guarded missing(result_only(KS_NOT_FOUND));
  EXPECT_EQ(ks_secret_exists_resp(4, missing.data(), &exists), KS_SUCCESS);
  EXPECT_EQ(exists, 0u);

  exists = 7;
  Guarded refused(result_only(KS_FW_PANIC));
  EXPECT_EQ(ks_secret_exists_resp(4, refused.data(), &exists), KS_FW_PANIC);
  EXPECT_EQ(exists, 7u);
}

}  // namespace
