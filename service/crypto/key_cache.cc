// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "crypto/key_cache.h"

#include <algorithm>
#include <utility>

namespace ksd::crypto {

KeyCache::Kept *KeyCache::Shard::find(uint64_t generation, PreparedKind kind) {
  for (Kept &one : kept) {
    if (one.generation == generation && one.kind == kind && one.memory) return &one;
  }
  return nullptr;
}

std::shared_ptr<const SecretBytes> KeyCache::find(uint64_t generation, PreparedKind kind) {
  Shard &shard = shard_of(generation);
  const std::lock_guard lock(shard.mutex);
  Kept *const found = shard.find(generation, kind);
  if (!found) return nullptr;
  found->last_used = ++shard.clock;
  return found->memory;
}

std::shared_ptr<const SecretBytes> KeyCache::keep(uint64_t generation, PreparedKind kind,
                                                  std::shared_ptr<const SecretBytes> memory) {
  std::shared_ptr<const SecretBytes> displaced;  // overwritten after the lock is free again
  Shard &shard = shard_of(generation);
  const std::lock_guard lock(shard.mutex);
  if (const Kept *const other = shard.find(generation, kind)) return other->memory;  // another thread was faster
  const auto older = [](const Kept &a, const Kept &b) {
    return std::pair(a.memory != nullptr, a.last_used) < std::pair(b.memory != nullptr, b.last_used);
  };
  Kept &place = *std::min_element(shard.kept.begin(), shard.kept.end(), older);
  displaced = std::exchange(place.memory, memory);
  place.generation = generation;
  place.kind = kind;
  place.last_used = ++shard.clock;
  return memory;
}

void KeyCache::forget(uint64_t generation) {
  std::array<std::shared_ptr<const SecretBytes>, kKeysPerShard> forgotten;  // as above
  Shard &shard = shard_of(generation);
  const std::lock_guard lock(shard.mutex);
  for (size_t i = 0; i < kKeysPerShard; ++i) {
    if (shard.kept[i].generation == generation) forgotten[i] = std::exchange(shard.kept[i].memory, nullptr);
  }
}

size_t KeyCache::size() const {
  size_t count = 0;
  for (const Shard &shard : shards_) {
    const std::lock_guard lock(shard.mutex);
    for (const Kept &one : shard.kept) count += one.memory ? 1 : 0;
  }
  return count;
}

}  // namespace ksd::crypto
