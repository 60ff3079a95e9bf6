// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "pac/metadata.h"
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

struct InfoDamage : pac::Damage {
  bool leaves_messages = false;
};

std::vector<InfoDamage> damages() {
  return {
      {{"two opaques", kOpaque + kOpaque, pac::kMultipleOpaques}, true},
      {{"two opaques, the second too long", kOpaque + bytes("00 02 ff ff"), pac::kMultipleOpaques}, true},
      {{"an opaque one byte too long", kInfo + bytes("00 02 00 01"), pac::kBadOpaque}, true},
      {{"an opaque whose size wraps", bytes("00 02 ff fd 6f 70 71"), pac::kBadOpaque}, true},
      {{"two infos", kInfo + kInfo, pac::kMultipleInfos}},
      {{"an info one byte too long", bytes("00 09 00 02 01"), pac::kBadInfo}},
      {{"an info whose size wraps", kOpaque + bytes("00 09 ff fe"), pac::kBadInfo}},
      {{"an info cut off in its header", kOpaque + bytes("00 09"), pac::kBadInfo}},
      {{"an unknown type behind an info", kInfo + bytes("00 04 00 00"), pac::kUnknown}},
      {{"an info with the mandatory bit", bytes("80 09 00 01 07"), pac::kUnknown}},
      {{"one byte behind an info", kInfo + bytes("09"), pac::kUnknown}},
      {{"no info", kOpaque, pac::kIncomplete}},
      {{"a single zero", bytes("00"), pac::kUnknown}},
  };
}

class ReturnPacInfo : public pac::Test {
 protected:
  KsResult read() { return ks_return_pac_info(aid.data(), aid_len, &info, &info_len); }
  KsResult read_cached() { return ks_cache_get_pac_info(aid.data(), aid_len, &info, &cached_len); }
  void expect_outputs(uint8_t *pointer, uint32_t len) {
    EXPECT_EQ(info, pointer);
    EXPECT_EQ(info_len, len);
  }

  uint8_t *info = kUntouched;
  uint32_t info_len = kUntouchedLen;
  uint16_t cached_len = kUntouchedLen;
};

class CacheGetPacInfo : public ReturnPacInfo {};

TEST_F(ReturnPacInfo, AsksTheKeystoreWhenTheCacheIsAbsent) {
  break_cache();
  mts.reply_with(reply(kOpaque + kInfo));
  EXPECT_EQ(read(), KS_SUCCESS);

  EXPECT_EQ(mts.request().op, 66567u);
  EXPECT_EQ(mts.sent(), bytes("07 02  31 00 00 07 a1 00 a3"));
  EXPECT_THAT(flow(), ElementsAre("calloc list[1]", "calloc 35", "send", "recv", "calloc 19", "malloc 12", "free 35",
                                  "free list[1]", "free 19", "drop sent", "drop received"));
  takes(info, info_len, kInfo);
}

// DIFFERS(info-single-reports)
TEST_F(ReturnPacInfo, ReportsOnceWhatItsTwinReportsTwice) {
  break_cache();
  mts.reply_with(reply(kInfo));
  EXPECT_EQ(read(), KS_SUCCESS);
  takes(info, info_len, kInfo);
  EXPECT_THAT(pac_traces(),
              ElementsAre("ks_return_pac_info(#)\n", "ks_return_pac_info(#):Cache absent. Using smartcard.",
                          "ks_return_pac_info(#):Return.\n"));

  forget_reports();
  open_cache();
  mts.reply_with(reply(kInfo));
  EXPECT_EQ(read(), KS_SUCCESS);
  takes(info, info_len, kInfo);
  EXPECT_THAT(pac_traces(), ElementsAre("ks_return_pac_info(#)\n", "ks_return_pac_info(#):PAC info not found in cache.",
                                        "ks_return_pac_info(#):Return.\n"));
}

