// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// named_key.h: from the name in a request to a key that is ready for use. Shared by the messages that compute.
#ifndef SERVICE_HANDLERS_NAMED_KEY_H
#define SERVICE_HANDLERS_NAMED_KEY_H

#include "handlers/name.h"

namespace ksd::handlers {

// KeyDemand is what a message wants to do with a key, and of which kind of entry.
struct KeyDemand {
  enum class Owner { kSecret, kPac, kEither };

  crypto::Algorithm algorithm;
  Owner owner = Owner::kSecret;
  KsResult unsuitable = KS_BAD_KEY;  // the result for an entry whose secret is no key of the wanted kind
};

// allow_key tells whether the caller may use a key of that name so, be there one or not.
//
// KS_CRYPT_ERROR: the algorithm failed its self-test. KS_NOT_FOUND: the name belongs to another VDC, or is of a kind
// whose key the message can't use; find_key gives the same for a name that isn't there, so that the three are not told
// apart.
KsResult allow_key(Service &service, const Request &request, const EntryName &name, const KeyDemand &demand);

// find_key looks up the entry of a key that the caller may use, or gives KS_NOT_FOUND.
KsResult find_key(const vault::Store &store, const EntryName &name, vault::Entry *out_entry);

// RecentKey remembers the key that a thread used last: most clients go on with one key. It saves the look-ups in store
// and cache, 0.1 us or 1 to 2 % of an exchange that encrypts a block of AES. It keeps no key from being forgotten.
template <typename Key>
class RecentKey {
 public:
  // find gives the key when it was that of `name` in this epoch of this store, and none otherwise.
  crypto::PreparedKey<Key> find(const vault::Store *store, uint64_t epoch, const EntryName &name) const {
    if (store != store_ || epoch != epoch_ || name != name_) return {};
    return crypto::PreparedKey<Key>(memory_.lock());
  }

  void keep(const vault::Store *store, uint64_t epoch, const EntryName &name, const crypto::PreparedKey<Key> &key) {
    memory_.reset();  // without memory for the name, no key stands beside half of one
    store_ = store;
    epoch_ = epoch;
    name_ = name;
    memory_ = key.memory();
  }

 private:
  const vault::Store *store_ = nullptr;
  uint64_t epoch_ = 0;
  EntryName name_;
  std::weak_ptr<const SecretBytes> memory_;
};

// NamedKey is the key of the entry `name`, ready for use, or the result that tells why there is none.
template <typename Key>
class NamedKey {
 public:
  NamedKey(Service &service, const Request &request, const EntryName &name, const KeyDemand &demand) {
    result_ = allow_key(service, request, name, demand);
    if (result_ != KS_SUCCESS) return;
    static thread_local RecentKey<Key> recent;
    vault::Store &store = service.store();
    const uint64_t epoch = store.epoch();  // of before the look-up, so that a change during it counts as one after it
    key_ = recent.find(&store, epoch, name);
    if (key_) return;
    result_ = look_up(service, name, demand);
    if (key_) recent.keep(&store, epoch, name, key_);
  }

  explicit operator bool() const { return result_ == KS_SUCCESS; }
  KsResult result() const { return result_; }
  const Key &operator*() const { return *key_; }
  const Key *operator->() const { return &*key_; }

 private:
  KsResult look_up(Service &service, const EntryName &name, const KeyDemand &demand) {
    const vault::Store &store = service.store();
    vault::Entry entry;
    if (const KsResult found = find_key(store, name, &entry); found != KS_SUCCESS) return found;
    crypto::KeyCache &keys = service.crypto.keys;
    key_ = keys.find<Key>(entry.generation);
    if (key_) return KS_SUCCESS;
    key_ = keys.add<Key>(entry.generation, entry.secret->bytes());
    if (!key_) return demand.unsuitable;
    // The content may have been replaced since it was found. Then the store had the cache forget it before it was
    // added, and won't do so again.
    const std::optional<vault::Entry> now = store.find(name);
    if (!now || now->generation != entry.generation) keys.forget(entry.generation);
    return KS_SUCCESS;
  }

  crypto::PreparedKey<Key> key_;
  KsResult result_;
};

}  // namespace ksd::handlers

#endif
