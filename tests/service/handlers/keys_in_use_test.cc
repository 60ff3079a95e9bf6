// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// Keys of entries in use: prepared once, and never used for another content than the entry has.
#include "keystore.h"

namespace ksd::handlers {
namespace {

const ByteString kKey = unhex("000102030405060708090a0b0c0d0e0f");
const ByteString kPlain = unhex("00112233445566778899aabbccddeeff");
const ByteString kCipher = unhex("69c4e0d86a7b0430d8cdb78070b4c55a");

struct KeysInUse : testing::Test {
  Keystore keystore;
  const ByteString name = secret_name("k");

  Answer encrypt() { return aes(KS_OP_AES_ENCRYPT, name, kPlain).of(keystore); }
};

TEST_F(KeysInUse, ArePreparedOnce) {
  keystore.keep_secret("k", kKey);
  EXPECT_EQ(encrypt(), success(kCipher));
  EXPECT_EQ(encrypt(), success(kCipher));
  EXPECT_EQ(keystore.service.crypto.keys.size(), 1u);
}

TEST_F(KeysInUse, AreForgottenWhenTheSecretIsReplacedOrRemoved) {
  keystore.keep_secret("k", kKey);
  EXPECT_EQ(encrypt(), success(kCipher));
  keystore.keep_secret("k", ByteString(16, 0));
  EXPECT_EQ(keystore.service.crypto.keys.size(), 0u);
  EXPECT_NE(encrypt(), success(kCipher));
  EXPECT_EQ(keystore.service.crypto.keys.size(), 1u);
  ASSERT_EQ(keystore.store->remove({KS_NAME_TAG_SECRET, kVdc, "k"}), KS_SUCCESS);
  EXPECT_EQ(keystore.service.crypto.keys.size(), 0u);
  EXPECT_EQ(encrypt(), refusal(KS_NOT_FOUND));
}

TEST_F(KeysInUse, AreFoundUnderTheirNewNameOnlyWhenTheSecretIsRenamed) {
  keystore.keep_secret("k", kKey);
  EXPECT_EQ(encrypt(), success(kCipher));
  ASSERT_EQ(keystore.store->rename({KS_NAME_TAG_SECRET, kVdc, "k"}, {KS_NAME_TAG_SECRET, kVdc, "l"}), KS_SUCCESS);
  EXPECT_EQ(encrypt(), refusal(KS_NOT_FOUND));
  EXPECT_EQ(aes(KS_OP_AES_ENCRYPT, secret_name("l"), kPlain).of(keystore), success(kCipher));
  EXPECT_EQ(keystore.service.crypto.keys.size(), 1u);
}

TEST_F(KeysInUse, AreOfTheirOwnKeystore) {
  keystore.keep_secret("k", kKey);
  EXPECT_EQ(encrypt(), success(kCipher));
  Keystore other;
  other.keep_secret("k", ByteString(16, 0));
  const Answer foreign = aes(KS_OP_AES_ENCRYPT, name, kPlain).of(other);
  EXPECT_EQ(foreign.result, KS_SUCCESS);
  EXPECT_NE(foreign, success(kCipher));
}

TEST_F(KeysInUse, AreNotKeptWhenTheSecretIsReplacedBetweenLookUpAndPreparation) {
  keystore.keep_secret("k", kKey);
  keystore.store->after_find = [this] { keystore.keep_secret("k", ByteString(16, 0)); };
  EXPECT_EQ(encrypt(), success(kCipher)) << "the request came before the change, and may be answered so";
  EXPECT_EQ(keystore.service.crypto.keys.size(), 0u);
  EXPECT_NE(encrypt(), success(kCipher));
}

}  // namespace
}  // namespace ksd::handlers
