// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// A PAC's entry without a T-PRF result: written, read, looked for and deleted.
//
//   key     type 1 | wire name, zeros behind it                        (39 bytes)
//   value   meta_len | 18 zero bytes | metadata                        (22 bytes and the metadata)
#include <stdlib.h>

#include "cache/entry.h"
#include "ks_api.h"
#include "transport/sections.h"
#include "transport/trace.h"

namespace {

// report_value reports what is about to be stored, in the name of ks_cache_pac_write. The report takes metadata for a
// text, up to its first zero byte, which a KsPacMetadata begins with. Metadata without one is given an end in a copy,
// so that nothing behind it is read. The copy is as long as the metadata, because the debug line is not cut; it is on
// the stack, because the heap sees no report; and it is here, in a frame of its own, so that only such metadata costs
// it.
[[gnu::noinline]] void report_value(const char *function, int line, uint32_t size, const void *metadata,
                                    uint16_t meta_len) {
  auto text = static_cast<const char *>(metadata);
  char *copy = nullptr;
  if (text != nullptr && memchr(text, '\0', meta_len) == nullptr) {
    copy = static_cast<char *>(__builtin_alloca(meta_len + size_t{1}));
  }
  const auto ended = [=] {  // asked by an open half alone
    if (copy == nullptr) return text;
    memcpy(copy, text, meta_len);
    copy[meta_len] = '\0';
    return static_cast<const char *>(copy);
  };
  KS_TRACE(KS_SUBTYPE_NORMAL, "%s(%d):Total value size :%u.URI :%s.Meta :%s.Meta Len :%u\n", function, line, size,
           ks_cache_uri, ended(), meta_len);
}

}  // namespace

KsResult ks_cache_pac_write(const void *name, uint32_t name_len, const void *metadata, uint16_t meta_len) {
  KS_TRACE_HERE(KS_SUBTYPE_NORMAL, "\n");
  if (!ks::is_cache_name(name, name_len)) return KS_INVALID_ARGS;

  static_cast<void>(ks_cache_pac_clear(name, name_len));  // the old entry goes, whatever happens next

  const KsCacheKey key = ks::cache_key(name, name_len);
  KsCacheEntry head = {};
  head.meta_len = meta_len;
  const uint32_t size = ks::kEntryHeadSize + meta_len;
  report_value(__func__, __LINE__, size, metadata, meta_len);
  auto *value = static_cast<uint8_t *>(calloc(1, size));
  if (value == nullptr) {
    KS_TRACE_HERE(KS_SUBTYPE_CACHE_ALERT, ":Malloc failed \n");
    return KS_NO_MEMORY;
  }
  memcpy(value, &head, ks::kEntryHeadSize);
  if (meta_len != 0) memcpy(value + ks::kEntryHeadSize, metadata, meta_len);

  KS_TRACE_HERE(KS_SUBTYPE_NORMAL, ":Writing PAC into shared DB.\n");
  if (const uint32_t code = sksd_sdb_write(&key, sizeof key, value, size); code != 0) {
    // DIFFERS(cache-write-keeps-value): the value stays allocated here, where ks_cache_pac_write_tprf frees it.
    // Levelled, a refusal would leave one block less here, or one more there.
    return ks::change_refusal(code, "%s(%d):SDB write error.\n");
  }
  free(value);
  KS_TRACE_HERE(KS_SUBTYPE_NORMAL, ":Return \n");
  return KS_SUCCESS;
}

KsResult ks_cache_read_pac(const void *name, uint32_t name_len, uint8_t **metadata, uint16_t *meta_len) {
  KS_TRACE_HERE(KS_SUBTYPE_NORMAL, "\n");
  if (!ks::is_cache_name(name, name_len)) return KS_INVALID_ARGS;

  const KsCacheKey key = ks::cache_key(name, name_len);
  uint32_t error = 0;
  const KsSdbDatum *value = sksd_sdb_read(&key, sizeof key, &error);
  if (const KsResult refused = ks::read_refusal(error); refused != KS_SUCCESS) return refused;
  if (metadata == nullptr) return KS_SUCCESS;
  if (value == nullptr) {
    KS_TRACE_HERE(KS_SUBTYPE_CACHE_ALERT, ":Key is found in SDB but value is NULL. \n");
    return KS_FAILURE;
  }
  KS_TRACE_HERE(KS_SUBTYPE_NORMAL, ":Total value Size :%d \n", value->size);

  const ks::CachedEntry entry(*value);
  const uint32_t len = entry.head.meta_len;
  if (len == 0) {  // a damaged entry, which the caller is told by these two
    *metadata = nullptr;
    *meta_len = 0;
  } else {
    *metadata = static_cast<uint8_t *>(calloc(1, len));
    if (*metadata == nullptr) {
      KS_TRACE_HERE(KS_SUBTYPE_CACHE_ALERT, ":Malloc failed \n");
      return KS_NO_MEMORY;
    }
    memcpy(*metadata, entry.at(0), len);
    *meta_len = ks::low16(len);
  }
  KS_TRACE_HERE(KS_SUBTYPE_NORMAL, ":Return \n");
  return KS_SUCCESS;
}

KsResult ks_cache_find_pac(const void *aid, uint32_t aid_len, uint32_t *found) {
  // DIFFERS(cache-find-malloc): malloc, as for all names under which the cache is asked; the names of requests come
  // from calloc. And no report, where the cache's other allocations report a failure. Levelled, another allocator
  // function would be called, and a failure reported.
  void *name = malloc(sizeof(KsWireName));
  if (name == nullptr) return KS_NO_MEMORY;
  memset(name, 0, sizeof(KsWireName));
  // A longer A-ID is refused by the read below: no more of it than there is room for needs to be in the name.
  ks::fill_wire_name(name, KS_NAME_TAG_PAC, aid, aid_len < KS_PAC_NAME_MAX ? aid_len : KS_PAC_NAME_MAX);

  const KsResult result = ks_cache_read_pac(name, aid_len + KS_NAME_HEADER_SIZE, nullptr, nullptr);
  free(name);
  *found = result == KS_SUCCESS ? 1 : 0;
  return result;
}

KsResult ks_cache_pac_clear(const void *name, uint32_t name_len) {
  KS_TRACE_HERE(KS_SUBTYPE_NORMAL, "\n");
  if (!ks::is_cache_name(name, name_len)) return KS_INVALID_ARGS;

  const KsCacheKey key = ks::cache_key(name, name_len);
  KS_TRACE_HERE(KS_SUBTYPE_NORMAL, ":Deleting Key from shared DB.\n");
  if (const uint32_t code = sksd_sdb_delete(&key, sizeof key); code != 0) {
    return ks::change_refusal(code, "%s(%d):SDB delete error.\n");
  }
  KS_TRACE_HERE(KS_SUBTYPE_NORMAL, ":Return \n");
  return KS_SUCCESS;
}
