// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "pac_fixture.h"

namespace {

using pac::Bytes;
using pac::bytes;
using pac::Flow;
using pac::kInfo;
using pac::kOpaque;
using pac::operator+;
using scripted::result_only;
using testing::ElementsAre;
using testing::IsEmpty;

class StorePac : public pac::Test {
 protected:
  KsResult store() { return store(aid, key, opaque, info); }
  KsResult store(const Bytes &name, const Bytes &pac_key, const Bytes &pac_opaque, const Bytes &pac_info) {
    scripted::Guarded n(name), k(pac_key), o(pac_opaque), i(pac_info);
    return ks_store_pac(n.data(), size_of(name), k.data(), size_of(pac_key), o.data(), size_of(pac_opaque), i.data(),
                        size_of(pac_info));
  }
  static uint32_t size_of(const Bytes &content) { return static_cast<uint32_t>(content.size()); }

  // The request of the store, without the two reserved bytes, which are not the library's.
  Bytes sent_but_reserved() const {
    Bytes sent = mts.sent();
    sent.erase(sent.begin() + 2, sent.begin() + 4);
    return sent;
  }

  const Bytes key = bytes("4b 4c 4d");
  Bytes opaque = kOpaque;
  Bytes info = kInfo;
};

TEST_F(StorePac, SendsNameKeyAndGatheredMetadata) {
  mts.reply_with(result_only(KS_SUCCESS));
  EXPECT_EQ(store(), KS_SUCCESS);

  EXPECT_EQ(mts.request().op, 66569u);
  EXPECT_EQ(mts.request().descriptor.size(), 20u);
  EXPECT_EQ(sent_but_reserved(), bytes("07 14  03 00 00 00 1b 00 00 00  13 00 00 00 1e 00 00 00"
                                       "31 00 00 07 a1 00 a3"
                                       "4b 4c 4d"
                                       "00 02 00 03 6f 70 71  00 09 00 08 00 03 00 04 65 00 00 00"));
  EXPECT_THAT(traces(), ElementsAre("ks_store_pac(#)\n", "ks_store_pac(#):Return.\n"));
}

TEST_F(StorePac, SendsTheKeyFromTheCallersBuffer) {
  mts.reply_with(result_only(KS_SUCCESS));
  EXPECT_EQ(ks_store_pac(aid.data(), aid_len, key.data(), 3, opaque.data(), 7, info.data(), 12), KS_SUCCESS);

  ASSERT_EQ(mts.request().sections.size(), 3u);
  EXPECT_EQ(mts.request().sections[1].data, key.data());
}

TEST_F(StorePac, ReleasesNameMetadataAndListBeforeTheMessages) {
  mts.reply_with(result_only(KS_STORE_FULL));
  EXPECT_EQ(store(), KS_STORE_FULL);

  EXPECT_THAT(flow(), ElementsAre("calloc list[3]", "calloc 35", "calloc 19", "send", "recv", "free 35", "free 19",
                                  "free list[3]", "drop sent", "drop received"));
  EXPECT_EQ(scripted::platform().log.back(), "report ks_store_pac(#):Return.\n");
}

TEST_F(StorePac, AnswersAFailedExchangeWith2AndFreesEverything) {
  mts.fail_send(17);
  EXPECT_EQ(store(), 2u);
  EXPECT_THAT(flow(),
              ElementsAre("calloc list[3]", "calloc 35", "calloc 19", "send", "free 35", "free 19", "free list[3]"));
  EXPECT_EQ(traces().back(), "mts_send failed. Error:17\n");

  forget_reports();
  mts.fail_recv(18);
  EXPECT_EQ(store(), 2u);
  EXPECT_THAT(flow(), ElementsAre("calloc list[3]", "calloc 35", "calloc 19", "send", "recv", "drop sent", "free 35",
                                  "free 19", "free list[3]"));
  EXPECT_EQ(traces().back(), "mts_recv failed. Error:18\n");
}

TEST_F(StorePac, RefusesBadArgumentsBeforeItAllocates) {
  EXPECT_EQ(store(Bytes(32, 1), key, opaque, info), KS_INVALID_ARGS);
  EXPECT_EQ(store({}, key, opaque, info), KS_INVALID_ARGS);
  EXPECT_EQ(store(aid, {}, opaque, info), KS_INVALID_ARGS);
  EXPECT_EQ(store(aid, key, {}, info), KS_INVALID_ARGS);
  EXPECT_EQ(store(aid, key, opaque, {}), KS_INVALID_ARGS);
  const uint8_t *o = opaque.data(), *i = info.data(), *k = key.data(), *a = aid.data();
  EXPECT_EQ(ks_store_pac(nullptr, 3, k, 3, o, 7, i, 12), KS_INVALID_ARGS);
  EXPECT_EQ(ks_store_pac(a, 3, nullptr, 3, o, 7, i, 12), KS_INVALID_ARGS);
  EXPECT_EQ(ks_store_pac(a, 3, k, 3, nullptr, 7, i, 12), KS_INVALID_ARGS);
  EXPECT_EQ(ks_store_pac(a, 3, k, 3, o, 7, nullptr, 12), KS_INVALID_ARGS);

  EXPECT_EQ(scripted::platform().log, Flow(9, "report ks_store_pac(#)\n"));
}

TEST_F(StorePac, StoresAnAidOf31Bytes) {
  mts.reply_with(result_only(KS_SUCCESS));
  EXPECT_EQ(store(Bytes(31, 1), key, opaque, info), KS_SUCCESS);

  EXPECT_EQ(mts.request().sections[0].length, 35u);
  EXPECT_EQ(mts.request().descriptor[8], 55);
}

TEST_F(StorePac, RefusesWhatIsNotExactlyOneTlvOfItsType) {
  for (const char *bad :
       {"00 02 00 02 6f 70 71", "00 02 00 04 6f 70 71", "80 02 00 03 6f 70 71", "00 09 00 03 6f 70 71",
        "00 02 00 03 6f 70 71 00 02 00 00", "00 02 00", "02", "00 02 ff fd"}) {
    EXPECT_EQ(store(aid, key, bytes(bad), info), KS_INVALID_ARGS) << bad;
  }
  for (const char *bad : {"00 09 00 00 01", "00 09 00 02 01", "80 09 00 01 01", "00 02 00 01 01", "00 09"}) {
    EXPECT_EQ(store(aid, key, opaque, bytes(bad)), KS_INVALID_ARGS) << bad;
  }
  EXPECT_EQ(store(aid, key, info, opaque), KS_INVALID_ARGS);
  EXPECT_TRUE(mts.requests.empty());
}

TEST_F(StorePac, FreesNameAndListOfARefusedTlv) {
  EXPECT_EQ(store(aid, key, bytes("00 02 00 00 00"), info), KS_INVALID_ARGS);

  EXPECT_THAT(flow(), ElementsAre("calloc list[3]", "calloc 35", "free 35", "free list[3]"));
  EXPECT_THAT(traces(), ElementsAre("ks_store_pac(#)\n"));
}

TEST_F(StorePac, AcceptsEmptyTlvs) {
  mts.reply_with(result_only(KS_SUCCESS));
  EXPECT_EQ(store(aid, key, bytes("00 02 00 00"), bytes("00 09 00 00")), KS_SUCCESS);

  EXPECT_EQ(mts.request().sections[2].content, bytes("00 02 00 00 00 09 00 00"));
}

TEST_F(StorePac, StoresAnInfoWithoutALifetime) {
  mts.reply_with(result_only(KS_SUCCESS));
  EXPECT_EQ(store(aid, key, opaque, bytes("00 09 00 01 77")), KS_SUCCESS);
}

TEST_F(StorePac, StoresTheLongestTlvs) {
  mts.reply_with(result_only(KS_SUCCESS));
  const Bytes longest = bytes("00 02 ff ff") + Bytes(0xffff, 0x6f);
  EXPECT_EQ(store(aid, key, longest, bytes("00 09 ff ff") + Bytes(0xffff, 0x69)), KS_SUCCESS);

  EXPECT_EQ(mts.request().sections[2].length, 2u * 65539);
}

TEST_F(StorePac, LeavesTheCacheAlone) {
  open_cache();
  cache(kInfo);
  const auto before = sdb.entries;
  mts.reply_with(result_only(KS_SUCCESS));
  EXPECT_EQ(store(), KS_SUCCESS);

  EXPECT_EQ(sdb.entries, before);
  EXPECT_THAT(events({"sdb_open", "sdb_read", "sdb_write", "sdb_delete"}), IsEmpty());
}

TEST_F(StorePac, AnswersNoMemoryForEachAllocationAndFreesTheOthers) {
  const std::vector<Flow> flows = {
      {"calloc list[3]"},
      {"calloc list[3]", "calloc 35", "free list[3]"},
      {"calloc list[3]", "calloc 35", "calloc 19", "free 35", "free list[3]"},
  };
  for (size_t n = 0; n < flows.size(); ++n) {
    forget_reports();
    heap.fail_nth(static_cast<int>(n) + 1);
    EXPECT_EQ(store(), KS_NO_MEMORY);
    EXPECT_EQ(flow(), flows[n]);
    EXPECT_THAT(traces(), ElementsAre("ks_store_pac(#)\n"));
  }
}

TEST_F(StorePac, BuildsItsRequestWithoutTouchingReservedBytes) {
  KsSection sections[3] = {};
  KsStorePacDescriptor descriptor;
  std::memset(&descriptor, 0xa5, sizeof descriptor);
  EXPECT_EQ(
      ks_store_pac_req(aid.data(), aid_len, key.data(), 3, opaque.data(), 7, info.data(), 12, sections, &descriptor),
      KS_SUCCESS);

  const auto *raw = reinterpret_cast<const uint8_t *>(&descriptor);
  EXPECT_EQ(Bytes(raw, raw + 20), bytes("07 14 a5 a5 03 00 00 00 1b 00 00 00 13 00 00 00 1e 00 00 00"));
  EXPECT_EQ(sections[0].length, 7u);
  EXPECT_EQ(sections[1].data, key.data());
  EXPECT_EQ(sections[1].length, 3u);
  takes(static_cast<uint8_t *>(const_cast<void *>(sections[0].data)), 35, bytes("31 00 00 07 a1 00 a3") + Bytes(28));
  takes(static_cast<uint8_t *>(const_cast<void *>(sections[2].data)), sections[2].length, opaque + info);
}

TEST_F(StorePac, ReadsTheFirstWordOfAReplyWhateverItsSize) {
  scripted::Guarded payload(result_only(77));
  EXPECT_EQ(ks_store_pac_resp(0, payload.data()), 77u);
}

}  // namespace
