// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "pac_fixture.h"

namespace {

using pac::Bytes;
using pac::bytes;
using pac::Flow;
using pac::kInfo;
using pac::kOpaque;
using pac::kUntouched;
using pac::kUntouchedLen;
using pac::operator+;
using scripted::reply;
using scripted::result_only;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

const Bytes kOtherOpaque = bytes("00 02 00 01 77");

Flow operator+(const Flow &left, const Flow &right) {
  return pac::joined(left, right);
}

// What the cache's reader reports.
Flow twice(const std::string &text) {
  return {"ks_cache_get_pac_opaque(#):" + text, "ks_cache_get_pac_opaque(#):" + text + "\n"};
}
Flow opaque_seen(int meta_len) {
  return twice("tlv->type is EAP_FAST_PAC_OPAQUE.Meta_len = " + std::to_string(meta_len));
}
Flow opaque_seen(int meta_len, int len) {
  return opaque_seen(meta_len) + twice("Opaque_len is " + std::to_string(len) + ".");
}
Flow info_seen() {
  return twice("tlv->type is EAP_FAST_PAC_INFO.");
}
Flow info_seen(int len) {
  return info_seen() + Flow{"ks_cache_get_pac_opaque(#):Info_len is " + std::to_string(len)};
}

struct OpaqueDamage : pac::Damage {
  Flow cached_reports;  // of the cache's reader, behind "Found key" and "Meta_len"
  Flow release;         // behind the walk of a reply's metadata
  bool leaves_messages_and_list = false;
};

const Flow kUsualRelease = {"free meta", "free list[1]", "drop sent", "drop received"};
const Flow kReleaseOfUnknown = {"free list[1]", "drop sent", "drop received", "free meta"};
const Flow kReleaseOfInfos = {"free meta"};

std::vector<OpaqueDamage> opaque_damages() {
  const std::string own_word_for_unknown = "tlv->type is EAP_FAST_PAC_OPAQUE.";
  return {
      {{"two opaques", kOpaque + kOpaque, pac::kMultipleOpaques},
       opaque_seen(14, 3) + opaque_seen(14) + twice(pac::kMultipleOpaques),
       kUsualRelease},
      {{"two opaques, the second too long", kOpaque + bytes("00 02 ff ff"), pac::kMultipleOpaques},
       opaque_seen(11, 3) + opaque_seen(11) + twice(pac::kMultipleOpaques),
       kUsualRelease},
      {{"an opaque one byte too long", bytes("00 02 00 04 6f 70 71"), pac::kBadOpaque},
       opaque_seen(7, 4) + twice(pac::kBadOpaque),
       kUsualRelease},
      {{"an opaque whose size wraps", bytes("00 02 ff fc 6f 70 71"), pac::kBadOpaque},
       opaque_seen(7, 0xfffc) + twice(pac::kBadOpaque),
       kUsualRelease},
      {{"an opaque cut off in its header", bytes("00 02 00"), pac::kBadOpaque},
       opaque_seen(3) + twice(pac::kBadOpaque),
       kUsualRelease},
      {{"two infos", kInfo + kInfo, pac::kMultipleInfos},
       info_seen(8) + info_seen() + twice(pac::kMultipleInfos),
       kReleaseOfInfos,
       true},
      // DIFFERS(opaque-walk-words): the cache's reader takes a bad length for a second info.
      {{"an info too long behind an opaque", kOpaque + bytes("00 09 00 01"), pac::kBadInfo},
       opaque_seen(11, 3) + info_seen(1) + twice(pac::kMultipleInfos),
       kReleaseOfInfos,
       true},
      {{"an info whose size wraps", bytes("00 09 ff ff 01 02 03"), pac::kBadInfo},
       info_seen(0xffff) + twice(pac::kMultipleInfos),
       kReleaseOfInfos,
       true},
      {{"an unknown type behind an opaque", kOpaque + bytes("00 04 00 00"), pac::kUnknown},
       opaque_seen(11, 3) + twice(own_word_for_unknown),
       kReleaseOfUnknown},
      {{"an opaque with the mandatory bit", bytes("80 02 00 03 6f 70 71"), pac::kUnknown},
       twice(own_word_for_unknown),
       kReleaseOfUnknown},
      {{"one byte behind an opaque", kOpaque + bytes("00"), pac::kUnknown},
       opaque_seen(8, 3) + twice(own_word_for_unknown),
       kReleaseOfUnknown},
      {{"no opaque", kInfo, pac::kIncomplete}, info_seen(8) + twice(pac::kIncomplete), kUsualRelease},
  };
}

class ReturnPacOpaque : public pac::Test {
 protected:
  KsResult read() { return ks_return_pac_opaque(aid.data(), aid_len, &opaque, &opaque_len); }
  KsResult read_cached() { return ks_cache_get_pac_opaque(aid.data(), aid_len, &opaque, &cached_len); }
  void expect_outputs(uint8_t *pointer, uint32_t len) {
    EXPECT_EQ(opaque, pointer);
    EXPECT_EQ(opaque_len, len);
  }

