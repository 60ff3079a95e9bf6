// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// ks.hpp and libks-helpers end to end: the library, the host platform, the shared cache and a real service.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ctime>

#include "ks.hpp"
#include "ks_helpers.h"
#include "mts.h"
#include "own_names.h"
#include "service/library_suite.h"

namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;

using ByteVector = std::vector<uint8_t>;

const auto kNow = std::chrono::system_clock::now();

class Helpers : public ks_test::LibrarySuite {
 protected:
  void TearDown() override {
    EXPECT_EQ(ks_clear_all_pacs(), KS_SUCCESS);
    EXPECT_EQ(ks_cache_purge_all(), KS_SUCCESS);
  }

  static ks::Buffer metadata(const char *opaque, ks::TimePoint expires, const char *identity = "alice") {
    ks::PacInfo info;
    info.expires = expires;
    info.identity = identity;
    auto made = ks::make_pac_metadata(opaque, info);
    EXPECT_TRUE(made.ok());
    return *std::move(made);
  }
  static bool is_cached(ks::Bytes aid) {
    uint32_t found = 0;
    return ks_cache_find_pac(aid.data(), static_cast<uint32_t>(aid.size()), &found) == KS_SUCCESS;
  }
  static std::string opaque_of(const char *aid) {
    const auto pac = ks::read_pac(aid);
    return pac ? std::string(pac->opaque().value.text()) : std::string("none: ") + pac.text();
  }
  static std::vector<std::string> listed() {
    std::vector<std::string> all;
    uint16_t index = 0;
    uint8_t *block = nullptr;
    uint16_t size = 0;
    while (ks_return_aid_by_index(&index, &block, &size) == KS_SUCCESS) {
      const ks::Buffer aid(block, size);
      all.emplace_back(ks::Bytes(aid).text());
    }
    return all;
  }
};

TEST_F(Helpers, ReadAWarmPacWhileTheServiceStandsStill) {
  const auto stored = metadata("opaque", kNow + 24h);
  ASSERT_TRUE(ks::store_pac("aid", "key", stored));
  ASSERT_TRUE(ks::cache_put("aid", stored));

  service->pause();
  const auto pac = ks::read_pac("aid");
  const auto expiry = ks::pac_expiry("aid");
  const auto exists = ks::pac_exists("aid");
  service->resume();
  ASSERT_TRUE(pac);
  EXPECT_EQ(ks::Bytes(pac->metadata()), ks::Bytes(stored));
  const auto told = pac->info();
  ASSERT_TRUE(told);
  EXPECT_EQ(told->identity.text(), "alice");
  EXPECT_EQ(told->expires, std::chrono::floor<std::chrono::seconds>(kNow + 24h));
  EXPECT_EQ(*expiry, told->expires);
  EXPECT_TRUE(exists.ok() && *exists);
}

TEST_F(Helpers, ReadTheRefreshedPacAndNotItsOldCopy) {
  const auto old = metadata("old", kNow + 1h);
  ASSERT_TRUE(ks::store_pac("aid", "key", old));
  ASSERT_TRUE(ks::cache_put("aid", old));
  ASSERT_TRUE(ks::store_pac("aid", "new key", metadata("new", kNow + 48h)));
  EXPECT_FALSE(is_cached("aid"));
  EXPECT_EQ(opaque_of("aid"), "new");
  EXPECT_TRUE(ks::cache_warm("aid"));
  EXPECT_TRUE(is_cached("aid"));
  EXPECT_EQ(opaque_of("aid"), "new");
  EXPECT_TRUE(ks::clear_pac("aid"));
  EXPECT_EQ(ks::read_pac("aid").code(), KS_NOT_FOUND);
  EXPECT_EQ(ks::cache_warm("aid").code(), KS_NOT_FOUND);
}

