// entry.h: how an entry of the cache is named, read by position, and how the database's codes are answered.
#ifndef CACHE_ENTRY_H
#define CACHE_ENTRY_H

#include <string.h>

#include "ks_cache.h"
#include "sdb.h"

namespace ks {

inline constexpr uint32_t kEntryHeadSize = sizeof(KsCacheEntry);

inline bool is_cache_name(const void *name, uint32_t name_len) {
  return name != nullptr && name_len >= 1 && name_len <= sizeof(KsWireName);
}

// cache_key makes the whole key of a name that is_cache_name has let pass.
inline KsCacheKey cache_key(const void *name, uint32_t name_len) {
  KsCacheKey key = {};
  key.key_type = KS_CACHE_KEY_TYPE_PAC;
  memcpy(&key.key_handle, name, name_len);
  return key;
}

// CachedEntry looks at a value where it lies, in the database's memory, and never outside it. A header that isn't
// wholly there reads as zeros, and a region that runs past the value's end is not there.
class CachedEntry {
 public:
  explicit CachedEntry(const KsSdbDatum &value) {
    if (value.size < kEntryHeadSize) return;
    memcpy(&head, value.data, kEntryHeadSize);
    body_ = static_cast<const uint8_t *>(value.data) + kEntryHeadSize;
    body_len_ = value.size - kEntryHeadSize;
  }

  // region gives the first byte of `len` bytes at `offset` in the body, or null where they aren't all there.
  const uint8_t *region(uint32_t offset, uint32_t len) const {
    return offset <= body_len_ && len <= body_len_ - offset ? body_ + offset : nullptr;
  }

  KsCacheEntry head = {};

 private:
  const uint8_t *body_ = nullptr;
  uint32_t body_len_ = 0;
};

// The two below report in the name of the function that calls them, which is an exported one.

// read_refusal answers the error word of a read: KS_SUCCESS where the read goes on.
KsResult read_refusal(uint32_t error, const char *function = __builtin_FUNCTION(), int line = __builtin_LINE());

// change_refusal answers the code of a failed write or delete; `text` is the report of a fault without a name.
KsResult change_refusal(uint32_t code, const char *text, const char *function = __builtin_FUNCTION(),
                        int line = __builtin_LINE());

}  // namespace ks

#endif