TEST_F(ReturnPacInfo, AnswersFromTheCacheWithoutAMessage) {
  cache(kOpaque + kInfo);
  EXPECT_EQ(read(), KS_SUCCESS);

  EXPECT_THAT(flow(), ElementsAre("malloc 35", "calloc 19", "free 35", "malloc 12", "free 19"));
  EXPECT_TRUE(comes_before("free 19", "report ks_cache_get_pac_info(#):Return\n"));
  takes(info, info_len, kInfo);
  EXPECT_EQ(ks_cache_present, 1u);
  EXPECT_THAT(pac_traces(),
              ElementsAre("ks_return_pac_info(#)\n", "ks_cache_get_pac_info(#):Found key in cache. Retreving PAC Info.",
                          "ks_cache_get_pac_info(#):Meta_len = 19.",
                          "ks_cache_get_pac_info(#):Found key in cache. Retreving PAC Info.\n",
                          "ks_cache_get_pac_info(#):Meta_len = 19.\n", "ks_cache_get_pac_info(#):Return\n",
                          "ks_return_pac_info(#):PAC info found in cache."));
}

TEST_F(ReturnPacInfo, RefusesBadArgumentsBeforeItAsksAnybody) {
  const Bytes longer(32, 0xb7);
  EXPECT_EQ(ks_return_pac_info(nullptr, 3, &info, &info_len), KS_INVALID_ARGS);
  EXPECT_EQ(ks_return_pac_info(longer.data(), 0, &info, &info_len), KS_INVALID_ARGS);
  EXPECT_EQ(ks_return_pac_info(longer.data(), 32, &info, &info_len), KS_INVALID_ARGS);
  EXPECT_EQ(ks_return_pac_info(longer.data(), 3, nullptr, &info_len), KS_INVALID_ARGS);
  EXPECT_EQ(ks_return_pac_info(longer.data(), 3, &info, nullptr), KS_INVALID_ARGS);

  expect_outputs(kUntouched, kUntouchedLen);
  EXPECT_EQ(scripted::platform().log, Flow(5, "report ks_return_pac_info(#)\n"));
}

TEST_F(ReturnPacInfo, ClearsTheOutputsBehindAMiss) {
  open_cache();
  mts.reply_with(result_only(KS_NOT_FOUND));
  EXPECT_EQ(read(), KS_NOT_FOUND);
  expect_outputs(nullptr, 0);

  info = kUntouched;
  mts.fail_send();
  EXPECT_EQ(read(), KS_FW_COMM_ERROR);
  expect_outputs(nullptr, 0);

  info = kUntouched;
  mts.fail_recv();
  EXPECT_EQ(read(), KS_FAILURE);
  expect_outputs(nullptr, 0);
}

TEST_F(ReturnPacInfo, ReleasesNameAndListOnARefusal) {
  break_cache();
  mts.reply_with(result_only(KS_NOT_FOUND));
  EXPECT_EQ(read(), KS_NOT_FOUND);

  expect_outputs(kUntouched, kUntouchedLen);
  EXPECT_THAT(flow(), ElementsAre("calloc list[1]", "calloc 35", "send", "recv", "free 35", "free list[1]", "drop sent",
                                  "drop received"));
}

TEST_F(ReturnPacInfo, FreesTheListWhenTheNameCannotBeAllocated) {
  break_cache();
  heap.fail_nth(2);
  EXPECT_EQ(read(), KS_NO_MEMORY);

  EXPECT_THAT(flow(), ElementsAre("calloc list[1]", "calloc 35", "free list[1]"));
  expect_outputs(kUntouched, kUntouchedLen);
}

TEST_F(ReturnPacInfo, AnswersNoMemoryForTheListAndTheMetadata) {
  break_cache();
  heap.fail_nth(1);
  EXPECT_EQ(read(), KS_NO_MEMORY);
  mts.reply_with(reply(kInfo));
  heap.fail_nth(3);
  EXPECT_EQ(read(), KS_NO_MEMORY);

  expect_outputs(kUntouched, kUntouchedLen);
}

TEST_F(ReturnPacInfo, StoresANullPointerWhenTheResultCannotBeAllocated) {
  break_cache();
  mts.reply_with(reply(kInfo));
  heap.fail_nth(4);
  EXPECT_EQ(read(), KS_NO_MEMORY);

  expect_outputs(nullptr, kUntouchedLen);
  EXPECT_THAT(flow(), ElementsAre("calloc list[1]", "calloc 35", "send", "recv", "calloc 12", "malloc 12", "free 12",
                                  "free 35", "free list[1]", "drop sent", "drop received"));
}