TEST_F(Helpers, TellOfAPacWhereTheLibrarysQuestionWouldFault) {
  ASSERT_EQ(ks_cache_present, 1u);
  auto exists = ks::pac_exists("aid");
  EXPECT_TRUE(exists.ok() && !*exists);
  ASSERT_TRUE(ks::store_pac("aid", "key", metadata("opaque", kNow)));
  ASSERT_FALSE(is_cached("aid"));
  exists = ks::pac_exists("aid");
  EXPECT_TRUE(exists.ok() && *exists);
}

TEST_F(Helpers, RemoveWhatHasExpiredAndKeepWhatLives) {
  for (const auto &[aid, expires] : {std::pair("a", kNow - 1h), std::pair("b", kNow + 1h), std::pair("c", kNow - 48h),
                                     std::pair("d", kNow - 24h), std::pair("e", kNow + 24000h)}) {
    ASSERT_TRUE(ks::store_pac(aid, "key", metadata("opaque", expires)));
    ASSERT_TRUE(ks::cache_warm(aid));
  }
  const auto removed = ks::clear_expired_pacs();
  ASSERT_TRUE(removed);
  EXPECT_EQ(*removed, 3u);
  EXPECT_THAT(listed(), ElementsAre("b", "e"));
  EXPECT_FALSE(is_cached("a"));
  EXPECT_TRUE(is_cached("e"));
}

TEST_F(Helpers, TellTimesBeyond2038InEitherWidth) {
  const ks::TimePoint late(std::chrono::seconds(0xfedcba98));
  ASSERT_TRUE(ks::store_pac("aid", "key", metadata("opaque", late)));
  const auto expiry = ks::pac_expiry("aid");
  ASSERT_TRUE(expiry);
  EXPECT_EQ(*expiry, late);
  EXPECT_FALSE(ks::has_expired(*expiry));
  int64_t seconds = 0;
  EXPECT_EQ(ksh_pac_expiry("aid", 3, &seconds), KS_SUCCESS);
  EXPECT_EQ(seconds, 0xfedcba98);
  EXPECT_GT(seconds, time(nullptr));
}

TEST_F(Helpers, AreTheSameForCPrograms) {
  KshPacInfo info = {};
  info.expires = 0x65000000;
  KshBuffer made = {};
  ASSERT_EQ(ksh_make_pac_metadata("opaque", 6, &info, &made), KS_SUCCESS);
  ASSERT_EQ(ksh_store_pac("aid", 3, "key", 3, made.data, made.size), KS_SUCCESS);
  ASSERT_EQ(ksh_cache_warm("aid", 3), KS_SUCCESS);
  KshBuffer read = {};
  ASSERT_EQ(ksh_read_pac("aid", 3, &read), KS_SUCCESS);
  EXPECT_EQ(ks::Bytes(read.data, read.size), ks::Bytes(made.data, made.size));
  ksh_free_buffer(&read);
  ksh_free_buffer(&made);
  uint32_t removed = 0;
  EXPECT_EQ(ksh_clear_expired_pacs(0x65000000, &removed), KS_SUCCESS);
  EXPECT_EQ(removed, 1u);
  uint32_t exists = 1;
  EXPECT_EQ(ksh_pac_exists("aid", 3, &exists), KS_SUCCESS);
  EXPECT_EQ(exists, 0u);
}

TEST_F(Helpers, NameAPacForTheProgramsVdcWhateverElseTheProgramHasOfThatName) {
  EXPECT_THAT(wire_name_beside_own_names("a"), ElementsAre(0x31, 0, 0, 7, 'a'));
}

TEST_F(Helpers, StoreKeysOf65535BytesAndSayThatMoreIsTooMuch) {
  const ByteVector key(65536, 0x4b);
  const auto stored = metadata("opaque", kNow + 1h);
  EXPECT_EQ(ks::store_pac("aid", key, stored).code(), KS_RPC_TOO_LARGE);
  EXPECT_TRUE(ks::store_pac("aid", ks::Bytes(key).first(65535), stored));
  const auto parts = ks::parse_pac_metadata(stored);
  const auto size = [](ks::Bytes part) { return static_cast<uint32_t>(part.size()); };
  EXPECT_EQ(ks_store_pac(ks::Bytes("aid").data(), 3, key.data(), 65536, parts->opaque.whole.data(),
                         size(parts->opaque.whole), parts->info.whole.data(), size(parts->info.whole)),
            KS_RPC_TOO_LARGE)
      << "from the service, when the library sends it";
}

