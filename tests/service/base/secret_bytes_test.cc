// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "base/secret_bytes.h"

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <new>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace ksd {
namespace {

std::vector<uint8_t> pattern(size_t size, uint8_t first) {
  std::vector<uint8_t> bytes(size);
  for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>(first + i);
  return bytes;
}

// flags_of gives the kernel's VmFlags of the mapping that `address` lies in.
std::set<std::string> flags_of(const void *address) {
  std::ifstream maps("/proc/self/smaps");
  const auto wanted = reinterpret_cast<uintptr_t>(address);
  bool inside = false;
  for (std::string line; std::getline(maps, line);) {
    uintptr_t from = 0, to = 0;
    if (std::sscanf(line.c_str(), "%lx-%lx ", &from, &to) == 2) inside = wanted >= from && wanted < to;
    if (!inside || line.rfind("VmFlags:", 0) != 0) continue;
    std::istringstream words(line.substr(8));
    return {std::istream_iterator<std::string>(words), {}};
  }
  return {};
}

TEST(SecretBytes, RefusesWhatIsLargerThanAnySlot) {
  const GuardedMemoryUse before = guarded_memory_use();
  EXPECT_THROW(SecretBytes::allocate((size_t{1} << 30) + 1), std::bad_alloc);
  EXPECT_EQ(guarded_memory_use().mapped_bytes, before.mapped_bytes);
}

TEST(SecretBytes, TakesRoomInAChunkThatWasFull) {
  constexpr size_t kSize = 2048;  // of no other test
  const auto mapped = [] { return guarded_memory_use().mapped_bytes; };
  std::vector<std::shared_ptr<const SecretBytes>> held{SecretBytes::allocate(kSize)};
  for (const size_t one_chunk = mapped(); mapped() == one_chunk;) held.push_back(SecretBytes::allocate(kSize));
  const size_t slots = held.size() - 1, two_chunks = mapped();

  held.erase(held.begin());
  for (size_t i = 0; i < slots; ++i) held.push_back(SecretBytes::allocate(kSize));
  EXPECT_EQ(mapped(), two_chunks);
  held.push_back(SecretBytes::allocate(kSize));
  EXPECT_GT(mapped(), two_chunks);
}

TEST(SecretBytes, HoldsWhatItWasGivenAtEverySize) {
  std::vector<std::shared_ptr<const SecretBytes>> held;
  for (const size_t size : {0u, 1u, 15u, 16u, 17u, 255u, 256u, 257u, 4096u, 65535u, 65536u, 65537u, 190000u}) {
    held.push_back(SecretBytes::copy_of(pattern(size, static_cast<uint8_t>(size))));
  }
  for (const auto &secret : held) {
    const auto expected = pattern(secret->size(), static_cast<uint8_t>(secret->size()));
    EXPECT_TRUE(std::equal(secret->bytes().begin(), secret->bytes().end(), expected.begin(), expected.end()));
  }
}

TEST(SecretBytes, IsZeroedWhenAllocatedAlthoughTheSlotWasUsedBefore) {
  const uint8_t *where = nullptr;
  {
    const auto first = SecretBytes::copy_of(pattern(100, 7));
    where = first->bytes().data();
  }
  const auto second = SecretBytes::allocate(128);

  ASSERT_EQ(second->bytes().data(), where);
  for (const uint8_t byte : second->bytes()) EXPECT_EQ(byte, 0);
}

TEST(SecretBytes, LivesInMemoryLeftOutOfCoresAndForks) {
  const auto secret = SecretBytes::copy_of(pattern(32, 1));
  const auto flags = flags_of(secret->bytes().data());

  EXPECT_TRUE(flags.contains("dd"));
  EXPECT_TRUE(flags.contains("wf"));
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // which turn mlock off
  if (guarded_memory_use().all_locked) {
    EXPECT_TRUE(flags.contains("lo"));
  }
#endif
}

TEST(SecretBytesDeathTest, StandsBetweenGuardPages) {
  const auto secret = SecretBytes::allocate(65536);  // fills its mapping

  EXPECT_DEATH(const_cast<volatile uint8_t *>(secret->bytes().data())[65536] = 1, "");
  EXPECT_DEATH(const_cast<volatile uint8_t *>(secret->bytes().data())[-1] = 1, "");
}

TEST(SecretBytes, SharesMappingsAmongAFullTableOfSecrets) {
  const size_t before = guarded_memory_use().mapped_bytes;
  std::vector<std::shared_ptr<const SecretBytes>> held;
  for (size_t i = 0; i < 65535; ++i) held.push_back(SecretBytes::copy_of(pattern(32, static_cast<uint8_t>(i))));

  EXPECT_LT(guarded_memory_use().mapped_bytes - before, size_t{3} * 1024 * 1024);
  for (size_t i = 0; i < held.size(); ++i) ASSERT_EQ(held[i]->bytes()[0], static_cast<uint8_t>(i));

  held.clear();
  EXPECT_LT(guarded_memory_use().mapped_bytes, before + 256 * 1024) << "mappings are given back";
}

TEST(SecretBytes, ComesAndGoesOnSeveralThreads) {
  std::vector<std::jthread> threads;
  for (unsigned t = 0; t < 4; ++t) {
    threads.emplace_back([t] {
      for (unsigned i = 0; i < 5000; ++i) {
        const auto secret = SecretBytes::copy_of(pattern(1 + (i * 37 + t) % 5000, static_cast<uint8_t>(t)));
        ASSERT_EQ(secret->bytes()[0], static_cast<uint8_t>(t));
      }
    });
  }
}

}  // namespace
}  // namespace ksd
