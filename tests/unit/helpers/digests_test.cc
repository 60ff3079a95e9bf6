// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// Digests and HMACs whose lengths aren't cut.
#include "helpers_fixture.h"

namespace {

using helpers::Bytes;
using helpers::bytes;
using helpers::operator+;
using scripted::bytes_of;
using scripted::reply;

constexpr size_t kMost = 1024;
constexpr size_t kCut = 65536 + 16;  // in 16 bits it is 16

class Digests : public scripted::Test {
 protected:
  const Bytes data = Bytes(kCut, 0x64);
  const Bytes md5 = Bytes(16, 0xd5);
  const Bytes sha1 = Bytes(20, 0x51);
  Bytes output = Bytes(20, 0xee);
};

TEST_F(Digests, GoOutAsTheLibrarysDo) {
  mts.reply_with(reply(md5));
  EXPECT_EQ(ksh_md5("n", "ab", 2, "c", 1, output.data()), KS_SUCCESS);
  EXPECT_EQ(mts.request(0).op, KS_OP_MD5);
  EXPECT_EQ(mts.sent(0), bytes("05 0a 02 00 0f 00 01 00 11 00  30 00 00 07 6e  61 62 63"));
  EXPECT_EQ(output, md5 + Bytes(4, 0xee));

  mts.reply_with(reply(sha1));
  EXPECT_EQ(ksh_sha1("n", nullptr, 0, "c", 1, output.data()), KS_SUCCESS);
  EXPECT_EQ(mts.request(1).op, KS_OP_SHA1);
  EXPECT_EQ(mts.sent(1), bytes("05 0a 00 00 0f 00 01 00 0f 00  30 00 00 07 6e  63"));
  EXPECT_EQ(output, sha1);
  expect_leaked({5, 5});  // the wire names, by promise
}

TEST_F(Digests, OfHmacsGoOutAsTheLibrarysDo) {
  mts.reply_with(reply(md5));
  EXPECT_EQ(ksh_hmac_md5("n", "ab", 2, output.data()), KS_SUCCESS);
  EXPECT_EQ(mts.request(0).op, KS_OP_HMAC_MD5);
  EXPECT_EQ(mts.sent(0), bytes("05 06 02 00 0b 00  30 00 00 07 6e  61 62"));
  EXPECT_EQ(output, md5 + Bytes(4, 0xee));

  mts.reply_with(reply(sha1));
  EXPECT_EQ(ksh_hmac_sha1("n", "ab", 2, output.data()), KS_SUCCESS);
  EXPECT_EQ(mts.request(1).op, KS_OP_HMAC_SHA1);
  EXPECT_EQ(output, sha1);

  mts.reply_with(reply(md5 + Bytes(4)));
  EXPECT_EQ(ksh_hmac_sha1_for_pac("\xa1\0", 2, "ab", 2, output.data()), KS_SUCCESS);
  EXPECT_EQ(mts.sent(2), bytes("06 06 02 00 0c 00  31 00 00 07 a1 00  61 62"));
  EXPECT_EQ(output, md5 + Bytes(4));
}

TEST_F(Digests, TakeAllThatTheLibraryTakesAndNoByteMore) {
  const auto md5_of = [&](size_t first, size_t second) {
    return ksh_md5("n", data.data(), first, data.data(), second, output.data());
  };
  mts.reply_with(reply(md5));
  EXPECT_EQ(md5_of(1000, 24), KS_SUCCESS);
  EXPECT_EQ(md5_of(1000, 25), KS_RPC_TOO_LARGE);
  EXPECT_EQ(md5_of(kMost + 1, 0), KS_RPC_TOO_LARGE);
  EXPECT_EQ(md5_of(0, kMost + 1), KS_RPC_TOO_LARGE);
  EXPECT_EQ(md5_of(16, SIZE_MAX), KS_RPC_TOO_LARGE) << "whose sum is 15";
  mts.reply_with(reply(sha1));
  EXPECT_EQ(ksh_hmac_sha1("n", data.data(), kMost, output.data()), KS_SUCCESS);
  EXPECT_EQ(ksh_hmac_sha1("n", data.data(), kMost + 1, output.data()), KS_RPC_TOO_LARGE);
  expect_leaked({5});
}

TEST_F(Digests, AreNeverThoseOfACutLength) {
  EXPECT_EQ(ksh_md5("n", data.data(), kCut, nullptr, 0, output.data()), KS_RPC_TOO_LARGE);
  EXPECT_EQ(ksh_sha1("n", nullptr, 0, data.data(), kCut, output.data()), KS_RPC_TOO_LARGE);
  EXPECT_EQ(ksh_hmac_md5("n", data.data(), kCut, output.data()), KS_RPC_TOO_LARGE);
  EXPECT_EQ(ksh_hmac_sha1("n", data.data(), kCut, output.data()), KS_RPC_TOO_LARGE);
  EXPECT_EQ(ksh_hmac_sha1_for_pac("a", 1, data.data(), kCut, output.data()), KS_RPC_TOO_LARGE);
  EXPECT_EQ(ksh_hmac_sha1_for_pac(data.data(), 257, "ab", 2, output.data()), KS_INVALID_ARGS) << "nor of a cut A-ID";
  EXPECT_TRUE(mts.requests.empty());
  EXPECT_EQ(output, Bytes(20, 0xee));
}

TEST_F(Digests, AreRefusedWithoutWhatTheyNeed) {
  EXPECT_EQ(ksh_md5("n", nullptr, 2, "c", 1, output.data()), KS_INVALID_ARGS) << "which the library would send";
  EXPECT_EQ(ksh_sha1("n", "ab", 2, nullptr, 1, output.data()), KS_INVALID_ARGS);
  EXPECT_EQ(ksh_md5("n", nullptr, 0, nullptr, 0, output.data()), KS_INVALID_ARGS);
  EXPECT_EQ(ksh_md5(nullptr, "ab", 2, nullptr, 0, output.data()), KS_INVALID_ARGS);
  EXPECT_EQ(ksh_hmac_md5("n", nullptr, 2, output.data()), KS_INVALID_ARGS);
  EXPECT_EQ(ksh_hmac_md5("n", "ab", 0, output.data()), KS_INVALID_ARGS);
  EXPECT_EQ(ksh_hmac_sha1_for_pac(nullptr, 1, "ab", 2, output.data()), KS_INVALID_ARGS);
  EXPECT_EQ(ksh_md5("n", "ab", 2, nullptr, 0, nullptr), KS_INVALID_ARGS);
  EXPECT_EQ(ksh_sha1("n", "ab", 2, nullptr, 0, nullptr), KS_INVALID_ARGS);
  EXPECT_EQ(ksh_hmac_md5("n", "ab", 2, nullptr), KS_INVALID_ARGS);
  EXPECT_EQ(ksh_hmac_sha1("n", "ab", 2, nullptr), KS_INVALID_ARGS);
  EXPECT_EQ(ksh_hmac_sha1_for_pac("a", 1, "ab", 2, nullptr), KS_INVALID_ARGS);
  EXPECT_TRUE(mts.requests.empty());
}

TEST_F(Digests, PassOnTheServicesAnswer) {
  mts.reply_with(scripted::result_only(KS_NOT_FOUND));
  EXPECT_EQ(ksh_hmac_sha1("n", "ab", 2, output.data()), KS_NOT_FOUND);
  EXPECT_EQ(output, Bytes(20, 0xee));
}

}  // namespace