TEST_F(ReturnPacInfo, GoesOnToTheKeystoreWhateverFailsInTheCache) {
  open_cache();
  cache(kInfo + kOpaque);
  for (const int allocation : {1, 2, 3}) {  // the name, the metadata, the result
    trace.reports.clear();
    heap.fail_nth(allocation);
    mts.reply_with(reply(kInfo));
    EXPECT_EQ(read(), KS_SUCCESS);
    takes(info, info_len, kInfo);
    EXPECT_THAT(traces(), Contains("ks_return_pac_info(#):PAC info not found in cache."));
  }
}

// DIFFERS(info-walk-release)
TEST_F(ReturnPacInfo, KeepsBothMessagesWhenTheKeystoresMetadataHasABadOpaque) {
  break_cache();
  int undropped = 0;
  for (const InfoDamage &damage : damages()) {
    SCOPED_TRACE(damage.name);
    forget_reports();
    mts.reply_with(reply(damage.metadata));
    EXPECT_EQ(read(), KS_FAILURE);

    const std::string meta = pac::label(damage.metadata);
    Flow expected = {"calloc list[1]", "calloc 35",    "send",    "recv",
                     "calloc " + meta, "free " + meta, "free 35", "free list[1]"};
    if (damage.leaves_messages) {
      undropped += 2;
    } else {
      expected = pac::joined(expected, {"drop sent", "drop received"});
    }
    EXPECT_EQ(flow(), expected);
    EXPECT_EQ(mts.undropped(), undropped);
    EXPECT_THAT(pac_traces(), ElementsAre("ks_return_pac_info(#)\n",
                                          "ks_return_pac_info(#):Cache absent. Using smartcard.", damage.text));
  }
  expect_outputs(kUntouched, kUntouchedLen);
  expect_undropped(undropped);
}

TEST_F(ReturnPacInfo, ReturnsThePacFromTheKeystoreWhenItsEntryIsDamaged) {
  open_cache();
  for (const InfoDamage &damage : damages()) {
    SCOPED_TRACE(damage.name);
    cache(damage.metadata);
    const auto before = sdb.entries;
    mts.reply_with(reply(kOpaque + kInfo));
    EXPECT_EQ(read(), KS_SUCCESS);

    takes(info, info_len, kInfo);
    EXPECT_EQ(sdb.entries, before);
  }
}

TEST_F(ReturnPacInfo, HandsOutAnEmptyInfo) {
  break_cache();
  mts.reply_with(reply(bytes("00 09 00 00")));
  EXPECT_EQ(read(), KS_SUCCESS);

  takes(info, info_len, bytes("00 09 00 00"));
}

TEST_F(CacheGetPacInfo, ReportsDamageOnceAndTracesNoTlv) {
  for (const InfoDamage &damage : damages()) {
    SCOPED_TRACE(damage.name);
    forget_reports();
    cache(damage.metadata);
    EXPECT_EQ(read_cached(), KS_FAILURE);

    ASSERT_EQ(pac_traces().size(), 5u);
    EXPECT_EQ(pac_traces().back(), "ks_cache_get_pac_info(#):" + std::string(damage.text));
    const std::string meta = pac::label(damage.metadata);
    EXPECT_EQ(flow(), (Flow{"malloc 35", "calloc " + meta, "free 35", "free " + meta}));
  }
  EXPECT_EQ(info, kUntouched);
  EXPECT_EQ(cached_len, kUntouchedLen);
}

TEST_F(CacheGetPacInfo, PassesOnTheCachesAnswersWithoutAReport) {
  EXPECT_EQ(read_cached(), KS_NOT_FOUND);
  sdb.read_error = 0x411a0011;
  EXPECT_EQ(read_cached(), KS_FAILURE);
  sdb.read_error.reset();
  cache(kInfo);
  heap.fail_nth(1);
  EXPECT_EQ(read_cached(), KS_NO_MEMORY);
  heap.fail_nth(2);
  EXPECT_EQ(read_cached(), KS_NO_MEMORY);

  EXPECT_THAT(pac_traces(), IsEmpty());
  EXPECT_EQ(info, kUntouched);
  EXPECT_EQ(cached_len, kUntouchedLen);
}

