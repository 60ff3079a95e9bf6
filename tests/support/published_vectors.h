// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// published_vectors.h: values that standards publish for the keystore's algorithms, in hexadecimal digits. They are
// spelt out, so that no test asks our own code what to expect.
#ifndef TESTS_SUPPORT_PUBLISHED_VECTORS_H
#define TESTS_SUPPORT_PUBLISHED_VECTORS_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace published {

using ByteString = std::vector<uint8_t>;

// unhex reads pairs of digits and skips blanks.
inline ByteString unhex(std::string_view digits) {
  const auto value = [](char c) { return c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10; };
  ByteString bytes;
  int high = -1;
  for (const char c : digits) {
    if (c == ' ') continue;
    if (high < 0) {
      high = value(c);
      continue;
    }
    bytes.push_back(static_cast<uint8_t>(high << 4 | value(c)));
    high = -1;
  }
  return bytes;
}

inline ByteString text(std::string_view characters) {
  return {characters.begin(), characters.end()};
}

struct CipherVector {
  const char *key;
  const char *plain;
  const char *cipher;
};

// FIPS 197, appendix C.
inline constexpr CipherVector kFips197[] = {
    {"000102030405060708090a0b0c0d0e0f", "00112233445566778899aabbccddeeff", "69c4e0d86a7b0430d8cdb78070b4c55a"},
    {"000102030405060708090a0b0c0d0e0f1011121314151617", "00112233445566778899aabbccddeeff",
     "dda97ca4864cdfe06eaf70a0ec0d7191"},
    {"000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f", "00112233445566778899aabbccddeeff",
     "8ea2b7ca516745bfeafc49904b496089"},
};

// SP 800-38A, appendix F.1 and F.2: one message of four blocks under each size of key.
inline constexpr char kSp80038aPlain[] =
    "6bc1bee22e409f96e93d7e117393172a ae2d8a571e03ac9c9eb76fac45af8e51"
    "30c81c46a35ce411e5fbc1191a0a52ef f69f2445df4f9b17ad2b417be66c3710";
inline constexpr char kSp80038aIv[] = "000102030405060708090a0b0c0d0e0f";
inline constexpr CipherVector kSp80038aEcb[] = {
    {"2b7e151628aed2a6abf7158809cf4f3c", kSp80038aPlain,
     "3ad77bb40d7a3660a89ecaf32466ef97 f5d3d58503b9699de785895a96fdbaaf"
     "43b1cd7f598ece23881b00e3ed030688 7b0c785e27e8ad3f8223207104725dd4"},
    {"8e73b0f7da0e6452c810f32b809079e562f8ead2522c6b7b", kSp80038aPlain,
     "bd334f1d6e45f25ff712a214571fa5cc 974104846d0ad3ad7734ecb3ecee4eef"
     "ef7afd2270e2e60adce0ba2face6444e 9a4b41ba738d6c72fb16691603c18e0e"},
    {"603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4", kSp80038aPlain,
     "f3eed1bdb5d2a03c064b5a7e3db181f8 591ccb10d410ed26dc5ba74a31362870"
     "b6ed21b99ca6f4f9f153e7b1beafed1d 23304b7a39f9f3ff067d8d8f9e24ecc7"},
};
inline constexpr CipherVector kSp80038aCbc[] = {
    {"2b7e151628aed2a6abf7158809cf4f3c", kSp80038aPlain,
     "7649abac8119b246cee98e9b12e9197d 5086cb9b507219ee95db113a917678b2"
     "73bed6b8e3c1743b7116e69e22229516 3ff1caa1681fac09120eca307586e1a7"},
    {"8e73b0f7da0e6452c810f32b809079e562f8ead2522c6b7b", kSp80038aPlain,
     "4f021db243bc633d7178183a9fa071e8 b4d9ada9ad7dedf4e5e738763f69145a"
     "571b242012fb7ae07fa9baac3df102e0 08b0e27988598881d920a9e64f5615cd"},
    {"603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4", kSp80038aPlain,
     "f58c4c04d6e5f1ba779eabfb5f7bfbd6 9cfc4e967edb808d679f777bc6702c7d"
     "39f23369a9d9bacfa530e26304231461 b2eb05e2c39be9fcda6c19078c6a9d1b"},
};

