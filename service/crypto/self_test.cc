// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "crypto/self_test.h"

#include <nettle/arcfour.h>

#include <algorithm>
#include <array>
#include <new>
#include <string>
#include <vector>

#include "crypto/ciphers.h"
#include "crypto/digests.h"
#include "crypto/hmac.h"
#include "crypto/mschap.h"

namespace ksd::crypto {

namespace {

using Written = std::vector<uint8_t>;

Written unhex(std::string_view digits) {
  const auto value = [](char c) { return c <= '9' ? c - '0' : c - 'a' + 10; };
  Written bytes(digits.size() / 2);
  for (size_t i = 0; i < bytes.size(); ++i) {
    bytes[i] = static_cast<uint8_t>(value(digits[2 * i]) << 4 | value(digits[2 * i + 1]));
  }
  return bytes;
}

Written operator+(Written a, const Written &b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// Local is a prepared key outside of the cache. The keys here are no secrets.
template <typename Key>
class Local {
 public:
  explicit Local(Bytes key) { Key::prepare(memory_, key); }
  const Key *operator->() const { return std::launder(reinterpret_cast<const Key *>(memory_)); }
  const Key &operator*() const { return *operator->(); }

 private:
  alignas(Key) uint8_t memory_[sizeof(Key)] = {};
};

// Each function computes what its row below expects: there and back for a cipher.

// FIPS 197, appendix C, for the three sizes of key.
Written aes_ecb() {
  const Written block = unhex("00112233445566778899aabbccddeeff");
  const Written longest = unhex("000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f");
  Written all;
  for (const size_t size : {16U, 24U, 32U}) {
    const Bytes key = Bytes(longest).first(size);
    Written cipher(kAesBlockSize), plain(kAesBlockSize);
    Local<AesEncryptKey>(key)->ecb(block, cipher.data());
    Local<AesDecryptKey>(key)->ecb(cipher, plain.data());
    all = all + cipher + plain;
  }
  return all;
}

// SP 800-38A, F.2.1, F.2.3 and F.2.5: the first two blocks, and the value to chain on with.
Written aes_cbc() {
  Written all;
  for (const char *const key : {"2b7e151628aed2a6abf7158809cf4f3c", "8e73b0f7da0e6452c810f32b809079e562f8ead2522c6b7b",
                                "603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4"}) {
    const Written start = unhex("000102030405060708090a0b0c0d0e0f");
    const Written message = unhex("6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51");
    Written iv = start, back_iv = start, cipher(message.size()), plain(message.size());
    Local<AesEncryptKey>(unhex(key))->cbc(iv.data(), message, cipher.data());
    Local<AesDecryptKey>(unhex(key))->cbc(back_iv.data(), cipher, plain.data());
    all = all + cipher + iv + plain + back_iv;
  }
  return all;
}

// SP 800-17: a weak key, and the first line of the substitution tables.
Written des() {
  Written cipher(kDesBlockSize), other(kDesBlockSize), plain(kDesBlockSize);
  Local<DesKey>(unhex("0101010101010101"))->encrypt(unhex("8000000000000000"), cipher.data());
  Local<DesKey>(unhex("7ca110454a1a6e57"))->encrypt(unhex("01a1d6d039776742"), other.data());
  Local<DesKey>(unhex("7ca110454a1a6e57"))->decrypt(other, plain.data());
  return cipher + other + plain;
}

// SP 800-67, appendix B; and SP 800-20's equal keys, given as 16 bytes.
Written triple_des() {
  const Local<TripleDesKey> key(unhex("0123456789abcdef23456789abcdef01456789abcdef0123"));
  Written cipher(24), plain(24), equal(kDesBlockSize);
  key->encrypt(bytes_of("The qufck brown fox jump"), cipher.data());
  key->decrypt(cipher, plain.data());
  Local<TripleDesKey>(unhex("01010101010101010101010101010101"))->encrypt(unhex("8000000000000000"), equal.data());
  return cipher + plain + equal;
}

// RFC 2202, case 2, and the case of a key longer than a block.
template <typename Key>
Written hmac() {
  Written first(Key::kDigestSize), second(Key::kDigestSize);
  Local<Key>(bytes_of("Jefe"))->mac({bytes_of("what do ya want "), bytes_of("for nothing?")}, first.data());
  Local<Key>(Written(80, 0xaa))
      ->mac({bytes_of("Test Using Larger Than Block-Size Key - Hash Key First")}, second.data());
  return first + second;
}

// RFC 1321 and FIPS 180: "abc", and a text of more than a block or two.
template <typename Digest>
Written digest(std::string_view longer) {
  Written first(Digest::kDigestSize), second(Digest::kDigestSize);
  digest_of<Digest>({bytes_of("a"), bytes_of(""), bytes_of("bc")}, first.data());
  digest_of<Digest>({bytes_of(longer)}, second.data());
  return first + second;
}

Written md5() {
  return digest<Md5>("12345678901234567890123456789012345678901234567890123456789012345678901234567890");
}

Written sha1() {
  return digest<Sha1>("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq");
}

// RFC 2759, section 9.2, and RFC 3079 have one user.
const Local<NtHash> &client_password() {
  static const Local<NtHash> hash(bytes_of("clientPass"));
  return hash;
}

const Challenges &challenges() {
  static const Written authenticator = unhex("5b5d7c7d7b3f2f3e3c2c602132262628");
  static const Written peer = unhex("21402324255e262a28295f2b3a337c7e");
  static const Challenges both{.authenticator = authenticator, .peer = peer, .user_name = bytes_of("User")};
  return both;
}

constexpr char kNtResponse[] = "82309ecd8d708b5ea08faa3981cd83544233114a3d85d6df";

Written nt_response() {
  Written response(kNtResponseSize);
  nt_response(*client_password(), challenges(), response.data());
  return response;
}

Written authenticator_response() {
  Written response(kAuthenticatorResponseSize);
  authenticator_response(*client_password(), unhex(kNtResponse), challenges(), response.data());
  return response;
}

Written master_key() {
  Written key(kMasterKeySize);
  master_key(*client_password(), unhex(kNtResponse), key.data());
  return key;
}

// There is no published block, since it is padded at random: it has to open with the published hash, and end with the
// password and its size.
Written new_password() {
  Written block(kPasswordBlockSize);
  if (!new_password_block(*client_password(), bytes_of("MyPw"), block.data())) return {};
  arcfour_ctx cipher;
  arcfour_set_key(&cipher, kNtHashSize, unhex("44ebba8d5312b8d611474411f56989ae").data());
  arcfour_crypt(&cipher, block.size(), block.data(), block.data());
  return {block.end() - 12, block.end()};
}

// Nor is one published for this; it has to open with the two DES keys of RFC 2759, section 9.3.
Written old_hash() {
  Written block(kNtHashSize);
  old_hash_block(*Local<NtHash>(bytes_of("MyPw")), *client_password(), block.data());
  Written plain(kNtHashSize);
  Local<DesKey>(unhex("fd0b5b5e7f6e34d9"))->decrypt(Bytes(block).first(8), plain.data());
  Local<DesKey>(unhex("0e6e796737ea08fe"))->decrypt(Bytes(block).last(8), plain.data() + 8);
  return plain;
}

// RFC 4851, appendix B: the master secret, which takes three blocks, the last in part.
Written t_prf() {
  Written secret(48);
  t_prf(*Local<HmacSha1Key>(unhex("0b97390f37517809811efd9c6e65942b632ce953893808ba360b037cd185e414")),
        bytes_of("PAC to master secret label hash"),
        unhex("3ffb11c46cbfa57a5440dae822d311d3f76de41dd933e5937097eba9b366f42a"
              "000000026a66432a8d14432cec582d2fc79c3364ba04ad3a5254d6a579ad1e00"),
        secret);
  return secret;
}

struct Proof {
  Algorithm algorithm;
  std::string_view name;
  Written (*compute)();
  std::string_view expected;
};

constexpr Proof kProofs[] = {
    {Algorithm::kAesEcb, "AES ECB", aes_ecb,
     "69c4e0d86a7b0430d8cdb78070b4c55a00112233445566778899aabbccddeeff"
     "dda97ca4864cdfe06eaf70a0ec0d719100112233445566778899aabbccddeeff"
     "8ea2b7ca516745bfeafc49904b49608900112233445566778899aabbccddeeff"},
    {Algorithm::kAesCbc, "AES CBC", aes_cbc,
     "7649abac8119b246cee98e9b12e9197d5086cb9b507219ee95db113a917678b25086cb9b507219ee95db113a917678b2"
     "6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e515086cb9b507219ee95db113a917678b2"
     "4f021db243bc633d7178183a9fa071e8b4d9ada9ad7dedf4e5e738763f69145ab4d9ada9ad7dedf4e5e738763f69145a"
     "6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51b4d9ada9ad7dedf4e5e738763f69145a"
     "f58c4c04d6e5f1ba779eabfb5f7bfbd69cfc4e967edb808d679f777bc6702c7d9cfc4e967edb808d679f777bc6702c7d"
     "6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e519cfc4e967edb808d679f777bc6702c7d"},
    {Algorithm::kDes, "DES", des, "95f8a5e5dd31d900690f5b0d9a26939b01a1d6d039776742"},
    {Algorithm::kTripleDes, "3DES", triple_des,
     "a826fd8ce53b855fcce21c8112256fe668d5c05dd9b6b9005468652071756663"
     "6b2062726f776e20666f78206a756d7095f8a5e5dd31d900"},
    {Algorithm::kHmacMd5, "HMAC-MD5", hmac<HmacMd5Key>,
     "750c783e6ab0b503eaa86e310a5db7386b1ab7fe4bd7bf8f0b62e6ce61b9d0cd"},
    {Algorithm::kHmacSha1, "HMAC-SHA1", hmac<HmacSha1Key>,
     "effcdf6ae5eb2fa2d27416d5f184df9c259a7c79aa4ae5e15272d00e95705637ce8a3b55ed402112"},
    {Algorithm::kMd5, "MD5", md5, "900150983cd24fb0d6963f7d28e17f7257edf4a22be3c955ac49da2e2107b67a"},
    {Algorithm::kSha1, "SHA-1", sha1,
     "a9993e364706816aba3e25717850c26c9cd0d89d84983e441c3bd26ebaae4aa1f95129e5e54670f1"},
    {Algorithm::kNtResponse, "MS-CHAP's NT response", nt_response, kNtResponse},
    {Algorithm::kAuthenticatorResponse, "MS-CHAP's authenticator response", authenticator_response,
     "533d34303741353538393131354644304436323039463531304645394330343536363933324344413536"},
    {Algorithm::kNewPassword, "MS-CHAP's new password", new_password, "4d0079005000770008000000"},
    {Algorithm::kOldHash, "MS-CHAP's old hash", old_hash, "44ebba8d5312b8d611474411f56989ae"},
    {Algorithm::kMasterKey, "MS-CHAP's master key", master_key, "fdece3717a8c838cb388e527ae3cdd31"},
    {Algorithm::kTPrf, "T-PRF", t_prf,
     "4a1a512c0160bc023ccfbc833f03bc6488c1312f0ba9a27716a8d8e8bdc9d229384b7a85be164d2733d5247987b1c5a2"},
};
static_assert(std::size(kProofs) == static_cast<size_t>(Algorithm::kCount));

}  // namespace

std::string_view algorithm_name(Algorithm algorithm) {
  const auto is_it = [&](const Proof &proof) { return proof.algorithm == algorithm; };
  const Proof *const found = std::find_if(std::begin(kProofs), std::end(kProofs), is_it);
  return found == std::end(kProofs) ? "an unknown algorithm" : found->name;
}

AlgorithmSet self_test(Tamper tamper) {
  AlgorithmSet passed;
  for (const Proof &proof : kProofs) {
    Written computed = proof.compute();
    if (tamper) tamper(proof.algorithm, computed);
    passed.set(static_cast<size_t>(proof.algorithm), computed == unhex(proof.expected));
  }
  return passed;
}

}  // namespace ksd::crypto