TEST_F(CacheGetPacInfo, StoresANullPointerWhenTheResultCannotBeAllocated) {
  cache(kInfo);
  heap.fail_nth(3);
  EXPECT_EQ(read_cached(), KS_NO_MEMORY);

  EXPECT_EQ(info, nullptr);
  EXPECT_EQ(cached_len, kUntouchedLen);
}

// DIFFERS(cache-info-name-byte)
TEST_F(CacheGetPacInfo, CutsTheLengthOfTheNameTo8BitsWhereItsTwinRefusesIt) {
  scripted::Guarded longer(aid + Bytes(300, 0));
  cache(kInfo);
  EXPECT_EQ(ks_cache_get_pac_info(longer.data(), 259, &info, &cached_len), KS_SUCCESS);
  takes(info, cached_len, kInfo);

  EXPECT_EQ(ks_cache_get_pac_opaque(longer.data(), 259, &info, &cached_len), KS_INVALID_ARGS);
  EXPECT_EQ(ks_cache_get_pac_info(longer.data(), 32, &info, &cached_len), KS_INVALID_ARGS);
  EXPECT_EQ(ks_cache_get_pac_info(longer.data(), 252, &info, &cached_len), KS_INVALID_ARGS);
}

TEST_F(ReturnPacInfo, OffersItsRequestToThoseWhoRunTheExchangeThemselves) {
  KsSection section = {};
  KsNameDescriptor descriptor = {};
  EXPECT_EQ(ks_pac_info_req(aid.data(), aid_len, &section, &descriptor), KS_SUCCESS);

  EXPECT_EQ(descriptor.name_len, 7);
  EXPECT_EQ(descriptor.name_offset, 2);
  EXPECT_EQ(section.length, 7u);
  EXPECT_EQ(heap.content(section.data, 35), bytes("31 00 00 07 a1 00 a3") + Bytes(28));
  EXPECT_THAT(flow(), ElementsAre("calloc 35"));
  heap.release(section.data);

  heap.fail_nth(1);
  EXPECT_EQ(ks_pac_info_req(aid.data(), aid_len, &section, &descriptor), KS_NO_MEMORY);
}

class GetPacExpiration : public pac::Test {
 protected:
  uint32_t expiry() { return ks_get_pac_expiration(aid.data(), aid_len); }
  uint32_t expiry_of(const Bytes &metadata) {
    mts.reply_with(reply(metadata));
    return expiry();
  }
};

TEST_F(GetPacExpiration, ReadsTheLifetimeBigEndianAndFreesTheInfo) {
  break_cache();
  EXPECT_EQ(expiry_of(kOpaque + bytes("00 09 00 08  00 03 00 04 12 34 56 78")), 0x12345678u);
  EXPECT_EQ(flow().back(), "free 12");

  EXPECT_EQ(expiry_of(bytes("00 09 00 08  80 03 00 04 ff 00 00 01")), 0xff000001u);
}

TEST_F(GetPacExpiration, TakesTheFirstLifetimeAndNoOther) {
  break_cache();
  EXPECT_EQ(expiry_of(bytes("00 09 00 15  00 05 00 01 61  00 03 00 04 00 00 00 02  00 03 00 04 00 00 00 03")), 2u);
  EXPECT_EQ(expiry_of(bytes("00 09 00 14  00 03 00 08 00 00 00 02 00 00 00 02  00 03 00 04 00 00 00 03")), 0u);
}

TEST_F(GetPacExpiration, GivesZeroWhereNoExpiryCanBeTold) {
  break_cache();
  EXPECT_EQ(expiry_of(bytes("00 09 00 00")), 0u);
  EXPECT_EQ(expiry_of(bytes("00 09 00 05  00 05 00 01 61")), 0u) << "ends exactly, without a lifetime";
  EXPECT_EQ(expiry_of(bytes("00 09 00 08  00 03 00 05 00 00 00 02")), 0u) << "overruns the info by its length";
  EXPECT_EQ(expiry_of(bytes("00 09 00 07  00 03 00 04 00 00 00")), 0u);
  EXPECT_EQ(expiry_of(kOpaque), 0u);
  mts.reply_with(result_only(KS_NOT_FOUND));
  EXPECT_EQ(expiry(), 0u);
  mts.fail_send();
  EXPECT_EQ(expiry(), 0u);
  mts.fail_recv();
  EXPECT_EQ(expiry(), 0u);
  EXPECT_EQ(ks_get_pac_expiration(nullptr, 3), 0u);
  EXPECT_EQ(ks_get_pac_expiration(aid.data(), 0), 0u);
  EXPECT_EQ(ks_get_pac_expiration(aid.data(), 32), 0u);
  for (const int allocation : {1, 2}) {
    heap.fail_nth(allocation);
    EXPECT_EQ(expiry(), 0u);
  }
  for (const int allocation : {3, 4}) {
    heap.fail_nth(allocation);
    EXPECT_EQ(expiry_of(kInfo), 0u);
  }
}

