// named_key.h: from the name in a request to a key that is ready for use. Shared by the messages that compute.
#ifndef SERVICE_NAMED_KEY_H
#define SERVICE_NAMED_KEY_H

#include "service.h"

namespace ksd {

// request_name decodes the name that a descriptor points to, or gives nothing when it is out of bounds or malformed.
template <typename Descriptor>
std::optional<EntryName> request_name(const Request &request, const Descriptor &descriptor) {
  const std::optional<Bytes> wire = request.section(descriptor.name_offset, descriptor.name_len);
  return wire ? entry_name(*wire) : std::nullopt;
}

// KeyDemand is what a message wants to do with a key, and of which kind of entry.
struct KeyDemand {
  enum class Owner { kSecret, kPac, kEither };

  Algorithm algorithm;
  Owner owner = Owner::kSecret;
  KsResult unsuitable = KS_BAD_KEY;  // the result for an entry whose secret is no key of the wanted kind
};

// find_key looks up the entry of a key on behalf of the caller.
//
// KS_CRYPT_ERROR: the algorithm failed its self-test. KS_NOT_FOUND: there is no such entry, or it belongs to another
// VDC, or it is of a kind whose key the message can't use; the three are not told apart.
KsResult find_key(Service &service, const Request &request, const EntryName &name, const KeyDemand &demand,
                  Entry *out_entry);

// NamedKey is the key of the entry `name`, ready for use, or the result that tells why there is none.
template <typename Key>
class NamedKey {
 public:
  NamedKey(Service &service, const Request &request, const EntryName &name, const KeyDemand &demand) {
    Entry entry;
    result_ = find_key(service, request, name, demand, &entry);
    if (result_ != KS_SUCCESS) return;
    KeyCache &keys = service.crypto.keys;
    key_ = keys.find<Key>(entry.generation);
    if (key_) return;
    key_ = keys.add<Key>(entry.generation, entry.secret->bytes());
    if (!key_) {
      result_ = demand.unsuitable;
      return;
    }
    // The content may have been replaced since it was found. Then the store had the cache forget it before it was
    // added, and won't do so again.
    const std::optional<Entry> now = service.store()->find(name);
    if (!now || now->generation != entry.generation) keys.forget(entry.generation);
  }

  explicit operator bool() const { return result_ == KS_SUCCESS; }
  KsResult result() const { return result_; }
  const Key &operator*() const { return *key_; }
  const Key *operator->() const { return &*key_; }

 private:
  PreparedKey<Key> key_;
  KsResult result_;
};

}  // namespace ksd

#endif
