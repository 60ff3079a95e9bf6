// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// key_cache.h: keeps what was prepared from keys (schedules, digest states, password hashes), so that a key in use is
// prepared once. It is bounded, its content lies in guarded memory, and it forgets a key as soon as the store says that
// its content is gone.
//
// Each content has a generation that is never used twice, so a prepared key can't be taken for another one's.
#ifndef SERVICE_CRYPTO_KEY_CACHE_H
#define SERVICE_CRYPTO_KEY_CACHE_H

#include <array>
#include <memory>
#include <mutex>
#include <new>
#include <type_traits>

#include "base/secret_bytes.h"
#include "crypto/ciphers.h"

namespace ksd::crypto {

// PreparedKey holds a key that is ready for use, or none. Who holds one may use it for as long as that takes: it is
// overwritten when the cache has forgotten it and the last holder has let go. The key is made in place, in guarded
// memory, and found there by a cast: so no copy of it ever lies elsewhere.
template <typename Key>
class PreparedKey {
  static_assert(std::is_trivially_destructible_v<Key>, "its memory is overwritten without asking it");

 public:
  PreparedKey() = default;
  explicit PreparedKey(std::shared_ptr<const SecretBytes> memory) : memory_(std::move(memory)) {}

  explicit operator bool() const { return memory_ != nullptr; }
  const Key &operator*() const { return *std::launder(reinterpret_cast<const Key *>(memory_->bytes().data())); }
  const Key *operator->() const { return &**this; }

  const std::shared_ptr<const SecretBytes> &memory() const { return memory_; }

 private:
  std::shared_ptr<const SecretBytes> memory_;
};

class KeyCache {
 public:
  // A shard has its own lock, which is held for a look-up only, never while a key is prepared or used: any number of
  // client threads compute with one key at a time. With one shard of as many keys a look-up would take 79 ns instead of
  // 8, which is 1 % of an exchange that encrypts a block of AES.
  static constexpr size_t kShards = 32;
  static constexpr size_t kKeysPerShard = 16;
  static constexpr size_t kMostKeys = kShards * kKeysPerShard;

  // find gives what is kept for the content `generation`, if anything is.
  template <typename Key>
  PreparedKey<Key> find(uint64_t generation) {
    return PreparedKey<Key>(find(generation, Key::kKind));
  }

  // add prepares a key from `secret`, the content `generation`, and keeps it in the place of the one that has not been
  // used for longest. It gives nothing when the secret is no key of that kind.
  template <typename Key>
  PreparedKey<Key> add(uint64_t generation, Bytes secret) {
    std::shared_ptr<SecretBytes> memory = SecretBytes::allocate(sizeof(Key));
    if (!Key::prepare(memory->writable().data(), secret)) return {};
    return PreparedKey<Key>(keep(generation, Key::kKind, std::move(memory)));
  }

  // forget drops everything that was prepared from the content `generation`.
  void forget(uint64_t generation);

  size_t size() const;

 private:
  struct Kept {
    uint64_t generation = 0;
    uint64_t last_used = 0;
    std::shared_ptr<const SecretBytes> memory;  // null: a free place
    PreparedKind kind{};
  };

  struct Shard {
    mutable std::mutex mutex;
    uint64_t clock = 0;
    std::array<Kept, kKeysPerShard> kept;

    Kept *find(uint64_t generation, PreparedKind kind);
  };

  std::shared_ptr<const SecretBytes> find(uint64_t generation, PreparedKind kind);
  std::shared_ptr<const SecretBytes> keep(uint64_t generation, PreparedKind kind,
                                          std::shared_ptr<const SecretBytes> memory);

  // Generations are handed out one after the other, so their low bits spread them evenly.
  Shard &shard_of(uint64_t generation) { return shards_[generation % kShards]; }

  std::array<Shard, kShards> shards_;
};

}  // namespace ksd::crypto

#endif
