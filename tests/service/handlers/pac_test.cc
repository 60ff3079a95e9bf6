// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// The messages on PACs: store, presence, T-PRF.
#include "keystore.h"

namespace ksd::handlers {
namespace {

struct Pacs : testing::Test {
  Keystore keystore;
  const ByteString name = pac_name("a-id");
  const EntryName entry{KS_NAME_TAG_PAC, kVdc, "a-id"};

  ByteString stored_key() const {
    const Bytes key = keystore.store->find(entry)->secret->bytes();
    return {key.begin(), key.end()};
  }
  ByteString stored_metadata() const { return *keystore.store->find(entry)->metadata; }
};

TEST_F(Pacs, StoreKeepsKeyAndMetadataAndAnswersFourBytes) {
  EXPECT_EQ(store_pac(name, text("key"), text("metadata")).of(keystore), (Answer{KS_SUCCESS, {}, 4}));
  EXPECT_EQ(stored_key(), text("key"));
  EXPECT_EQ(stored_metadata(), text("metadata"));
}

TEST_F(Pacs, StoreReplacesKeyAndMetadataAtOnce) {
  ASSERT_EQ(store_pac(name, text("key"), text("metadata")).of(keystore).result, KS_SUCCESS);
  ASSERT_EQ(store_pac(name, text("other key"), text("other")).of(keystore).result, KS_SUCCESS);
  EXPECT_EQ(stored_key(), text("other key"));
  EXPECT_EQ(stored_metadata(), text("other"));
  EXPECT_EQ(keystore.store->count(), 1u);
}

TEST_F(Pacs, StoreTakesDamagedMetadataAsItIs) {
  // a second opaque, a length past the end, half a header, an unknown type, nothing: the reader judges, not the store
  for (const char *const metadata : {"0002000161 0002000162", "0002ffff61", "0002", "0004000161", ""}) {
    ASSERT_EQ(store_pac(name, text("key"), unhex(metadata)).of(keystore).result, KS_SUCCESS) << metadata;
    EXPECT_EQ(stored_metadata(), unhex(metadata));
  }
}

TEST_F(Pacs, StoreRefusesAPacWithoutAKey) {
  EXPECT_EQ(store_pac(name, {}, text("metadata")).of(keystore), refusal(KS_INVALID_ARGS));
  EXPECT_EQ(keystore.store->count(), 0u);
}

TEST_F(Pacs, StoreTakesPartsThatALengthOf16BitsCanTell) {
  const ByteString longest(65535, 'x');
  const ByteString too_long(65536, 'x');
  EXPECT_EQ(store_pac(name, text("key"), longest).of(keystore).result, KS_SUCCESS);
  EXPECT_EQ(store_pac(name, longest, text("metadata")).of(keystore).result, KS_SUCCESS);
  EXPECT_EQ(store_pac(name, text("key"), too_long).of(keystore), refusal(KS_RPC_TOO_LARGE));
  EXPECT_EQ(store_pac(name, too_long, text("metadata")).of(keystore), refusal(KS_RPC_TOO_LARGE));
}

TEST_F(Pacs, StorePassesTheStoresWordOn) {
  for (const KsResult code : {KS_STORE_FULL, KS_FW_BAD_CELL}) {
    keystore.store->put_result = code;
    EXPECT_EQ(store_pac(name, text("key"), text("metadata")).of(keystore), refusal(code));
  }
}

TEST_F(Pacs, ExistsAnswersSevenBytesWithTheFlag) {
  keystore.keep_pac("a-id", text("key"));
  EXPECT_EQ(pac_exists(name).of(keystore), (Answer{KS_SUCCESS, {1}, 7}));
  EXPECT_EQ(pac_exists(pac_name("other")).of(keystore), refusal(KS_NOT_FOUND));
}

TEST_F(Pacs, NamesMayHoldAnyBytes) {
  const std::string aid("\0\xff\0 id", 6);
  EXPECT_EQ(store_pac(pac_name(aid), text("key"), text("m")).of(keystore).result, KS_SUCCESS);
  EXPECT_EQ(pac_exists(pac_name(aid)).of(keystore).result, KS_SUCCESS);
  EXPECT_EQ(pac_exists(pac_name(aid.substr(0, 2))).of(keystore), refusal(KS_NOT_FOUND));
}

TEST_F(Pacs, TPrfComputesThePublishedKeys) {
  for (const auto &vector : published::kTPrf) {
    keystore.keep_pac("a-id", unhex(vector.key));
    const ByteString output = unhex(vector.output);
    EXPECT_EQ(t_prf(name, text(vector.label), unhex(vector.seed), output.size()).of(keystore), success(output))
        << vector.label;
  }
}

TEST_F(Pacs, TPrfGives1To5100Bytes) {
  keystore.keep_pac("a-id", text("key"));
  const ByteString label = text("label");
  EXPECT_EQ(t_prf(name, label, {}, 0).of(keystore), refusal(KS_INVALID_ARGS));
  EXPECT_EQ(t_prf(name, label, {}, 1).of(keystore).data.size(), 1u);
  EXPECT_EQ(t_prf(name, label, {}, 5100).of(keystore).data.size(), 5100u);
  EXPECT_EQ(t_prf(name, label, {}, 5101).of(keystore), refusal(KS_INVALID_ARGS));
  EXPECT_EQ(t_prf(name, label, {}, 65535).of(keystore), refusal(KS_INVALID_ARGS));
}

TEST_F(Pacs, TPrfTakesAnEmptyLabelAndAnAbsentRandom) {
  keystore.keep_pac("a-id", text("key"));
  const Answer answer = t_prf(name, {}, {}, 20).of(keystore);
  // HMAC-SHA1 of 00 0014 01, by the openssl command
  EXPECT_EQ(answer, success(unhex("183d88e556deff00866bbfbcff9b62a240c2aa61")));
}

// Each 20 bytes of output cost a pass over both.
TEST_F(Pacs, TPrfTakesALabelAndARandomOf1024BytesAndNoMore) {
  keystore.keep_pac("a-id", text("key"));
  const ByteString longest(1024, 'x');
  const ByteString too_long(1025, 'x');
  EXPECT_EQ(t_prf(name, longest, longest, 5100).of(keystore).result, KS_SUCCESS);
  EXPECT_EQ(t_prf(name, too_long, {}, 20).of(keystore), refusal(KS_RPC_TOO_LARGE));
  EXPECT_EQ(t_prf(name, text("label"), too_long, 20).of(keystore), refusal(KS_RPC_TOO_LARGE));
}

TEST_F(Pacs, TPrfRefusesARandomThatIsAnnouncedButNotSent) {
  keystore.keep_pac("a-id", text("key"));
  const Asked asked{KS_OP_PAC_KEY_T_PRF, unhex("2800 08 14 0500 eeee 1c000000 2000 eeee 21000000"),
                    name + text("label")};
  EXPECT_EQ(asked.of(keystore), refusal(KS_INVALID_ARGS));
}

}  // namespace
}  // namespace ksd::handlers
