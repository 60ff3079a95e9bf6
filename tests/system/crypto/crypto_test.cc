// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// Cryptography end to end: the library, the message service and a real daemon, held to published values and to OpenSSL.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>

#include "ks_api.h"
#include "openssl_command.h"
#include "published_vectors.h"
#include "random_input.h"
#include "service/library_suite.h"
#include "service/raw_client.h"
#include "service/service_process.h"

namespace {

using published::ByteString;
using published::text;
using published::unhex;

ByteString operator+(ByteString a, const ByteString &b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

ByteString part(const ByteString &whole, size_t from, size_t to) {
  return {whole.begin() + static_cast<ptrdiff_t>(from), whole.begin() + static_cast<ptrdiff_t>(to)};
}

uint8_t size8(const ByteString &bytes) {
  return static_cast<uint8_t>(bytes.size());
}
ByteString u16(size_t value) {
  return {static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8)};
}
ByteString u32(size_t value) {
  return u16(value) + u16(value >> 16);
}

uint16_t size16(const ByteString &bytes) {
  return static_cast<uint16_t>(bytes.size());
}

// Quiet turns standard error away while it lives: DES encryption prints every request there.
class Quiet {
 public:
  Quiet() : before_(dup(STDERR_FILENO)) {
    const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    dup2(null, STDERR_FILENO);
    close(null);
  }
  ~Quiet() {
    fflush(stderr);
    dup2(before_, STDERR_FILENO);
    close(before_);
  }
  Quiet(const Quiet &) = delete;
  Quiet &operator=(const Quiet &) = delete;

 private:
  int before_;
};

class Crypto : public ks_test::LibrarySuite {
 protected:
  static void SetUpTestSuite() {
    LibrarySuite::SetUpTestSuite();
    raw_ = new ks_test::RawClient(service->socket());
    raw_->hello();
  }

  // Secrets and PACs are put there by a client without the library: theirs is another subsystem.

  static void keep(const std::string &name, const ByteString &secret) {
    const ByteString wire = unhex("30000007") + text(name);
    ASSERT_EQ(
        raw_->exchange(KS_OP_STORE_SECRET,
                       ByteString{size8(wire), 12, 0, static_cast<uint8_t>(12 + wire.size())} + u16(secret.size()) +
                           u16(12 + wire.size()) + u16(0) + u16(12 + wire.size() + secret.size()),
                       wire + secret)
            .result(),
        KS_SUCCESS);
  }

  static void keep_pac(const ByteString &aid, const ByteString &key) {
    const ByteString wire = unhex("31000007") + aid;
    const ByteString metadata = unhex("0002000161 00090000");
    ASSERT_EQ(raw_->exchange(KS_OP_STORE_PAC,
                             ByteString{size8(wire), 20, 0, 0} + u32(key.size()) + u32(20 + wire.size()) +
                                 u32(metadata.size()) + u32(20 + wire.size() + key.size()),
                             wire + key + metadata)
                  .result(),
              KS_SUCCESS);
  }

  static void remove(const std::string &name) {
    const ByteString wire = unhex("30000007") + text(name);
    ASSERT_EQ(raw_->exchange(KS_OP_CLEAR, ByteString{size8(wire), 2}, wire).result(), KS_SUCCESS);
  }

  // The operations as functions that give their output; nothing when the answer isn't KS_SUCCESS, which result() tells.

  using AesOperation = KsResult(const char *, const uint8_t *, uint8_t *, uint16_t);
  ByteString aes(AesOperation *operation, const ByteString &in) {
    ByteString out(in.size());
    result_ = operation("k", in.data(), out.data(), size16(in));
    return given(out);
  }

  using CbcOperation = KsResult(const char *, uint8_t *, const uint8_t *, uint16_t, uint8_t *);
  ByteString cbc(CbcOperation *operation, ByteString &iv, const ByteString &in) {
    ByteString out(in.size());
    result_ = operation("k", iv.data(), in.data(), size16(in), out.data());
    return given(out);
  }

  using DesOperation = KsResult(const char *, const uint8_t *, uint16_t, uint8_t *, uint16_t);
  ByteString des(DesOperation *operation, const ByteString &in) {
    ByteString out(in.size());
    result_ = operation("k", in.data(), size16(in), out.data(), size16(in));
    return given(out);
  }

  using HashOperation = KsResult(const char *, const uint8_t *, uint16_t, const uint8_t *, uint16_t, uint8_t *);
  ByteString hash(HashOperation *operation, size_t size, const ByteString &first, const ByteString &second) {
    ByteString out(size);
    result_ = operation("k", first.data(), size16(first), second.data(), size16(second), out.data());
    return given(out);
  }