TEST_F(GetPacExpiration, ReportsNothingOfItsOwn) {
  cache(bytes("00 09 00 00"));
  EXPECT_EQ(expiry(), 0u);

  for (const std::string &text : pac_traces()) EXPECT_THAT(text, testing::HasSubstr("pac_info(#)"));
}

TEST_F(GetPacExpiration, AnswersFromTheCacheAlsoForAPacThatTheKeystoreNoLongerHolds) {
  open_cache();
  cache(kInfo);
  EXPECT_EQ(expiry(), 0x65000000u);
  EXPECT_TRUE(mts.requests.empty());
}

// The rules again, in the words of those who read the format: a signed count of what remains, and a bound that is
// looked at before the type.
uint32_t modelled_lifetime(const Bytes &value) {
  int64_t remaining = static_cast<int64_t>(value.size());
  size_t at = 0;
  while (true) {
    if (remaining < 4) return 0;
    const int64_t type = value[at] % 128 * 256 + value[at + 1];
    const int64_t length = value[at + 2] * 256 + value[at + 3];
    if (!(length + 3 < remaining)) return 0;
    if (type == 3) {
      if (length != 4) return 0;
      uint32_t time = 0;
      for (size_t i = 4; i < 8; ++i) time = time * 256 + value[at + i];
      return time;
    }
    remaining -= 4 + length;
    if (remaining <= 0) return 0;
    at += static_cast<size_t>(4 + length);
  }
}

TEST(LifetimeIn, AgreesWithTheModelOnRandomInfosAgainstAGuardPage) {
  uint32_t seed = 20240229;
  const auto random = [&seed](uint32_t below) { return (seed = seed * 1664525 + 1013904223) / 65536 % below; };
  constexpr size_t kMost = 64;
  scripted::Guarded page{Bytes(4 + kMost)};
  int found = 0;
  for (int round = 0; round < 60'000; ++round) {
    Bytes value;
    const size_t wanted = random(40);
    while (value.size() < wanted) {  // TLVs that mostly fit
      const size_t length = random(8) == 0 ? random(12) : random(3) * 2;
      value = value + Bytes{static_cast<uint8_t>(random(4) == 0 ? 0x80 : 0), static_cast<uint8_t>(random(7)),
                            static_cast<uint8_t>(random(50) == 0 ? 0xff : 0), static_cast<uint8_t>(length)};
      for (size_t i = 0; i < length; ++i) value.push_back(static_cast<uint8_t>(random(256)));
    }
    value.resize(std::min(value.size(), size_t{random(8) == 0 ? random(kMost) : kMost}));
    uint8_t *info = page.data() + page.size() - 4 - value.size();
    const Bytes whole = Bytes{0, 9, 0, static_cast<uint8_t>(value.size())} + value;
    std::memcpy(info, whole.data(), whole.size());

    const uint32_t told = ks::lifetime_in(info, static_cast<uint32_t>(whole.size()));
    ASSERT_EQ(told, modelled_lifetime(value)) << testing::PrintToString(value);
    found += told != 0;
  }
  EXPECT_GT(found, 3'000) << "the inputs hardly ever hold a lifetime";
}

TEST(LifetimeIn, LooksAtNothingButAWholeInfo) {
  for (const char *damaged : {"00 02 00 08 00 03 00 04 00 00 00 01", "80 09 00 08 00 03 00 04 00 00 00 01",
                              "00 09 00 09 00 03 00 04 00 00 00 01", "00 09 00", "00 09 ff fc", ""}) {
    scripted::Guarded info(bytes(damaged));
    EXPECT_EQ(ks::lifetime_in(info.data(), static_cast<uint32_t>(info.size())), 0u) << damaged;
  }
}

}  // namespace
