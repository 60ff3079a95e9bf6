// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// Hashes of passwords, which no reply shows.
#include "crypto/mschap.h"

#include <gtest/gtest.h>

#include "published_vectors.h"

namespace ksd::crypto {
namespace {

using published::ByteString;
using published::text;
using published::unhex;

TEST(NtHash, HashesThePublishedPasswords) {
  alignas(NtHash) uint8_t place[sizeof(NtHash)];
  ASSERT_TRUE(NtHash::prepare(place, text(published::mschap::kPassword)));
  EXPECT_EQ(ByteString(place, place + 16), unhex(published::mschap::kPasswordHash));
  ASSERT_TRUE(NtHash::prepare(place, text(published::mschap::kOtherPassword)));
  EXPECT_EQ(ByteString(place, place + 16), unhex(published::mschap::kOtherPasswordHash));
}

}  // namespace
}  // namespace ksd::crypto