  using HmacOperation = KsResult(const char *, const uint8_t *, uint16_t, uint8_t *);
  ByteString hmac(HmacOperation *operation, size_t size, const ByteString &data) {
    ByteString out(size);
    result_ = operation("k", data.data(), size16(data), out.data());
    return given(out);
  }

  ByteString nt_response(const std::string &user_name) {
    ByteString out(24);
    result_ = ks_GenerateNTResponse("k", authenticator_.data(), peer_.data(), user_name.c_str(), out.data());
    return given(out);
  }

  // nt_response_by_openssl is what RFC 2759 says, for a password in UTF-16.
  ByteString nt_response_by_openssl(const ByteString &utf16, const std::string &user_name) {
    const ByteString challenge = part(openssl::digests("sha1", {peer_ + authenticator_ + text(user_name)})[0], 0, 8);
    const ByteString hash = openssl::digests("md4", {utf16})[0] + ByteString(5, 0);
    ByteString whole;
    for (size_t i = 0; i < 21; i += 7) {
      whole = whole + openssl::encrypt("des-ecb", key56(part(hash, i, i + 7)), {}, challenge);
    }
    return whole;
  }

  KsResult result() const { return result_; }

  ByteString random_bytes(size_t size) {
    ByteString bytes(size);
    for (uint8_t &byte : bytes) byte = static_cast<uint8_t>(generator_());
    return bytes;
  }

  const ByteString authenticator_ = unhex(published::mschap::kAuthenticatorChallenge);
  const ByteString peer_ = unhex(published::mschap::kPeerChallenge);
  const ByteString response_ = unhex(published::mschap::kNtResponse);

 private:
  const ByteString &given(const ByteString &out) const {
    static const ByteString nothing;
    return result_ == KS_SUCCESS ? out : nothing;
  }

  static ByteString key56(const ByteString &seven) {
    ByteString eight(8);
    for (size_t bit = 0; bit < 56; ++bit) {
      if (seven[bit / 8] >> (7 - bit % 8) & 1) eight[bit / 7] |= static_cast<uint8_t>(1 << (7 - bit % 7));
    }
    return eight;
  }

