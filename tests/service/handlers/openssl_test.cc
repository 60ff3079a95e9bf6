// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// Random messages of every length against OpenSSL.
#include "openssl.h"

#include "keystore.h"
#include "random_input.h"

namespace ksd::handlers {
namespace {

using openssl::Direction;

struct OpenSsl : testing::Test {
  Keystore keystore;
  const ByteString name = secret_name("k");
  std::mt19937 generator = ks_test::random_input();

  ByteString random_bytes(size_t size) {
    ByteString bytes(size);
    for (uint8_t &byte : bytes) byte = static_cast<uint8_t>(generator());
    return bytes;
  }
};

TEST_F(OpenSsl, AgreesOnAesForEverySizeOfKeyAndManyLengths) {
  for (const size_t key_size : {16u, 24u, 32u}) {
    const ByteString key = random_bytes(key_size);
    const std::string bits = std::to_string(8 * key_size);
    keystore.keep_secret("k", key);
    for (size_t size = 16; size <= 65504; size += size < 1024 ? 16 : 4096 - 16 * 7) {
      SCOPED_TRACE(size);
      const ByteString data = random_bytes(size);
      const ByteString iv = random_bytes(16);
      const ByteString ecb = openssl::cipher(("AES-" + bits + "-ECB").c_str(), Direction::kEncrypt, key, {}, data);
      ASSERT_EQ(aes(KS_OP_AES_ENCRYPT, name, data).of(keystore), success(ecb));
      ASSERT_EQ(aes(KS_OP_AES_DECRYPT, name, ecb).of(keystore), success(data));
      const ByteString cbc = openssl::cipher(("AES-" + bits + "-CBC").c_str(), Direction::kEncrypt, key, iv, data);
      const ByteString last = part(cbc, size - 16, size);
      ASSERT_EQ(aes_cbc(KS_OP_AES_CBC_ENCRYPT, name, iv, data).of(keystore), success(last + cbc));
      ASSERT_EQ(aes_cbc(KS_OP_AES_CBC_DECRYPT, name, iv, cbc).of(keystore), success(last + data));
    }
  }
}

TEST_F(OpenSsl, AgreesOnDesAndTripleDesForEveryLengthUpTo1024) {
  for (size_t size = 8; size <= 1024; size += 8) {
    SCOPED_TRACE(size);
    const ByteString data = random_bytes(size);
    ByteString key = random_bytes(8);
    keystore.keep_secret("k", key);
    ByteString expected = openssl::cipher("DES-ECB", Direction::kEncrypt, key, {}, data);
    ASSERT_EQ(des(KS_OP_DES_ENCRYPT, name, data).of(keystore), success(expected));
    ASSERT_EQ(des(KS_OP_DES_DECRYPT, name, expected).of(keystore), success(data));
    key = random_bytes(16);
    keystore.keep_secret("k", key);
    expected = openssl::cipher("DES-EDE-ECB", Direction::kEncrypt, key, {}, data);
    ASSERT_EQ(des(KS_OP_3DES_ENCRYPT, name, data).of(keystore), success(expected));
    ASSERT_EQ(des(KS_OP_3DES_DECRYPT, name, expected).of(keystore), success(data));
    key = random_bytes(24);
    keystore.keep_secret("k", key);
    expected = openssl::cipher("DES-EDE3-ECB", Direction::kEncrypt, key, {}, data);
    ASSERT_EQ(des(KS_OP_3DES_ENCRYPT, name, data).of(keystore), success(expected));
    ASSERT_EQ(des(KS_OP_3DES_DECRYPT, name, expected).of(keystore), success(data));
  }
}

TEST_F(OpenSsl, AgreesOnHmacsForEveryLengthOfDataAndManyOfKeys) {
  for (size_t size = 1; size <= 1024; ++size) {
    SCOPED_TRACE(size);
    const ByteString data = random_bytes(size);
    const ByteString key = random_bytes(1 + size % 200);
    keystore.keep_secret("k", key);
    ASSERT_EQ(hmac(KS_OP_HMAC_MD5, name, data).of(keystore), success(openssl::hmac("MD5", key, data)));
    ASSERT_EQ(hmac(KS_OP_HMAC_SHA1, name, data).of(keystore), success(openssl::hmac("SHA1", key, data)));
  }
}

TEST_F(OpenSsl, AgreesOnDigestsForEveryLengthOfPieces) {
  for (size_t size = 1; size <= 1024; ++size) {
    SCOPED_TRACE(size);
    const ByteString whole = random_bytes(size);
    const size_t cut = generator() % (size + 1);
    const ByteString secret = random_bytes(1 + size % 200);
    keystore.keep_secret("k", secret);
    const ByteString first = part(whole, 0, cut);
    const ByteString second = part(whole, cut, size);
    ASSERT_EQ(hash(KS_OP_MD5, name, first, second).of(keystore),
              success(openssl::digest("MD5", first + secret + second)));
    ASSERT_EQ(hash(KS_OP_SHA1, name, first, second).of(keystore),
              success(openssl::digest("SHA1", first + secret + second)));
  }
}

TEST_F(OpenSsl, AgreesOnTPrfForEveryNumberOfBlocksAndPartsOfOne) {
  const ByteString key = random_bytes(32);
  const ByteString label = text("any label");
  const ByteString seed = random_bytes(64);
  keystore.keep_pac("k", key);
  for (size_t wanted = 1; wanted <= 5100; wanted += wanted < 100 ? 1 : 199) {
    ByteString output;
    ByteString block;
    for (uint8_t number = 1; output.size() < wanted; ++number) {
      block = openssl::hmac("SHA1", key, block + label + u8(0) + seed + u8(wanted >> 8) + u8(wanted) + u8(number));
      output = output + block;
    }
    ASSERT_EQ(t_prf(pac_name("k"), label, seed, wanted).of(keystore), success(part(output, 0, wanted))) << wanted;
  }
}

}  // namespace
}  // namespace ksd::handlers
