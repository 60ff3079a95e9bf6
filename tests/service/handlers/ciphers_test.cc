// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// The messages of AES, DES and 3DES: published values, keys that are refused, lengths.
#include "keystore.h"

namespace ksd::handlers {
namespace {

constexpr uint32_t kAesOpcodes[] = {KS_OP_AES_ENCRYPT, KS_OP_AES_DECRYPT};
constexpr uint32_t kAesCbcOpcodes[] = {KS_OP_AES_CBC_ENCRYPT, KS_OP_AES_CBC_DECRYPT};
constexpr uint32_t kDesOpcodes[] = {KS_OP_DES_ENCRYPT, KS_OP_DES_DECRYPT};
constexpr uint32_t kTripleDesOpcodes[] = {KS_OP_3DES_ENCRYPT, KS_OP_3DES_DECRYPT};

struct Ciphers : testing::Test {
  Keystore keystore;
  const ByteString name = secret_name("k");

  void use_key(const ByteString &key) { keystore.keep_secret("k", key); }

  Answer encrypted(uint32_t opcode, const ByteString &data) { return des(opcode, name, data).of(keystore); }
};

TEST_F(Ciphers, AesEncryptsAndDecryptsThePublishedBlocks) {
  std::vector<published::CipherVector> vectors(std::begin(published::kFips197), std::end(published::kFips197));
  vectors.insert(vectors.end(), std::begin(published::kSp80038aEcb), std::end(published::kSp80038aEcb));
  for (const auto &vector : vectors) {
    use_key(unhex(vector.key));
    EXPECT_EQ(aes(KS_OP_AES_ENCRYPT, name, unhex(vector.plain)).of(keystore), success(unhex(vector.cipher)));
    EXPECT_EQ(aes(KS_OP_AES_DECRYPT, name, unhex(vector.cipher)).of(keystore), success(unhex(vector.plain)));
  }
}

TEST_F(Ciphers, CbcRepliesTheLastCiphertextBlockAsTheIvInBothDirections) {
  const ByteString iv = unhex(published::kSp80038aIv);
  for (const auto &vector : published::kSp80038aCbc) {
    use_key(unhex(vector.key));
    const ByteString plain = unhex(vector.plain);
    const ByteString cipher = unhex(vector.cipher);
    const ByteString last = part(cipher, 48, 64);
    EXPECT_EQ(aes_cbc(KS_OP_AES_CBC_ENCRYPT, name, iv, plain).of(keystore), success(last + cipher));
    EXPECT_EQ(aes_cbc(KS_OP_AES_CBC_DECRYPT, name, iv, cipher).of(keystore), success(last + plain));
  }
}

TEST_F(Ciphers, CbcInChainedCallsEqualsOneCall) {
  const auto &vector = published::kSp80038aCbc[2];
  use_key(unhex(vector.key));
  const ByteString plain = unhex(vector.plain);
  const ByteString cipher = unhex(vector.cipher);
  for (const auto &[opcode, in, out] :
       {std::tuple(KS_OP_AES_CBC_ENCRYPT, plain, cipher), std::tuple(KS_OP_AES_CBC_DECRYPT, cipher, plain)}) {
    ByteString iv = unhex(published::kSp80038aIv);
    ByteString together;
    for (size_t at = 0; at < in.size(); at += 32) {
      const Answer answer = aes_cbc(opcode, name, iv, part(in, at, at + 32)).of(keystore);
      ASSERT_EQ(answer.data.size(), 48u);
      iv = part(answer.data, 0, 16);
      together = together + part(answer.data, 16, 48);
    }
    EXPECT_EQ(together, out);
  }
}

TEST_F(Ciphers, DesTakesThePublishedKeysWeakOnesToo) {
  for (const auto &vector : published::kDes) {
    use_key(unhex(vector.key));
    EXPECT_EQ(encrypted(KS_OP_DES_ENCRYPT, unhex(vector.plain)), success(unhex(vector.cipher)));
    EXPECT_EQ(encrypted(KS_OP_DES_DECRYPT, unhex(vector.cipher)), success(unhex(vector.plain)));
  }
}

TEST_F(Ciphers, DesIgnoresParityBits) {
  use_key(unhex("7da011444b1b6f56"));  // the lowest bit of each byte of a published key turned over
  EXPECT_EQ(encrypted(KS_OP_DES_ENCRYPT, unhex("01a1d6d039776742")), success(unhex("690f5b0d9a26939b")));
}

TEST_F(Ciphers, TripleDesComputesThePublishedExample) {
  for (const auto &vector : published::kTripleDes) {
    use_key(unhex(vector.key));
    EXPECT_EQ(encrypted(KS_OP_3DES_ENCRYPT, unhex(vector.plain)), success(unhex(vector.cipher)));
    EXPECT_EQ(encrypted(KS_OP_3DES_DECRYPT, unhex(vector.cipher)), success(unhex(vector.plain)));
  }
}

TEST_F(Ciphers, TripleDesWithEqualPartsIsDesWhetherOfTwoPartsOrThree) {
  for (const auto &vector : published::kDes) {
    const ByteString third = unhex(vector.key);
    for (const ByteString &key : {third + third, third + third + third}) {
      use_key(key);
      EXPECT_EQ(encrypted(KS_OP_3DES_ENCRYPT, unhex(vector.plain)), success(unhex(vector.cipher)));
      EXPECT_EQ(encrypted(KS_OP_3DES_DECRYPT, unhex(vector.cipher)), success(unhex(vector.plain)));
    }
  }
}

TEST_F(Ciphers, TripleDesOfTwoPartsUsesTheFirstAgain) {
  const ByteString data = text("two parts");
  const ByteString one = unhex("0123456789abcdef");
  const ByteString two = unhex("23456789abcdef01");
  use_key(one + two + one);
  const Answer with_three = encrypted(KS_OP_3DES_ENCRYPT, part(data, 0, 8));
  use_key(one + two);
  EXPECT_EQ(encrypted(KS_OP_3DES_ENCRYPT, part(data, 0, 8)), with_three);
}

TEST_F(Ciphers, RefuseKeysOfAnyOtherSize) {
  const ByteString block(16, 0x11);
  for (size_t size = 1; size <= 64; ++size) {
    SCOPED_TRACE(size);
    use_key(ByteString(size, 0x5a));
    const KsResult for_aes = size == 16 || size == 24 || size == 32 ? KS_SUCCESS : KS_KEY_LEN_UNSUPPORTED;
    const KsResult for_des = size == 8 ? KS_SUCCESS : KS_BAD_KEY;
    const KsResult for_triple_des = size == 16 || size == 24 ? KS_SUCCESS : KS_BAD_KEY;
    for (const uint32_t opcode : kAesOpcodes) EXPECT_EQ(aes(opcode, name, block).of(keystore).result, for_aes);
    for (const uint32_t opcode : kAesCbcOpcodes) {
      EXPECT_EQ(aes_cbc(opcode, name, block, block).of(keystore).result, for_aes);
    }
    for (const uint32_t opcode : kDesOpcodes) EXPECT_EQ(encrypted(opcode, block).result, for_des);
    for (const uint32_t opcode : kTripleDesOpcodes) EXPECT_EQ(encrypted(opcode, block).result, for_triple_des);
  }
}

TEST_F(Ciphers, RefuseDataThatIsNoMultipleOfTheBlock) {
  const ByteString iv(16, 0);
  for (size_t size = 1; size < 64; ++size) {
    SCOPED_TRACE(size);
    const ByteString data(size, 0x11);
    const KsResult for_aes = size % 16 == 0 ? KS_SUCCESS : KS_INVALID_ARGS;
    const KsResult for_des = size % 8 == 0 ? KS_SUCCESS : KS_INVALID_ARGS;
    use_key(ByteString(16, 0x5a));
    for (const uint32_t opcode : kAesOpcodes) EXPECT_EQ(aes(opcode, name, data).of(keystore).result, for_aes);
    for (const uint32_t opcode : kAesCbcOpcodes) {
      EXPECT_EQ(aes_cbc(opcode, name, iv, data).of(keystore).result, for_aes);
    }
    for (const uint32_t opcode : kTripleDesOpcodes) EXPECT_EQ(encrypted(opcode, data).result, for_des);
    use_key(ByteString(8, 0x5a));
    for (const uint32_t opcode : kDesOpcodes) EXPECT_EQ(encrypted(opcode, data).result, for_des);
  }
}

TEST_F(Ciphers, OnlyAesWithoutIvTakesNoDataAtAll) {
  use_key(ByteString(16, 0x5a));
  for (const uint32_t opcode : kAesOpcodes) EXPECT_EQ(aes(opcode, name, {}).of(keystore), success({}));
  for (const uint32_t opcode : kAesCbcOpcodes) {
    EXPECT_EQ(aes_cbc(opcode, name, ByteString(16, 0), {}).of(keystore), refusal(KS_INVALID_ARGS));
  }
  for (const uint32_t opcode : kTripleDesOpcodes) EXPECT_EQ(encrypted(opcode, {}), refusal(KS_INVALID_ARGS));
}

TEST_F(Ciphers, RefuseAnIvThatIsNot16BytesLong) {
  use_key(ByteString(16, 0x5a));
  for (const size_t size : {0u, 1u, 15u, 17u, 32u, 255u}) {
    EXPECT_EQ(aes_cbc(KS_OP_AES_CBC_ENCRYPT, name, ByteString(size, 0), ByteString(16, 0)).of(keystore),
              refusal(KS_INVALID_ARGS));
  }
}

TEST_F(Ciphers, LongestDataFitsAnEcbReplyButNotACbcReplyWhichHasTheIvToo) {
  use_key(ByteString(16, 0x5a));
  const ByteString iv(16, 0);
  EXPECT_EQ(aes(KS_OP_AES_ENCRYPT, name, ByteString(65520, 0)).of(keystore).data.size(), 65520u);
  EXPECT_EQ(aes_cbc(KS_OP_AES_CBC_ENCRYPT, name, iv, ByteString(65504, 0)).of(keystore).data.size(), 65520u);
  EXPECT_EQ(aes_cbc(KS_OP_AES_CBC_ENCRYPT, name, iv, ByteString(65520, 0)).of(keystore), refusal(KS_RPC_TOO_LARGE));
}

}  // namespace
}  // namespace ksd::handlers
