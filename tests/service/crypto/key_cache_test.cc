// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// Prepared keys: bounded, forgotten when their content goes, kept while in use.
#include "crypto/key_cache.h"

#include <gtest/gtest.h>

#include <thread>

#include "crypto/hmac.h"
#include "crypto/mschap.h"
#include "published_vectors.h"

namespace ksd::crypto {
namespace {

using published::ByteString;
using published::text;
using published::unhex;

const ByteString kKey = unhex("000102030405060708090a0b0c0d0e0f");
const ByteString kPlain = unhex("00112233445566778899aabbccddeeff");
const ByteString kCipher = unhex("69c4e0d86a7b0430d8cdb78070b4c55a");

ByteString encrypted(const PreparedKey<AesEncryptKey> &key) {
  ByteString out(16);
  key->ecb(kPlain, out.data());
  return out;
}

TEST(KeyCache, FindsWhatWasAddedUnderItsGenerationAndKindOnly) {
  KeyCache cache;
  EXPECT_FALSE(cache.find<AesEncryptKey>(1));
  ASSERT_TRUE(cache.add<AesEncryptKey>(1, kKey));
  ASSERT_TRUE(cache.find<AesEncryptKey>(1));
  EXPECT_EQ(encrypted(cache.find<AesEncryptKey>(1)), kCipher);
  EXPECT_FALSE(cache.find<AesDecryptKey>(1));
  EXPECT_FALSE(cache.find<AesEncryptKey>(2));
  EXPECT_FALSE(cache.find<AesEncryptKey>(1 + KeyCache::kShards));
}

TEST(KeyCache, KeepsNothingOfASecretThatIsNoKey) {
  KeyCache cache;
  EXPECT_FALSE(cache.add<AesEncryptKey>(1, text("too short")));
  EXPECT_FALSE(cache.add<NtHash>(2, unhex("ff")));
  EXPECT_EQ(cache.size(), 0u);
}

TEST(KeyCache, ForgetsAllKindsOfAGeneration) {
  KeyCache cache;
  ASSERT_TRUE(cache.add<AesEncryptKey>(1, kKey));
  ASSERT_TRUE(cache.add<AesDecryptKey>(1, kKey));
  ASSERT_TRUE(cache.add<HmacSha1Key>(1, kKey));
  ASSERT_TRUE(cache.add<AesEncryptKey>(1 + KeyCache::kShards, kKey));
  cache.forget(1);
  EXPECT_FALSE(cache.find<AesEncryptKey>(1));
  EXPECT_FALSE(cache.find<AesDecryptKey>(1));
  EXPECT_FALSE(cache.find<HmacSha1Key>(1));
  EXPECT_TRUE(cache.find<AesEncryptKey>(1 + KeyCache::kShards));
  cache.forget(99);
  EXPECT_EQ(cache.size(), 1u);
}

TEST(KeyCache, AForgottenKeyLastsUntilItsLastUseAndThenGivesItsMemoryBack) {
  KeyCache cache;
  const size_t before = guarded_memory_use().used_slots;
  PreparedKey<AesEncryptKey> in_use = cache.add<AesEncryptKey>(1, kKey);
  EXPECT_EQ(guarded_memory_use().used_slots, before + 1);
  cache.forget(1);
  EXPECT_EQ(encrypted(in_use), kCipher);
  EXPECT_EQ(guarded_memory_use().used_slots, before + 1);
  in_use = {};
  EXPECT_EQ(guarded_memory_use().used_slots, before);
}

TEST(KeyCache, IsBoundedAndGivesUpWhatWasNotUsedForLongest) {
  KeyCache cache;
  const uint64_t step = KeyCache::kShards;  // all in one shard
  for (uint64_t i = 0; i < KeyCache::kKeysPerShard; ++i) ASSERT_TRUE(cache.add<AesEncryptKey>(i * step, kKey));
  ASSERT_TRUE(cache.find<AesEncryptKey>(0));  // used again: the second is now the oldest
  ASSERT_TRUE(cache.add<AesEncryptKey>(100 * step, kKey));
  EXPECT_TRUE(cache.find<AesEncryptKey>(0));
  EXPECT_FALSE(cache.find<AesEncryptKey>(step));
  EXPECT_TRUE(cache.find<AesEncryptKey>(2 * step));
  for (uint64_t i = 1; i <= 10 * KeyCache::kMostKeys; ++i) ASSERT_TRUE(cache.add<AesEncryptKey>(1000000 + i, kKey));
  EXPECT_EQ(cache.size(), KeyCache::kMostKeys);
}

TEST(KeyCache, ServesThreadsThatUseAddAndForgetAtOnce) {
  KeyCache cache;
  std::vector<std::thread> threads;
  for (unsigned t = 0; t < 4; ++t) {
    threads.emplace_back([&cache, t] {
      for (uint64_t i = 0; i < 20000; ++i) {
        const uint64_t generation = i * (t + 1) % 40;
        PreparedKey<AesEncryptKey> key = cache.find<AesEncryptKey>(generation);
        if (!key) key = cache.add<AesEncryptKey>(generation, kKey);
        ASSERT_EQ(encrypted(key), kCipher);
        if (i % 7 == 0) cache.forget(generation);
      }
    });
  }
  for (std::thread &thread : threads) thread.join();
}

}  // namespace
}  // namespace ksd::crypto
