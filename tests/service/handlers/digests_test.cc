// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// The messages of MD5, SHA-1 and the two HMACs: published values, pieces, PACs.
#include "keystore.h"

namespace ksd::handlers {
namespace {

struct Digests : testing::Test {
  Keystore keystore;
  const ByteString name = secret_name("k");

  // expect_in_all_pieces cuts a text into first piece, secret and second piece in every way.
  void expect_in_all_pieces(uint32_t opcode, const published::DigestVector &vector) {
    const ByteString whole = text(vector.text);
    for (size_t from = 0; from < whole.size(); ++from) {
      for (size_t to = from + 1; to <= whole.size(); ++to) {
        if (from == 0 && to == whole.size()) continue;  // refused: there would be no piece
        keystore.keep_secret("k", part(whole, from, to));
        ASSERT_EQ(hash(opcode, name, part(whole, 0, from), part(whole, to, whole.size())).of(keystore),
                  success(unhex(vector.digest)))
            << from << " to " << to;
      }
    }
  }
};

TEST_F(Digests, Md5TakesTheSecretBetweenTheTwoPieces) {
  for (const auto &vector : published::kMd5) expect_in_all_pieces(KS_OP_MD5, vector);
}

TEST_F(Digests, Sha1TakesTheSecretBetweenTheTwoPieces) {
  for (const auto &vector : published::kSha1) expect_in_all_pieces(KS_OP_SHA1, vector);
}

TEST_F(Digests, ASecretIsNotDigestedAlone) {
  keystore.keep_secret("k", text("abc"));
  EXPECT_EQ(hash(KS_OP_MD5, name, {}, {}).of(keystore), refusal(KS_INVALID_ARGS));
  EXPECT_EQ(hash(KS_OP_SHA1, name, {}, {}).of(keystore), refusal(KS_INVALID_ARGS));
}

TEST_F(Digests, HmacsComputeThePublishedValues) {
  for (const auto &vector : published::hmac_md5()) {
    keystore.keep_secret("k", vector.key);
    EXPECT_EQ(hmac(KS_OP_HMAC_MD5, name, vector.data).of(keystore), success(unhex(vector.digest)));
  }
  for (const auto &vector : published::hmac_sha1()) {
    keystore.keep_secret("k", vector.key);
    EXPECT_EQ(hmac(KS_OP_HMAC_SHA1, name, vector.data).of(keystore), success(unhex(vector.digest)));
  }
}

TEST_F(Digests, HmacTakesThePacsKeyWhenTheTagSaysPac) {
  keystore.keep_secret("k", text("a secret of the same name"));
  keystore.keep_pac("k", text("Jefe"));
  const ByteString data = text("what do ya want for nothing?");
  EXPECT_EQ(hmac(KS_OP_HMAC_SHA1, pac_name("k"), data).of(keystore),
            success(unhex("effcdf6ae5eb2fa2d27416d5f184df9c259a7c79")));
  EXPECT_EQ(hmac(KS_OP_HMAC_MD5, pac_name("k"), data).of(keystore), success(unhex("750c783e6ab0b503eaa86e310a5db738")));
}

TEST_F(Digests, HmacOfNothingIsRefused) {
  keystore.keep_secret("k", text("Jefe"));
  EXPECT_EQ(hmac(KS_OP_HMAC_MD5, name, {}).of(keystore), refusal(KS_INVALID_ARGS));
  EXPECT_EQ(hmac(KS_OP_HMAC_SHA1, name, {}).of(keystore), refusal(KS_INVALID_ARGS));
}

}  // namespace
}  // namespace ksd::handlers
