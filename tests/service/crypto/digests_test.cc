// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// Digests of more than a message can hold.
#include "crypto/digests.h"

#include <gtest/gtest.h>

#include "published_vectors.h"

namespace ksd::crypto {
namespace {

using published::ByteString;
using published::unhex;

TEST(Digests, Sha1OfAMillionLettersIsThePublishedOne) {
  const ByteString half(500000, 'a');
  ByteString digest(Sha1::kDigestSize);
  digest_of<Sha1>({half, half}, digest.data());
  EXPECT_EQ(digest, unhex("34aa973cd4c4daa4f61eeb2bdbad27316534016f"));
}

}  // namespace
}  // namespace ksd::crypto