// FIPS 81's ECB example, and tables of SP 800-17 / SP 800-20: variable plaintext (under a weak key), variable key, and
// the substitution tables. SP 800-20 gives the same values for 3DES with the three parts of the key alike.
inline constexpr CipherVector kDes[] = {
    {"0123456789abcdef", "4e6f772069732074 68652074696d6520 666f7220616c6c20",
     "3fa40e8a984d4815 6a271787ab8883f9 893d51ec4b563b53"},
    {"0101010101010101", "8000000000000000", "95f8a5e5dd31d900"},
    {"0101010101010101", "4000000000000000", "dd7f121ca5015619"},
    {"0101010101010101", "2000000000000000", "2e8653104f3834ea"},
    {"0101010101010101", "1000000000000000", "4bd388ff6cd81d4f"},
    {"0101010101010101", "0800000000000000", "20b9e767b2fb1456"},
    {"0101010101010101", "0400000000000000", "55579380d77138ef"},
    {"0101010101010101", "0200000000000000", "6cc5defaaf04512f"},
    {"0101010101010101", "0000000010000000", "fa0752b07d9c4ab8"},
    {"0101010101010101", "0000000008000000", "ca3a2b036dbc8502"},
    {"0101010101010101", "0000000004000000", "5e0905517bb59bcf"},
    {"0101010101010101", "0000000002000000", "814eeb3b91d90726"},
    {"0101010101010101", "0000000001000000", "4d49db1532919c9f"},
    {"0101010101010101", "0000000000800000", "25eb5fc3f8cf0621"},
    {"0101010101010101", "0000000000400000", "ab6a20c0620d1c6f"},
    {"0101010101010101", "0000000000200000", "79e90dbc98f92cca"},
    {"0101010101010101", "0000000000100000", "866ecedd8072bb0e"},
    {"0101010101010101", "0000000000080000", "8b54536f2f3e64a8"},
    {"0101010101010101", "0000000000040000", "ea51d3975595b86b"},
    {"0101010101010101", "0000000000020000", "caffc6ac4542de31"},
    {"0101010101010101", "0000000000010000", "8dd45a2ddf90796c"},
    {"0101010101010101", "0000000000008000", "1029d55e880ec2d0"},
    {"0101010101010101", "0000000000004000", "5d86cb23639dbea9"},
    {"0101010101010101", "0000000000002000", "1d1ca853ae7c0c5f"},
    {"0101010101010101", "0000000000001000", "ce332329248f3228"},
    {"0101010101010101", "0000000000000800", "8405d1abe24fb942"},
    {"0101010101010101", "0000000000000400", "e643d78090ca4207"},
    {"0101010101010101", "0000000000000200", "48221b9937748a23"},
    {"0101010101010101", "0000000000000100", "dd7c0bbd61fafd54"},
    {"0101010101010101", "0000000000000080", "2fbc291a570db5c4"},
    {"0101010101010101", "0000000000000040", "e07c30d7e4e26e12"},
    {"0101010101010101", "0000000000000020", "0953e2258e8e90a1"},
    {"0101010101010101", "0000000000000010", "5b711bc4ceebf2ee"},
    {"0101010101010101", "0000000000000008", "cc083f1e6d9e85f6"},
    {"0101010101010101", "0000000000000004", "d2fd8867d50d2dfe"},
    {"0101010101010101", "0000000000000002", "06e7ea22ce92708f"},
    {"0101010101010101", "0000000000000001", "166b40b44aba4bd6"},
    {"8001010101010101", "0000000000000000", "95a8d72813daa94d"},
    {"4001010101010101", "0000000000000000", "0eec1487dd8c26d5"},
    {"7ca110454a1a6e57", "01a1d6d039776742", "690f5b0d9a26939b"},
    {"0131d9619dc1376e", "5cd54ca83def57da", "7a389d10354bd271"},
    {"07a1133e4a0b2686", "0248d43806f67172", "868ebb51cab4599a"},
    {"3849674c2602319e", "51454b582ddf440a", "7178876e01f19b2a"},
    {"04b915ba43feb5b6", "42fd443059577fa2", "af37fb421f8c4095"},
    {"0113b970fd34f2ce", "059b5e0851cf143a", "86a560f10ec6d85b"},
    {"0170f175468fb5e6", "0756d8e0774761d2", "0cd3da020021dc09"},
    {"43297fad38e373fe", "762514b829bf486a", "ea676b2cb7db2b7a"},
    {"07a7137045da2a16", "3bdd119049372802", "dfd64a815caf1a0f"},
    {"04689104c2fd3b2f", "26955f6835af609a", "5c513c9c4886c088"},
    {"37d06bb516cb7546", "164d5e404f275232", "0a2aeeae3ff4ab77"},
    {"1f08260d1ac2465e", "6b056e18759f5cca", "ef1bf03e5dfa575a"},
    {"584023641aba6176", "004bd6ef09176062", "88bf0db6d70dee56"},
    {"025816164629b007", "480d39006ee762f2", "a1f9915541020b56"},
    {"49793ebc79b3258f", "437540c8698f3cfa", "6fbf1cafcffd0556"},
    {"4fb05e1515ab73a7", "072d43a077075292", "2f22e49bab7ca1ac"},
    {"49e95d6d4ca229bf", "02fe55778117f12a", "5a6b612cc26cce4a"},
    {"018310dc409b26d6", "1d9d5c5018f728c2", "5f4c038ed12b2e41"},
    {"1c587f1c13924fef", "305532286d6f295a", "63fac0d034d9f793"},
};