  uint8_t *opaque = kUntouched;
  uint32_t opaque_len = kUntouchedLen;
  uint16_t cached_len = kUntouchedLen;
};

class CacheGetPacOpaque : public ReturnPacOpaque {};

TEST_F(ReturnPacOpaque, AsksTheKeystoreWhenTheCacheIsAbsent) {
  break_cache();
  mts.reply_with(reply(kOpaque + kInfo));
  EXPECT_EQ(read(), KS_SUCCESS);

  EXPECT_EQ(mts.request().op, 66567u);
  EXPECT_EQ(mts.sent(), bytes("07 02  31 00 00 07 a1 00 a3"));
  takes(opaque, opaque_len, kOpaque);
  EXPECT_THAT(
      pac_traces(),
      ElementsAre("ks_return_pac_opaque(#)\n", "ks_return_pac_opaque(#):Cache absent. Using smartcard.",
                  "ks_return_pac_opaque(#):Cache absent. Using smartcard.\n", "ks_return_pac_opaque(#):Return.\n"));
}

// DIFFERS(opaque-stack-name)
TEST_F(ReturnPacOpaque, KeepsItsNameOnTheStackAndReleasesTheListBeforeTheMetadata) {
  break_cache();
  mts.reply_with(reply(kOpaque + kInfo));
  EXPECT_EQ(read(), KS_SUCCESS);
  EXPECT_EQ(opaque_len, 7u) << "the length in the buffer's own header plus 4";

  EXPECT_THAT(flow(), ElementsAre("calloc list[1]", "send", "recv", "calloc 19", "malloc 7", "free list[1]", "free 19",
                                  "drop sent", "drop received"));
  EXPECT_EQ(scripted::platform().log.back(), "report ks_return_pac_opaque(#):Return.\n");
  heap.release(opaque);
}

TEST_F(ReturnPacOpaque, SendsAnAidOf31Bytes) {
  break_cache();
  const Bytes longest(31, 0xb7);
  mts.reply_with(reply(kOpaque));
  EXPECT_EQ(ks_return_pac_opaque(longest.data(), 31, &opaque, &opaque_len), KS_SUCCESS);

  EXPECT_EQ(mts.sent(), bytes("23 02  31 00 00 07") + longest);
  takes(opaque, opaque_len, kOpaque);
}

TEST_F(ReturnPacOpaque, RefusesBadArgumentsBeforeItAsksAnybody) {
  const Bytes longer(32, 0xb7);
  EXPECT_EQ(ks_return_pac_opaque(nullptr, 3, &opaque, &opaque_len), KS_INVALID_ARGS);
  EXPECT_EQ(ks_return_pac_opaque(longer.data(), 0, &opaque, &opaque_len), KS_INVALID_ARGS);
  EXPECT_EQ(ks_return_pac_opaque(longer.data(), 32, &opaque, &opaque_len), KS_INVALID_ARGS);
  EXPECT_EQ(ks_return_pac_opaque(longer.data(), 257, &opaque, &opaque_len), KS_INVALID_ARGS);
  EXPECT_EQ(ks_return_pac_opaque(longer.data(), 3, nullptr, &opaque_len), KS_INVALID_ARGS);
  EXPECT_EQ(ks_return_pac_opaque(longer.data(), 3, &opaque, nullptr), KS_INVALID_ARGS);

  expect_outputs(kUntouched, kUntouchedLen);
  EXPECT_EQ(scripted::platform().log, Flow(6, "report ks_return_pac_opaque(#)\n"));
}

TEST_F(ReturnPacOpaque, AnswersFromTheCacheWithoutAMessage) {
  open_cache();
  cache(kInfo + kOpaque);
  EXPECT_EQ(read(), KS_SUCCESS);

  EXPECT_THAT(flow(), ElementsAre("malloc 35", "calloc 19", "free 35", "malloc 7", "free 19"));
  EXPECT_TRUE(comes_before("free 19", "report ks_cache_get_pac_opaque(#):Return\n"));
  takes(opaque, opaque_len, kOpaque);
  const Flow found = {"ks_cache_get_pac_opaque(#):Found key in cache. Retreving PAC opaque.",
                      "ks_cache_get_pac_opaque(#):Meta_len = 19.",
                      "ks_cache_get_pac_opaque(#):Found key in cache. Retreving PAC opaque.\n",
                      "ks_cache_get_pac_opaque(#):Meta_len = 19.\n"};
  const Flow done = {"ks_cache_get_pac_opaque(#):Return\n", "ks_return_pac_opaque(#):PAC found in cache.",
                     "ks_return_pac_opaque(#):PAC found in cache.\n"};
  EXPECT_EQ(pac_traces(), (Flow{"ks_return_pac_opaque(#)\n"} + found + info_seen(8) + opaque_seen(19, 3) + done));
}

TEST_F(ReturnPacOpaque, AnswersFromTheCacheInSilenceWithShutGates) {
  trace.close();
  open_cache();
  cache(kOpaque + kInfo);
  EXPECT_EQ(read(), KS_SUCCESS);

  EXPECT_THAT(scripted::platform().log,
              ElementsAre("malloc 35", "sdb_read", "calloc 19", "free 35", "malloc 7", "free 19"));
  takes(opaque, opaque_len, kOpaque);
}

TEST_F(ReturnPacOpaque, OpensAClosedCacheAndAsksIt) {
  cache(kOpaque);
  EXPECT_EQ(read(), KS_SUCCESS);
  takes(opaque, opaque_len, kOpaque);

  EXPECT_EQ(ks_cache_present, 1u);
  EXPECT_EQ(read(), KS_SUCCESS);
  takes(opaque, opaque_len, kOpaque);
  EXPECT_THAT(events({"sdb_open", "sdb_read", "send"}), ElementsAre("sdb_open 287454020", "sdb_read", "sdb_read"));
}

TEST_F(ReturnPacOpaque, TriesToOpenAnAbsentCacheOnEveryRead) {
  break_cache();
  for (int i = 0; i < 2; ++i) {
    mts.reply_with(result_only(KS_NOT_FOUND));
    EXPECT_EQ(read(), KS_NOT_FOUND);
  }
  EXPECT_THAT(events({"sdb_open", "sdb_read", "send"}),
              ElementsAre("sdb_open 287454020", "send", "sdb_open 287454020", "send"));
}

// DIFFERS(doubled-reports)
TEST_F(ReturnPacOpaque, ReportsAMissTwiceWithItsCodeInThePlatformsWords) {
  open_cache();
  mts.reply_with(reply(kOpaque));
  EXPECT_EQ(read(), KS_SUCCESS);

  takes(opaque, opaque_len, kOpaque);
  EXPECT_THAT(pac_traces(), ElementsAre("ks_return_pac_opaque(#)\n",
                                        "ks_return_pac_opaque(#):PAC not found in cache.Error = 5(text of 0x5)",
                                        "ks_return_pac_opaque(#):PAC not found in cache.Error = 5(text of 0x5)\n",
                                        "ks_return_pac_opaque(#):Return.\n"));
}

TEST_F(ReturnPacOpaque, AsksForTheTextOfAMissOncePerOpenHalf) {
  open_cache();
  cache(kInfo);  // a miss of which the cache itself reports no code
  const auto texts_asked_for = [this] {
    sdb.text_calls = 0;
    mts.reply_with(result_only(KS_NOT_FOUND));
    EXPECT_EQ(read(), KS_NOT_FOUND);
    return sdb.text_calls;
  };
  EXPECT_EQ(texts_asked_for(), 2);
  trace.open_both();
  EXPECT_EQ(texts_asked_for(), 4);
  trace.close();
  EXPECT_EQ(texts_asked_for(), 0);
}

TEST_F(ReturnPacOpaque, LeavesTheCacheAsItWas) {
  open_cache();
  for (int i = 0; i < 2; ++i) {
    mts.reply_with(reply(kOpaque + kInfo));
    EXPECT_EQ(read(), KS_SUCCESS);
    takes(opaque, opaque_len, kOpaque);
  }
  EXPECT_EQ(mts.requests.size(), 2u) << "the second read is cold again";
  EXPECT_TRUE(sdb.entries.empty());
  EXPECT_THAT(events({"sdb_write", "sdb_delete"}), IsEmpty());
}

TEST_F(ReturnPacOpaque, AnswersAnUnknownAidWithTheServicesCodeAndClearedOutputs) {
  open_cache();
  mts.reply_with(result_only(KS_NOT_FOUND));
  EXPECT_EQ(read(), KS_NOT_FOUND);

  expect_outputs(nullptr, 0);
  EXPECT_THAT(flow(), ElementsAre("malloc 35", "free 35", "calloc list[1]", "send", "recv", "free list[1]", "drop sent",
                                  "drop received"));
}

// DIFFERS(pac-read-send-failure)
TEST_F(ReturnPacOpaque, AnswersAFailedSendWith12AndAFailedReceiveWith2) {
  open_cache();
  mts.fail_send(17);
  EXPECT_EQ(read(), 12u);
  expect_outputs(nullptr, 0);
  EXPECT_EQ(traces().back(), "mts_send failed. Error:17\n");

  opaque = kUntouched;
  opaque_len = kUntouchedLen;
  mts.fail_recv(18);
  EXPECT_EQ(read(), 2u);
  expect_outputs(nullptr, 0);
  EXPECT_EQ(traces().back(), "mts_recv failed. Error:18\n");
}

TEST_F(ReturnPacOpaque, GoesOnToTheKeystoreWhateverFailsInTheCache) {
  open_cache();
  cache(kOtherOpaque);
  const auto expect_from_keystore = [this](KsResult code) {
    trace.reports.clear();
    mts.reply_with(reply(kOpaque));
    EXPECT_EQ(read(), KS_SUCCESS);
    takes(opaque, opaque_len, kOpaque);
    const std::string number = std::to_string(code);
    EXPECT_THAT(traces(), Contains("ks_return_pac_opaque(#):PAC not found in cache.Error = " + number + "(text of 0x" +
                                   number + ")"));
  };
  for (const int allocation : {1, 2, 3}) {  // the name, the metadata, the result
    heap.fail_nth(allocation);
    expect_from_keystore(KS_NO_MEMORY);
  }
  sdb.read_error = 0x411a0011;
  expect_from_keystore(KS_FAILURE);
}

TEST_F(ReturnPacOpaque, TakesAnEmptyEntryForAMiss) {
  open_cache();
  cache({});
  mts.reply_with(reply(kOpaque));
  EXPECT_EQ(read(), KS_SUCCESS);

  takes(opaque, opaque_len, kOpaque);
  EXPECT_THAT(traces(), Contains("ks_cache_get_pac_opaque(#):Incomplete PAC metadata received from keystore."));
}

TEST_F(ReturnPacOpaque, ReturnsAStaleEntryWithoutAskingTheKeystore) {
  open_cache();
  cache(kOtherOpaque);
  EXPECT_EQ(read(), KS_SUCCESS);

  takes(opaque, opaque_len, kOtherOpaque);
}

TEST_F(ReturnPacOpaque, ReturnsAnExpiredPacFromBothSources) {
  const Bytes expired = kOpaque + bytes("00 09 00 08 00 03 00 04 00 00 00 01");
  mts.reply_with(reply(expired));
  EXPECT_EQ(read(), KS_SUCCESS);
  takes(opaque, opaque_len, kOpaque);

  cache(expired);
  EXPECT_EQ(read(), KS_SUCCESS);
  takes(opaque, opaque_len, kOpaque);
  EXPECT_EQ(mts.requests.size(), 1u);
}

TEST_F(ReturnPacOpaque, LeavesTheOutputsOnEveryFailureWithoutACache) {
  break_cache();
  mts.fail_send();
  EXPECT_EQ(read(), KS_FW_COMM_ERROR);
  mts.fail_recv();
  EXPECT_EQ(read(), KS_FAILURE);
  mts.reply_with(result_only(KS_FW_PANIC));
  EXPECT_EQ(read(), KS_FW_PANIC);
  mts.reply_with(reply(kInfo));
  EXPECT_EQ(read(), KS_FAILURE);
  heap.fail_nth(1);  // the section list
  EXPECT_EQ(read(), KS_NO_MEMORY);
  mts.reply_with(reply(kOpaque));
  heap.fail_nth(2);  // the metadata
  EXPECT_EQ(read(), KS_NO_MEMORY);

  expect_outputs(kUntouched, kUntouchedLen);
}

TEST_F(ReturnPacOpaque, StoresANullPointerWhenTheResultCannotBeAllocated) {
  break_cache();
  mts.reply_with(reply(kOpaque));
  heap.fail_nth(3);
  EXPECT_EQ(read(), KS_NO_MEMORY);

  expect_outputs(nullptr, kUntouchedLen);
  EXPECT_THAT(flow(), ElementsAre("calloc list[1]", "send", "recv", "calloc 7", "malloc 7", "free 7", "free list[1]",
                                  "drop sent", "drop received"));
}

// DIFFERS(opaque-walk-release)
TEST_F(ReturnPacOpaque, ReleasesByTheKindOfDamageInTheKeystoresMetadata) {
  break_cache();
  int undropped = 0;
  std::vector<size_t> leaked;
  for (const OpaqueDamage &damage : opaque_damages()) {
    SCOPED_TRACE(damage.name);
    forget_reports();
    mts.reply_with(reply(damage.metadata));
    EXPECT_EQ(read(), KS_FAILURE);

    const std::string meta = pac::label(damage.metadata);
    Flow expected = {"calloc list[1]", "send", "recv", "calloc " + meta};
    for (const std::string &event : damage.release) expected.push_back(event == "free meta" ? "free " + meta : event);
    EXPECT_EQ(flow(), expected);
    EXPECT_EQ(pac_traces().back(), damage.text);
    EXPECT_EQ(pac_traces().size(), 4u) << "entry, twice an absent cache, and once the damage";
    if (damage.leaves_messages_and_list) {
      undropped += 2;
      leaked.push_back(sizeof(KsSection));
    }
    EXPECT_EQ(mts.undropped(), undropped);
  }
  expect_outputs(kUntouched, kUntouchedLen);
  expect_undropped(undropped);
  expect_leaked(leaked);
}

TEST_F(ReturnPacOpaque, ReturnsThePacFromTheKeystoreWhenItsEntryIsDamaged) {
  open_cache();
  for (const OpaqueDamage &damage : opaque_damages()) {
    SCOPED_TRACE(damage.name);
    cache(damage.metadata);
    const auto before = sdb.entries;
    mts.reply_with(reply(kOpaque + kInfo));
    EXPECT_EQ(read(), KS_SUCCESS);

    takes(opaque, opaque_len, kOpaque);
    EXPECT_EQ(sdb.entries, before) << "the entry stays as it was";
  }
}

// DIFFERS(opaque-walk-trace)
TEST_F(CacheGetPacOpaque, ReportsEachTlvAndThenTheDamageTwice) {
  for (const OpaqueDamage &damage : opaque_damages()) {
    SCOPED_TRACE(damage.name);
    forget_reports();
    cache(damage.metadata);
    EXPECT_EQ(read_cached(), KS_FAILURE);

    Flow reports = pac_traces();
    ASSERT_GT(reports.size(), 4u);
    reports.erase(reports.begin(), reports.begin() + 4);  // that the key was found, and the metadata's length
    EXPECT_EQ(reports, damage.cached_reports);
    const std::string meta = pac::label(damage.metadata);
    EXPECT_EQ(flow(), (Flow{"malloc 35", "calloc " + meta, "free 35", "free " + meta}));
  }
  EXPECT_EQ(opaque, kUntouched);
  EXPECT_EQ(cached_len, kUntouchedLen);
}

TEST_F(CacheGetPacOpaque, ReadsAClosedCacheWithoutOpeningIt) {
  cache(kOpaque);
  EXPECT_EQ(read_cached(), KS_SUCCESS);

  takes(opaque, cached_len, kOpaque);
  EXPECT_EQ(ks_cache_present, 0u);
  EXPECT_THAT(events({"sdb_open", "send"}), IsEmpty());
}

TEST_F(CacheGetPacOpaque, LooksUnderTheCallersVdc) {
  cache(kOpaque);
  vdc_id = 8;
  EXPECT_EQ(read_cached(), KS_NOT_FOUND);
}

TEST_F(CacheGetPacOpaque, PassesOnTheCachesAnswersWithoutAReport) {
  EXPECT_EQ(read_cached(), KS_NOT_FOUND);
  sdb.read_error = 0x411a0011;
  EXPECT_EQ(read_cached(), KS_FAILURE);
  sdb.read_error = 0x411a000f;
  EXPECT_EQ(read_cached(), KS_FAILURE);
  sdb.read_error.reset();
  sdb.null_value = true;
  EXPECT_EQ(read_cached(), KS_FAILURE);
  sdb.null_value = false;
  cache(kOpaque);
  heap.fail_nth(1);  // the name
  EXPECT_EQ(read_cached(), KS_NO_MEMORY);
  heap.fail_nth(2);  // the metadata
  EXPECT_EQ(read_cached(), KS_NO_MEMORY);

  EXPECT_THAT(pac_traces(), IsEmpty());
  EXPECT_EQ(opaque, kUntouched);
  EXPECT_EQ(cached_len, kUntouchedLen);
}

TEST_F(CacheGetPacOpaque, StoresANullPointerWhenTheResultCannotBeAllocated) {
  cache(kOpaque);
  heap.fail_nth(3);
  EXPECT_EQ(read_cached(), KS_NO_MEMORY);

  EXPECT_EQ(opaque, nullptr);
  EXPECT_EQ(cached_len, kUntouchedLen);
  EXPECT_THAT(flow(), ElementsAre("malloc 35", "calloc 7", "free 35", "malloc 7", "free 7"));
}

TEST_F(CacheGetPacOpaque, RefusesAnOverlongAidWithoutOverrunningItsName) {
  scripted::Guarded longer(Bytes(40, 0xb7));
  for (const uint32_t len : {32u, 40u, 257u, 0xfffffffcu}) {
    EXPECT_EQ(ks_cache_get_pac_opaque(longer.data(), len, &opaque, &cached_len), KS_INVALID_ARGS);
  }
  EXPECT_EQ(opaque, kUntouched);
}

}  // namespace
