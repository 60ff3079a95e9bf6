// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// The messages of MS-CHAP: the published exchange with its intermediate values, passwords of all kinds, user names.
#include "keystore.h"
#include "openssl.h"

namespace ksd::handlers {
namespace {

using openssl::Direction;
namespace vectors = published::mschap;

struct Mschap : testing::Test {
  Keystore keystore;
  const ByteString name = secret_name("pw");
  const ByteString authenticator = unhex(vectors::kAuthenticatorChallenge);
  const ByteString peer = unhex(vectors::kPeerChallenge);
  const ByteString user = text(vectors::kUserName);
  const ByteString response = unhex(vectors::kNtResponse);

  void use_password(const ByteString &utf8) { keystore.keep_secret("pw", utf8); }

  // key56 spreads 7 bytes over the 8 of a DES key by bits, as the text of the standard has it.
  static ByteString key56(const ByteString &seven) {
    ByteString eight(8);
    for (size_t bit = 0; bit < 56; ++bit) {
      if (seven[bit / 8] >> (7 - bit % 8) & 1) eight[bit / 7] |= static_cast<uint8_t>(1 << (7 - bit % 7));
    }
    return eight;
  }

  // response_by_openssl is GenerateNTResponse on the password's UTF-16.
  ByteString response_by_openssl(const ByteString &utf16, const ByteString &user_name) const {
    const ByteString challenge = part(openssl::digest("SHA1", peer + authenticator + user_name), 0, 8);
    const ByteString hash = openssl::digest("MD4", utf16) + ByteString(5, 0);
    ByteString whole;
    for (size_t i = 0; i < 21; i += 7) {
      whole = whole + openssl::cipher("DES-ECB", Direction::kEncrypt, key56(part(hash, i, i + 7)), {}, challenge);
    }
    return whole;
  }

