// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

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

// CachedEntry looks at a value where it lies, in the database's memory. A value is trusted once it has been read: the
// lengths and offsets in its header are not compared with its size, which is only reported. It is the database that
// keeps what no writer wrote from getting here. A value too short for its header reads as zeros, which is an entry
// without metadata and without a T-PRF result.
class CachedEntry {
 public:
  explicit CachedEntry(const KsSdbDatum &value) : value_(static_cast<const uint8_t *>(value.data)) {
    if (value.size >= kEntryHeadSize) memcpy(&head, value.data, kEntryHeadSize);
  }

  // at gives the byte at `offset` in the body.
  const uint8_t *at(uint32_t offset) const { return value_ + kEntryHeadSize + offset; }

  KsCacheEntry head = {};

 private:
  const uint8_t *value_;
};

// The two below report in the name of the function that calls them, which is an exported one.

// read_refusal answers the error word of a read: KS_SUCCESS where the read goes on.
KsResult read_refusal(uint32_t error, const char *function = __builtin_FUNCTION(), int line = __builtin_LINE());

// change_refusal answers the code of a failed write or delete; `text` is the report of a fault without a name.
KsResult change_refusal(uint32_t code, const char *text, const char *function = __builtin_FUNCTION(),
                        int line = __builtin_LINE());

}  // namespace ks

#endif