// SP 800-67, appendix B.
inline constexpr CipherVector kTripleDes[] = {
    {"0123456789abcdef 23456789abcdef01 456789abcdef0123", "5468652071756663 6b2062726f776e20 666f78206a756d70",
     "a826fd8ce53b855f cce21c8112256fe6 68d5c05dd9b6b900"},
};

struct DigestVector {
  const char *text;
  const char *digest;
};

// RFC 1321, appendix A.5, less the empty text.
inline constexpr DigestVector kMd5[] = {
    {"a", "0cc175b9c0f1b6a831c399e269772661"},
    {"abc", "900150983cd24fb0d6963f7d28e17f72"},
    {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
    {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
    {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789", "d174ab98d277d9f5a5611c2c9f419d9f"},
    {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
     "57edf4a22be3c955ac49da2e2107b67a"},
};

// FIPS 180, the examples of SHA-1.
inline constexpr DigestVector kSha1[] = {
    {"abc", "a9993e364706816aba3e25717850c26c9cd0d89d"},
    {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq", "84983e441c3bd26ebaae4aa1f95129e5e54670f1"},
};

struct HmacVector {
  ByteString key;
  ByteString data;
  const char *digest;
};

// RFC 2202. The two digests have vectors of their own for keys of their own length.
inline std::vector<HmacVector> hmac_md5() {
  return {
      {ByteString(16, 0x0b), text("Hi There"), "9294727a3638bb1c13f48ef8158bfc9d"},
      {text("Jefe"), text("what do ya want for nothing?"), "750c783e6ab0b503eaa86e310a5db738"},
      {ByteString(16, 0xaa), ByteString(50, 0xdd), "56be34521d144c88dbb8c733f0e8b3f6"},
      {unhex("0102030405060708090a0b0c0d0e0f10111213141516171819"), ByteString(50, 0xcd),
       "697eaf0aca3a3aea3a75164746ffaa79"},
      {ByteString(16, 0x0c), text("Test With Truncation"), "56461ef2342edc00f9bab995690efd4c"},
      {ByteString(80, 0xaa), text("Test Using Larger Than Block-Size Key - Hash Key First"),
       "6b1ab7fe4bd7bf8f0b62e6ce61b9d0cd"},
      {ByteString(80, 0xaa), text("Test Using Larger Than Block-Size Key and Larger Than One Block-Size Data"),
       "6f630fad67cda0ee1fb1f562db3aa53e"},
  };
}

inline std::vector<HmacVector> hmac_sha1() {
  return {
      {ByteString(20, 0x0b), text("Hi There"), "b617318655057264e28bc0b6fb378c8ef146be00"},
      {text("Jefe"), text("what do ya want for nothing?"), "effcdf6ae5eb2fa2d27416d5f184df9c259a7c79"},
      {ByteString(20, 0xaa), ByteString(50, 0xdd), "125d7342b9ac11cd91a39af48aa17b4f63f175d3"},
      {unhex("0102030405060708090a0b0c0d0e0f10111213141516171819"), ByteString(50, 0xcd),
       "4c9007f4026250c6bc8414f9bf50c86c2d7235da"},
      {ByteString(20, 0x0c), text("Test With Truncation"), "4c1a03424b55e07fe7f27be1d58bb9324a9a5a04"},
      {ByteString(80, 0xaa), text("Test Using Larger Than Block-Size Key - Hash Key First"),
       "aa4ae5e15272d00e95705637ce8a3b55ed402112"},
      {ByteString(80, 0xaa), text("Test Using Larger Than Block-Size Key and Larger Than One Block-Size Data"),
       "e8e99d0f45237d786d6bbaa7965c7808bbff1a91"},
  };
}

// RFC 2759, section 9.2, and RFC 3079, which goes on with the same user.
namespace mschap {
inline constexpr char kUserName[] = "User";
inline constexpr char kPassword[] = "clientPass";
inline constexpr char kAuthenticatorChallenge[] = "5b5d7c7d7b3f2f3e3c2c602132262628";
inline constexpr char kPeerChallenge[] = "21402324255e262a28295f2b3a337c7e";
inline constexpr char kPasswordHash[] = "44ebba8d5312b8d611474411f56989ae";
inline constexpr char kPasswordHashHash[] = "41c00c584bd2d91c4017a2a12fa59f3f";
inline constexpr char kNtResponse[] = "82309ecd8d708b5ea08faa3981cd83544233114a3d85d6df";
inline constexpr char kAuthenticatorResponse[] = "S=407A5589115FD0D6209F510FE9C04566932CDA56";
inline constexpr char kMasterKey[] = "fdece3717a8c838cb388e527ae3cdd31";

// Section 9.3: another password, and the two DES keys with odd parity that its hash makes.
inline constexpr char kOtherPassword[] = "MyPw";
inline constexpr char kOtherPasswordHash[] = "fc156af7edcd6c0edde3337d427f4eac";
inline constexpr char kOtherFirstDesKey[] = "fd0b5b5e7f6e34d9";
inline constexpr char kOtherSecondDesKey[] = "0e6e796737ea08fe";
}  // namespace mschap

struct TPrfVector {
  const char *key;
  const char *label;
  const char *seed;
  const char *output;
};

// RFC 4851, appendix B: the master secret from a PAC key, the compound keys, and both session keys.
inline constexpr TPrfVector kTPrf[] = {
    {"0b97390f37517809811efd9c6e65942b632ce953893808ba360b037cd185e414", "PAC to master secret label hash",
     "3ffb11c46cbfa57a5440dae822d311d3f76de41dd933e5937097eba9b366f42a"
     "000000026a66432a8d14432cec582d2fc79c3364ba04ad3a5254d6a579ad1e00",
     "4a1a512c0160bc023ccfbc833f03bc6488c1312f0ba9a27716a8d8e8bdc9d229"
     "384b7a85be164d2733d5247987b1c5a2"},
    {"d64b7d7217592805aff9b7ff666da1968f0b5e06467a448464c1c80c96440998ff92a8b4c6422871", "Inner Methods Compound Keys",
     "0000000000000000000000000000000000000000000000000000000000000000",
     "16153c3f2155efd97f34aec81a4e66804cc376f28aa96f96c2545f8cab6502e1"
     "18407b56beeaa7c5765d8f0bc507c6b904d06956728b6bb815ec577b"},
    {"16153c3f2155efd97f34aec81a4e66804cc376f28aa96f96c2545f8cab6502e118407b56beeaa7c5",
     "Session Key Generating Function", "",
     "4d83a9be6f8a74ed6a02660a634d2c33c2da6015c6370451903863da543e14b9"
     "2799181e07bf0f5a5e3c3293808c6c4967ed24fe4540a0595e37c2e9d05d0ae3"},
    {"16153c3f2155efd97f34aec81a4e66804cc376f28aa96f96c2545f8cab6502e118407b56beeaa7c5",
     "Extended Session Key Generating Function", "",
     "3ad4abdb76b27f3bea322c2b74f42855ef2dba78c9572f0d06cd517c209398a9"
     "76ea7021d70e255497edb28af6edfd0a2ae7a15890105044b38285db0614d2f9"},
};

}  // namespace published

#endif