  static ks_test::RawClient *raw_;
  KsResult result_ = KS_FAILURE;
  std::mt19937 generator_ = ks_test::random_input();
};

ks_test::RawClient *Crypto::raw_ = nullptr;

TEST_F(Crypto, AesComputesThePublishedValues) {
  std::vector<published::CipherVector> vectors(std::begin(published::kFips197), std::end(published::kFips197));
  vectors.insert(vectors.end(), std::begin(published::kSp80038aEcb), std::end(published::kSp80038aEcb));
  for (const auto &vector : vectors) {
    keep("k", unhex(vector.key));
    EXPECT_EQ(aes(ks_aes_encrypt, unhex(vector.plain)), unhex(vector.cipher));
    EXPECT_EQ(aes(ks_aes_decrypt, unhex(vector.cipher)), unhex(vector.plain));
  }
}

TEST_F(Crypto, AesCbcComputesThePublishedValuesInChainedCalls) {
  for (const auto &vector : published::kSp80038aCbc) {
    keep("k", unhex(vector.key));
    const ByteString plain = unhex(vector.plain);
    const ByteString cipher = unhex(vector.cipher);
    for (const size_t piece : {16u, 32u, 64u}) {
      ByteString iv = unhex(published::kSp80038aIv);
      ByteString back_iv = iv;
      for (size_t at = 0; at < plain.size(); at += piece) {
        EXPECT_EQ(cbc(ks_aes_cbc_encrypt, iv, part(plain, at, at + piece)), part(cipher, at, at + piece));
        EXPECT_EQ(cbc(ks_aes_cbc_decrypt, back_iv, part(cipher, at, at + piece)), part(plain, at, at + piece));
        EXPECT_EQ(iv, part(cipher, at + piece - 16, at + piece));
        EXPECT_EQ(back_iv, iv);
      }
    }
  }
}

// In both modes the ciphertext of a message's beginning is the beginning of its ciphertext, so one command computes
// what all lengths are compared with.
TEST_F(Crypto, AesAgreesWithOpenSslOnEveryAcceptedLength) {
  for (const size_t key_size : {16u, 24u, 32u}) {
    const ByteString key = random_bytes(key_size);
    const ByteString start = random_bytes(16);
    const ByteString plain = random_bytes(65520);
    const std::string name = "aes-" + std::to_string(8 * key_size);
    const ByteString ecb_cipher = openssl::encrypt(name + "-ecb", key, {}, plain);
    const ByteString cbc_cipher = openssl::encrypt(name + "-cbc", key, start, plain);
    keep("k", key);
    const size_t step = key_size == 16 ? 16 : 16 * 61;
    for (size_t size = step; size <= 65504; size += step) {
      SCOPED_TRACE(size);
      ByteString iv = start;
      ByteString back_iv = start;
      ASSERT_EQ(aes(ks_aes_encrypt, part(plain, 0, size)), part(ecb_cipher, 0, size));
      ASSERT_EQ(aes(ks_aes_decrypt, part(ecb_cipher, 0, size)), part(plain, 0, size));
      ASSERT_EQ(cbc(ks_aes_cbc_encrypt, iv, part(plain, 0, size)), part(cbc_cipher, 0, size));
      ASSERT_EQ(cbc(ks_aes_cbc_decrypt, back_iv, part(cbc_cipher, 0, size)), part(plain, 0, size));
    }
    EXPECT_EQ(aes(ks_aes_encrypt, plain), ecb_cipher);
    EXPECT_EQ(aes(ks_aes_decrypt, ecb_cipher), plain);
  }
}

TEST_F(Crypto, AesTakesNoDataAtAllButCbcHasNoReplyForTheLongest) {
  keep("k", ByteString(16, 1));
  uint8_t untouched = 0x55;
  EXPECT_EQ(ks_aes_encrypt("k", &untouched, &untouched, 0), KS_SUCCESS);
  EXPECT_EQ(untouched, 0x55);
  ByteString iv(16, 9);
  EXPECT_EQ(cbc(ks_aes_cbc_encrypt, iv, ByteString(65520, 0)), ByteString());
  EXPECT_EQ(result(), KS_RPC_TOO_LARGE);
  EXPECT_EQ(iv, ByteString(16, 9));
}

TEST_F(Crypto, DesAndTripleDesComputeThePublishedValues) {
  const Quiet quiet;
  for (const auto &vector : published::kDes) {
    const ByteString key = unhex(vector.key);
    keep("k", key);
    EXPECT_EQ(des(ks_des_ecb_encrypt, unhex(vector.plain)), unhex(vector.cipher));
    EXPECT_EQ(des(ks_des_ecb_decrypt, unhex(vector.cipher)), unhex(vector.plain));
    keep("k", key + key);
    EXPECT_EQ(des(ks_3des_ecb_encrypt, unhex(vector.plain)), unhex(vector.cipher));
  }
  for (const auto &vector : published::kTripleDes) {
    keep("k", unhex(vector.key));
    EXPECT_EQ(des(ks_3des_ecb_encrypt, unhex(vector.plain)), unhex(vector.cipher));
    EXPECT_EQ(des(ks_3des_ecb_decrypt, unhex(vector.cipher)), unhex(vector.plain));
  }
}

TEST_F(Crypto, DesAndTripleDesAgreeWithOpenSslOnEveryAcceptedLength) {
  struct Variant {
    const char *name;
    size_t key_size;
    DesOperation *encrypt, *decrypt;
  };
  for (const Variant &variant : {Variant{"des-ecb", 8, ks_des_ecb_encrypt, ks_des_ecb_decrypt},
                                 Variant{"des-ede", 16, ks_3des_ecb_encrypt, ks_3des_ecb_decrypt},
                                 Variant{"des-ede3", 24, ks_3des_ecb_encrypt, ks_3des_ecb_decrypt}}) {
    const ByteString key = random_bytes(variant.key_size);
    const ByteString plain = random_bytes(1024);
    const ByteString cipher = openssl::encrypt(variant.name, key, {}, plain);
    keep("k", key);
    const Quiet quiet;
    for (size_t size = 8; size <= 1024; size += 8) {
      ASSERT_EQ(des(variant.encrypt, part(plain, 0, size)), part(cipher, 0, size)) << variant.name << ", " << size;
      ASSERT_EQ(des(variant.decrypt, part(cipher, 0, size)), part(plain, 0, size)) << variant.name << ", " << size;
    }
  }
}

TEST_F(Crypto, KeysOfOtherSizesAreRefused) {
  const Quiet quiet;
  const ByteString block(16, 2);
  for (size_t size = 1; size <= 64; ++size) {
    SCOPED_TRACE(size);
    keep("k", ByteString(size, 3));
    const bool for_aes = size == 16 || size == 24 || size == 32;
    ByteString iv = block;
    aes(ks_aes_encrypt, block);
    EXPECT_EQ(result(), for_aes ? KS_SUCCESS : KS_KEY_LEN_UNSUPPORTED);
    cbc(ks_aes_cbc_decrypt, iv, block);
    EXPECT_EQ(result(), for_aes ? KS_SUCCESS : KS_KEY_LEN_UNSUPPORTED);
    des(ks_des_ecb_encrypt, block);
    EXPECT_EQ(result(), size == 8 ? KS_SUCCESS : KS_BAD_KEY);
    des(ks_3des_ecb_decrypt, block);
    EXPECT_EQ(result(), size == 16 || size == 24 ? KS_SUCCESS : KS_BAD_KEY);
  }
}

TEST_F(Crypto, DigestsComputeThePublishedValuesWithTheSecretInFrontBehindAndBetween) {
  const auto in_three_places = [&](HashOperation *operation, const published::DigestVector &vector) {
    const ByteString whole = text(vector.text);
    const ByteString digest = unhex(vector.digest);
    for (size_t cut = 1; cut < whole.size(); cut += 9) {  // every place: the tests of the service
      keep("k", part(whole, 0, cut));
      EXPECT_EQ(hash(operation, digest.size(), {}, part(whole, cut, whole.size())), digest);
      keep("k", part(whole, cut, whole.size()));
      EXPECT_EQ(hash(operation, digest.size(), part(whole, 0, cut), {}), digest);
      keep("k", part(whole, cut, cut + 1));
      EXPECT_EQ(hash(operation, digest.size(), part(whole, 0, cut), part(whole, cut + 1, whole.size())), digest);
    }
  };
  for (const auto &vector : published::kMd5) in_three_places(ks_md5_hash, vector);
  for (const auto &vector : published::kSha1) in_three_places(ks_sha1_hash, vector);
}

TEST_F(Crypto, DigestsAndHmacsAgreeWithOpenSslOnEveryAcceptedLength) {
  const ByteString secret = random_bytes(40);
  const ByteString data = random_bytes(1024);
  std::vector<ByteString> texts;
  std::vector<ByteString> around;
  for (size_t size = 1; size <= data.size(); ++size) {
    texts.push_back(part(data, 0, size));
    around.push_back(part(data, 0, size / 3) + secret + part(data, size / 3, size));
  }
  const auto md5s = openssl::digests("md5", around);
  const auto sha1s = openssl::digests("sha1", around);
  const auto hmac_md5s = openssl::hmacs("md5", secret, texts);
  const auto hmac_sha1s = openssl::hmacs("sha1", secret, texts);
  keep("k", secret);
  for (size_t size = 1; size <= data.size(); ++size) {
    SCOPED_TRACE(size);
    const ByteString first = part(data, 0, size / 3);
    const ByteString second = part(data, size / 3, size);
    ASSERT_EQ(hash(ks_md5_hash, 16, first, second), md5s[size - 1]);
    ASSERT_EQ(hash(ks_sha1_hash, 20, first, second), sha1s[size - 1]);
    ASSERT_EQ(hmac(ks_hmac_md5, 16, texts[size - 1]), hmac_md5s[size - 1]);
    ASSERT_EQ(hmac(ks_hmac_sha1, 20, texts[size - 1]), hmac_sha1s[size - 1]);
  }
}

TEST_F(Crypto, HmacsComputeThePublishedValuesWithSecretsAndPacs) {
  for (const auto &vector : published::hmac_md5()) {
    keep("k", vector.key);
    EXPECT_EQ(hmac(ks_hmac_md5, 16, vector.data), unhex(vector.digest));
  }
  const ByteString aid = unhex("00ff00");
  for (const auto &vector : published::hmac_sha1()) {
    keep("k", vector.key);
    EXPECT_EQ(hmac(ks_hmac_sha1, 20, vector.data), unhex(vector.digest));
    keep_pac(aid, vector.key);
    ByteString digest(20);
    EXPECT_EQ(ks_hmac_sha1_for_pac(aid.data(), 3, vector.data.data(), size16(vector.data), digest.data()), KS_SUCCESS);
    EXPECT_EQ(digest, unhex(vector.digest));
  }
}

TEST_F(Crypto, MschapComputesThePublishedExchange) {
  keep("k", text(published::mschap::kPassword));
  EXPECT_EQ(nt_response(published::mschap::kUserName), response_);
  ByteString authenticator_response(42);
  EXPECT_EQ(ks_GenerateAuthenticatorResponse("k", response_.data(), peer_.data(), authenticator_.data(),
                                             published::mschap::kUserName, authenticator_response.data()),
            KS_SUCCESS);
  EXPECT_EQ(authenticator_response, text(published::mschap::kAuthenticatorResponse));
  ByteString master_key(16);
  EXPECT_EQ(ks_GetMasterKey("k", response_.data(), master_key.data()), KS_SUCCESS);
  EXPECT_EQ(master_key, unhex(published::mschap::kMasterKey));
  keep("new", text(published::mschap::kOtherPassword));
  ByteString block(16);
  EXPECT_EQ(ks_OldNtPasswordHashEncryptedWithNewNtPasswordHash("new", "k", block.data()), KS_SUCCESS);
  EXPECT_EQ(openssl::decrypt("des-ecb", unhex(published::mschap::kOtherFirstDesKey), {}, part(block, 0, 8)) +
                openssl::decrypt("des-ecb", unhex(published::mschap::kOtherSecondDesKey), {}, part(block, 8, 16)),
            unhex(published::mschap::kPasswordHash));
}

TEST_F(Crypto, UserNamesAreCutToTheirLengthModulo256) {
  keep("k", text("x"));
  const ByteString utf16 = unhex("7800");
  EXPECT_EQ(nt_response(""), nt_response_by_openssl(utf16, ""));
  EXPECT_EQ(nt_response(std::string(255, 'u')), nt_response_by_openssl(utf16, std::string(255, 'u')));
  EXPECT_EQ(nt_response(std::string(256, 'u')), nt_response_by_openssl(utf16, ""));
  EXPECT_EQ(nt_response(std::string(300, 'u')), nt_response_by_openssl(utf16, std::string(44, 'u')));
}

TEST_F(Crypto, PasswordsAreUtf8) {
  keep("k", unhex("c3bc e282ac f09d849e"));
  EXPECT_EQ(nt_response("u"), nt_response_by_openssl(unhex("fc00 ac20 34d81edd"), "u"));
  keep("k", unhex("c3"));
  nt_response("u");
  EXPECT_EQ(result(), KS_BAD_KEY);
}

TEST_F(Crypto, NewPasswordsOf1To256BytesOpenUnderTheOldOne) {
  keep("k", text(published::mschap::kPassword));
  for (const size_t size : {1u, 2u, 255u, 256u}) {
    const ByteString password(size, 'n');
    ByteString block(516);
    ASSERT_EQ(
        ks_NewPasswordEncryptedWithOldNtPasswordHash("k", password.data(), static_cast<uint16_t>(size), block.data()),
        KS_SUCCESS);
    const ByteString clear = openssl::decrypt("rc4", unhex(published::mschap::kPasswordHash), {}, block);
    ByteString utf16;
    for (size_t i = 0; i < size; ++i) utf16 = utf16 + unhex("6e00");
    EXPECT_EQ(part(clear, 512 - 2 * size, 512), utf16);
    const ByteString told{static_cast<uint8_t>(2 * size), static_cast<uint8_t>(2 * size >> 8), 0, 0};
    EXPECT_EQ(part(clear, 512, 516), told);
  }
}

TEST_F(Crypto, TPrfComputesThePublishedKeys) {
  const ByteString aid = text("a-id");
  for (const auto &vector : published::kTPrf) {
    keep_pac(aid, unhex(vector.key));
    const ByteString label = text(vector.label);
    const ByteString seed = unhex(vector.seed);
    const ByteString expected = unhex(vector.output);
    ByteString output(expected.size());
    ASSERT_EQ(ks_pac_key_t_prf(aid.data(), 4, label.data(), size16(label), seed.empty() ? nullptr : seed.data(),
                               size16(seed), output.data(), size16(output)),
              KS_SUCCESS);
    EXPECT_EQ(output, expected);
  }
}

TEST_F(Crypto, ARenamedKeyIsFoundUnderItsNewNameOnly) {
  const ByteString plain = unhex("00112233445566778899aabbccddeeff");
  const auto &vector = published::kFips197[0];
  keep("k", unhex(vector.key));
  EXPECT_EQ(aes(ks_aes_encrypt, plain), unhex(vector.cipher));
  ASSERT_EQ(ks_rename_secret("k", "renamed", nullptr), KS_SUCCESS);
  aes(ks_aes_encrypt, plain);
  EXPECT_EQ(result(), KS_NOT_FOUND);
  remove("renamed");
}

TEST_F(Crypto, AReplacedKeyIsUsedAtOnceAndARemovedOneNoMore) {
  const ByteString plain = unhex("00112233445566778899aabbccddeeff");
  for (const auto &vector : published::kFips197) {
    keep("k", unhex(vector.key));
    EXPECT_EQ(aes(ks_aes_encrypt, plain), unhex(vector.cipher));
  }
  remove("k");
  aes(ks_aes_encrypt, plain);
  EXPECT_EQ(result(), KS_NOT_FOUND);
}

}  // namespace