// RFC 2865, section 7.1.
TEST_F(Helpers, DigestAsPublished) {
  const char secret[] = "xyzzy5461";
  ASSERT_EQ(ks_store_secret_and_metadata("radius", nullptr, ks::Bytes(secret).data(), 9, nullptr, 0), KS_SUCCESS);
  const uint8_t packet[] = {0x02, 0x00, 0x00, 0x26, 0x0f, 0x40, 0x3f, 0x94, 0x73, 0x97, 0x80, 0x57, 0xbd,
                            0x83, 0xd5, 0xcb, 0x98, 0xf4, 0x22, 0x7a, 0x06, 0x06, 0x00, 0x00, 0x00, 0x01,
                            0x0f, 0x06, 0x00, 0x00, 0x00, 0x00, 0x0e, 0x06, 0xc0, 0xa8, 0x01, 0x03};
  const auto digest = ks::md5("radius", packet);
  ASSERT_TRUE(digest);
  EXPECT_THAT(*digest, ElementsAre(0x86, 0xfe, 0x22, 0x0e, 0x76, 0x24, 0xba, 0x2a, 0x10, 0x05, 0xf6, 0xbf, 0x9b, 0x55,
                                   0xe0, 0xb2));
  EXPECT_EQ(ks::md5("radius", ByteVector(1025)).code(), KS_RPC_TOO_LARGE);
}

// What the header of ks_md5_hash says of longer data: the limit is the library's.
TEST_F(Helpers, MayDigestMoreByAnExchangeOfTheirOwn) {
  ASSERT_EQ(ks_store_secret_and_metadata("k", nullptr, ks::Bytes("secret").data(), 6, nullptr, 0), KS_SUCCESS);
  const ByteVector packet(4096, 'x');
  KsSection sections[3] = {};
  KsHashDescriptor descriptor;
  ASSERT_EQ(ks_hash_md5_sha1_req("k", packet.data(), 4096, nullptr, 0, sections, &descriptor), KS_SUCCESS);
  KsSendOptions options = {};
  options.select = 1;
  options.sections = sections;
  options.section_count = 3;
  KsMtsMessage sent;
  ASSERT_NE(mts_send(ks_mts_q, KS_SERVICE_NODE, KS_SERVICE_SAP, KS_OP_MD5, &descriptor, sizeof descriptor, &sent, 0,
                     &options),
            MTS_FAILED);
  free(const_cast<void *>(sections[0].data));
  KsRecvOptions reply = {};
  reply.select = 1;
  reply.token = mts_rr_token_get(&sent);
  KsMtsMessage received;
  ASSERT_NE(mts_recv(ks_mts_q, &received, &reply), MTS_FAILED);
  ks::Md5Digest digest{};
  EXPECT_EQ(ks_hash_md5_sha1_resp(static_cast<uint16_t>(mts_payload_size(&received)), mts_payload_get(&received),
                                  digest.data(), KS_MD5_SIZE),
            KS_SUCCESS);
  mts_drop(ks_mts_q, &sent);
  mts_drop(ks_mts_q, &received);
  // (head -c 4096 /dev/zero | tr '\0' x; printf secret) | md5sum
  EXPECT_THAT(digest, ElementsAre(0x05, 0xdd, 0xfd, 0x47, 0x07, 0x22, 0x7b, 0xae, 0xe6, 0xcc, 0x54, 0x28, 0xf0, 0xac,
                                  0xb4, 0xb0));
}

}  // namespace