  // opened is the clear block of a new password, decrypted under the old one's UTF-16.
  static ByteString opened(const ByteString &block, const ByteString &old_utf16) {
    return openssl::cipher("RC4", Direction::kDecrypt, openssl::digest("MD4", old_utf16), {}, block);
  }
};

TEST_F(Mschap, ComputesThePublishedExchange) {
  use_password(text(vectors::kPassword));
  EXPECT_EQ(nt_response(name, authenticator, peer, user).of(keystore), success(response));
  EXPECT_EQ(authenticator_response(name, response, authenticator, peer, user).of(keystore),
            success(text(vectors::kAuthenticatorResponse)));
  EXPECT_EQ(master_key(name, response).of(keystore), success(unhex(vectors::kMasterKey)));
}

TEST_F(Mschap, ShowsThePublishedIntermediateValuesThroughItsReplies) {
  use_password(text(vectors::kPassword));
  // The hash of the password is the key of the NT response, the hash of the hash goes into the master key.
  const ByteString hash = unhex(vectors::kPasswordHash);
  EXPECT_EQ(openssl::digest("MD4", hash), unhex(vectors::kPasswordHashHash));
  EXPECT_EQ(
      part(openssl::digest("SHA1", unhex(vectors::kPasswordHashHash) + response + text("This is the MPPE Master Key")),
           0, 16),
      master_key(name, response).of(keystore).data);
  const ByteString challenge = unhex("d02e4386bce91226");
  EXPECT_EQ(openssl::cipher("DES-ECB", Direction::kDecrypt, key56(part(hash, 0, 7)), {},
                            part(nt_response(name, authenticator, peer, user).of(keystore).data, 0, 8)),
            challenge);
}

TEST_F(Mschap, OldHashOpensWithThePublishedDesKeysOfTheNewPassword) {
  use_password(text(vectors::kPassword));
  keystore.keep_secret("new", text(vectors::kOtherPassword));
  const Answer answer = old_hash(secret_name("new"), name).of(keystore);
  ASSERT_EQ(answer.data.size(), 16u);
  EXPECT_EQ(
      openssl::cipher("DES-ECB", Direction::kDecrypt, unhex(vectors::kOtherFirstDesKey), {}, part(answer.data, 0, 8)) +
          openssl::cipher("DES-ECB", Direction::kDecrypt, unhex(vectors::kOtherSecondDesKey), {},
                          part(answer.data, 8, 16)),
      unhex(vectors::kPasswordHash));
}

TEST_F(Mschap, NewPasswordStandsAtTheEndOfItsBlockBehindRandomBytes) {
  use_password(text(vectors::kPassword));
  const ByteString old_utf16 = unhex("63006c00690065006e0074005000610073007300");
  const ByteString first = new_password(name, text("MyPw")).of(keystore).data;
  const ByteString second = new_password(name, text("MyPw")).of(keystore).data;
  ASSERT_EQ(first.size(), 516u);
  ASSERT_EQ(second.size(), 516u);
  const ByteString clear = opened(first, old_utf16);
  EXPECT_EQ(part(clear, 504, 516), unhex("4d00790050007700 08000000"));
  EXPECT_NE(part(clear, 0, 504), part(opened(second, old_utf16), 0, 504));
}

TEST_F(Mschap, NewPasswordOf256BytesIsToldAsZeroAndEndsWithTheMessage) {
  use_password(text("old"));
  const ByteString longest(256, 'x');
  const Answer answer = new_password(name, longest).of(keystore);
  ASSERT_EQ(answer.data.size(), 516u);
  const ByteString clear = opened(answer.data, unhex("6f006c006400"));
  for (size_t i = 0; i < 512; i += 2) ASSERT_EQ(part(clear, i, i + 2), unhex("7800"));
  EXPECT_EQ(part(clear, 512, 516), unhex("00020000"));
}

TEST_F(Mschap, NewPasswordToldAsZeroIsRefusedUnlessExactly256BytesEndTheMessage) {
  use_password(text("old"));
  for (const size_t size : {0u, 1u, 255u, 257u, 512u}) {
    const Asked asked{KS_OP_NEW_PASSWORD_ENCRYPTED, unhex("06 08 00 ee 0e000000"), name + ByteString(size, 'x')};
    EXPECT_EQ(asked.of(keystore), refusal(KS_INVALID_ARGS)) << size;
  }
}

TEST_F(Mschap, NewPasswordIsConvertedFromUtf8) {
  use_password(text("old"));
  // u with two dots, the Euro sign, and a musical clef beyond 16 bits
  const Answer answer = new_password(name, unhex("c3bc e282ac f09d849e")).of(keystore);
  ASSERT_EQ(answer.data.size(), 516u);
  EXPECT_EQ(part(opened(answer.data, unhex("6f006c006400")), 504, 516), unhex("fc00 ac20 34d81edd 08000000"));
}

TEST_F(Mschap, NewPasswordThatIsNoUtf8IsRefused) {
  use_password(text("old"));
  EXPECT_EQ(new_password(name, unhex("6162ff")).of(keystore), refusal(KS_INVALID_ARGS));
  EXPECT_EQ(new_password(name, unhex("c3")).of(keystore), refusal(KS_INVALID_ARGS));
}

TEST_F(Mschap, StoredPasswordIsConvertedFromUtf8) {
  use_password(unhex("c3bc e282ac f09d849e"));
  EXPECT_EQ(nt_response(name, authenticator, peer, user).of(keystore),
            success(response_by_openssl(unhex("fc00 ac20 34d81edd"), user)));
}

TEST_F(Mschap, StoredPasswordOf256CharactersIsTheLongest) {
  use_password(ByteString(256, 'x'));
  ByteString utf16;
  for (int i = 0; i < 256; ++i) utf16 = utf16 + unhex("7800");
  EXPECT_EQ(nt_response(name, authenticator, peer, user).of(keystore), success(response_by_openssl(utf16, user)));
  use_password(ByteString(257, 'x'));
  EXPECT_EQ(nt_response(name, authenticator, peer, user).of(keystore), refusal(KS_BAD_KEY));
}

TEST_F(Mschap, SecretThatIsNoPasswordIsABadKeyForAllFive) {
  use_password(unhex("ff00ff00"));
  keystore.keep_secret("good", text("good"));
  const ByteString good = secret_name("good");
  EXPECT_EQ(nt_response(name, authenticator, peer, user).of(keystore), refusal(KS_BAD_KEY));
  EXPECT_EQ(authenticator_response(name, response, authenticator, peer, user).of(keystore), refusal(KS_BAD_KEY));
  EXPECT_EQ(master_key(name, response).of(keystore), refusal(KS_BAD_KEY));
  EXPECT_EQ(new_password(name, text("x")).of(keystore), refusal(KS_BAD_KEY));
  EXPECT_EQ(old_hash(name, good).of(keystore), refusal(KS_BAD_KEY));
  EXPECT_EQ(old_hash(good, name).of(keystore), refusal(KS_BAD_KEY));
}

TEST_F(Mschap, UserNameHas0To255Bytes) {
  use_password(text("x"));
  for (const size_t size : {0u, 1u, 44u, 255u}) {
    const ByteString user_name(size, 'u');
    EXPECT_EQ(nt_response(name, authenticator, peer, user_name).of(keystore),
              success(response_by_openssl(unhex("7800"), user_name)))
        << size;
  }
}

TEST_F(Mschap, UserNameOf256CharactersArrivesEmptyAndIsTakenSo) {
  // The library tells its length modulo 256 and sends as many: the bytes of an empty name.
  use_password(text("x"));
  const Asked asked{KS_OP_GENERATE_NT_RESPONSE,
                    unhex("1800 06 1c 10eeeeee 22000000 10eeeeee 32000000 00eeeeee 42000000"),
                    name + authenticator + peer};
  EXPECT_EQ(asked.of(keystore), success(response_by_openssl(unhex("7800"), {})));
}

TEST_F(Mschap, ReplyLengthAskedForMustBeTheOneThatThereIs) {
  use_password(text("x"));
  for (const size_t wrong : {0u, 23u, 25u, 0xffffu}) {
    Asked asked = nt_response(name, authenticator, peer, user);
    asked.descriptor = u16(wrong) + part(asked.descriptor, 2, asked.descriptor.size());
    EXPECT_EQ(asked.of(keystore), refusal(KS_INVALID_ARGS));
    asked = authenticator_response(name, response, authenticator, peer, user);
    asked.descriptor = u16(wrong) + part(asked.descriptor, 2, asked.descriptor.size());
    EXPECT_EQ(asked.of(keystore), refusal(KS_INVALID_ARGS));
  }
}

TEST_F(Mschap, ChallengesAndResponsesOfOtherSizesAreRefused) {
  use_password(text("x"));
  EXPECT_EQ(master_key(name, ByteString(23, 0)).of(keystore), refusal(KS_INVALID_ARGS));
  EXPECT_EQ(master_key(name, ByteString(25, 0)).of(keystore), refusal(KS_INVALID_ARGS));
  for (const size_t field : {4u, 12u}) {  // the lengths of the two challenges
    for (const uint8_t wrong : std::initializer_list<uint8_t>{0, 15, 17}) {
      Asked asked = nt_response(name, authenticator, peer, user);
      asked.descriptor[field] = wrong;
      EXPECT_EQ(asked.of(keystore), refusal(KS_INVALID_ARGS));
    }
  }
  Asked asked = authenticator_response(name, response, authenticator, peer, user);
  asked.descriptor[28] = 23;
  EXPECT_EQ(asked.of(keystore), refusal(KS_INVALID_ARGS));
}

}  // namespace
}  // namespace ksd::handlers
