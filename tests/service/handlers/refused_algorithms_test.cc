// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// An algorithm that fails its self-test: its messages are refused, and no others.
#include "keystore.h"

namespace ksd::handlers {
namespace {

using crypto::Algorithm;
using crypto::AlgorithmSet;

struct Use {
  Algorithm algorithm;
  Asked asked;
};

std::vector<Use> one_of_each() {
  const ByteString key = secret_name("key16");
  const ByteString iv(16, 0);
  const ByteString challenge(16, 1);
  const ByteString response(24, 2);
  return {
      {Algorithm::kAesEcb, aes(KS_OP_AES_ENCRYPT, key, iv)},
      {Algorithm::kAesEcb, aes(KS_OP_AES_DECRYPT, key, iv)},
      {Algorithm::kAesCbc, aes_cbc(KS_OP_AES_CBC_ENCRYPT, key, iv, iv)},
      {Algorithm::kAesCbc, aes_cbc(KS_OP_AES_CBC_DECRYPT, key, iv, iv)},
      {Algorithm::kDes, des(KS_OP_DES_ENCRYPT, secret_name("key8"), iv)},
      {Algorithm::kDes, des(KS_OP_DES_DECRYPT, secret_name("key8"), iv)},
      {Algorithm::kTripleDes, des(KS_OP_3DES_ENCRYPT, key, iv)},
      {Algorithm::kTripleDes, des(KS_OP_3DES_DECRYPT, key, iv)},
      {Algorithm::kHmacMd5, hmac(KS_OP_HMAC_MD5, key, iv)},
      {Algorithm::kHmacSha1, hmac(KS_OP_HMAC_SHA1, key, iv)},
      {Algorithm::kMd5, hash(KS_OP_MD5, key, iv, {})},
      {Algorithm::kSha1, hash(KS_OP_SHA1, key, iv, {})},
      {Algorithm::kNtResponse, nt_response(key, challenge, challenge, text("u"))},
      {Algorithm::kAuthenticatorResponse, authenticator_response(key, response, challenge, challenge, text("u"))},
      {Algorithm::kNewPassword, new_password(key, text("n"))},
      {Algorithm::kOldHash, old_hash(key, key)},
      {Algorithm::kMasterKey, master_key(key, response)},
      {Algorithm::kTPrf, t_prf(pac_name("pac"), text("l"), {}, 20)},
  };
}

void fill(Keystore &keystore) {
  keystore.keep_secret("key16", text("0123456789abcdef"));
  keystore.keep_secret("key8", text("01234567"));
  keystore.keep_pac("pac", text("01234567"));
}

TEST(SelfTest, ThatPassesLeavesEveryMessageInUse) {
  Keystore keystore;
  fill(keystore);
  for (const Use &use : one_of_each()) EXPECT_EQ(use.asked.of(keystore).result, KS_SUCCESS) << use.asked.opcode;
}

TEST(SelfTest, ThatFailsHasItsMessagesAloneRefused) {
  for (size_t i = 0; i < static_cast<size_t>(Algorithm::kCount); ++i) {
    const auto failed = static_cast<Algorithm>(i);
    SCOPED_TRACE(algorithm_name(failed));
    Keystore keystore(AlgorithmSet().set().reset(i));
    fill(keystore);
    for (const Use &use : one_of_each()) {
      const KsResult expected = use.algorithm == failed ? KS_CRYPT_ERROR : KS_SUCCESS;
      EXPECT_EQ(use.asked.of(keystore).result, expected) << use.asked.opcode;
    }
  }
}

}  // namespace
}  // namespace ksd::handlers
