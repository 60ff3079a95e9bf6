// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// The one T-PRF result that a PAC's entry may hold.
//
//   value   header | metadata | label | random, or a gap of its length | output
#include <stdlib.h>

#include "cache/entry.h"
#include "ks_api.h"
#include "transport/sections.h"
#include "transport/trace.h"

namespace {

// with_result is the header of an entry whose regions are packed in their order. A null random with a length leaves a
// gap of that length in front of the output.
KsCacheEntry with_result(uint16_t meta_len, uint16_t label_len, const void *random, uint16_t random_len,
                         uint16_t output_len) {
  const uint32_t random_off = uint32_t{meta_len} + label_len;
  KsCacheEntry head = {};
  head.meta_len = meta_len;
  head.label_off = meta_len;
  head.label_len = label_len;
  if (random != nullptr) {
    head.random_off = random_off;
    head.random_len = random_len;
  }
  head.output_off = random_off + random_len;
  head.output_len = output_len;
  return head;
}

// fill_entry copies the header and the regions to where the header says, into zeroed memory.
void fill_entry(uint8_t *value, const KsCacheEntry &head, const void *metadata, const void *label, const void *random,
                const void *output) {
  memcpy(value, &head, ks::kEntryHeadSize);
  uint8_t *body = value + ks::kEntryHeadSize;
  memcpy(body, metadata, head.meta_len);
  memcpy(body + head.label_off, label, head.label_len);
  if (head.random_len != 0) memcpy(body + head.random_off, random, head.random_len);
  memcpy(body + head.output_off, output, head.output_len);
}

}  // namespace

KsResult ks_cache_pac_write_tprf(const void *name, uint32_t name_len, const void *label, uint16_t label_len,
                                 const void *random, uint16_t random_len, const void *output, uint16_t output_len) {
  KS_TRACE_HERE(KS_SUBTYPE_NORMAL, "\n");
  if (!ks::is_cache_name(name, name_len)) return KS_INVALID_ARGS;
  if (label == nullptr || label_len == 0) return KS_INVALID_ARGS;
  if (output == nullptr || output_len == 0) return KS_INVALID_ARGS;

  // Read: the metadata of the entry, which must be there.
  // DIFFERS(tprf-write-keeps-metadata): neither of the two copies of the metadata is freed on any path, where
  // ks_cache_pac_write keeps nothing but a refused value. Levelled, a call would leave two blocks less.
  uint8_t *read = nullptr;
  uint16_t meta_len = 0;
  if (const KsResult result = ks_cache_read_pac(name, name_len, &read, &meta_len); result != KS_SUCCESS) {
    if (result == KS_NOT_FOUND) {
      KS_TRACE_HERE(KS_SUBTYPE_CACHE_ALERT, ":Key not found. \n");
    } else {
      KS_TRACE_HERE(KS_SUBTYPE_CACHE_ALERT, ":ks_read_failed.\n");
    }
    return result;
  }
  if (meta_len == 0) {
    KS_TRACE_HERE(KS_SUBTYPE_CACHE_ALERT, ":No Meta present for this key in cache. Corrupt entry. Deleting it.\n");
    static_cast<void>(ks_cache_pac_clear(name, name_len));
    return KS_FAILURE;
  }
  auto *metadata = static_cast<uint8_t *>(calloc(1, meta_len));
  if (metadata == nullptr) {  // before anything is deleted: the entry stays as it is
    KS_TRACE_HERE(KS_SUBTYPE_CACHE_ALERT, ":Malloc failed \n");
    return KS_NO_MEMORY;
  }
  memcpy(metadata, read, meta_len);

  // Lay out: the new value, behind the deletion of the old one.
  static_cast<void>(ks_cache_pac_clear(name, name_len));
  const KsCacheEntry head = with_result(meta_len, label_len, random, random_len, output_len);
  const uint32_t size = ks::kEntryHeadSize + head.output_off + output_len;
  KS_TRACE_HERE(KS_SUBTYPE_NORMAL,
                ":Total value size :%u.URI :%s.Meta Len :%u.Label Len :%u.Random Len :%u.Output Len :%u.\n", size,
                ks_cache_uri, meta_len, label_len, random_len, output_len);
  auto *value = static_cast<uint8_t *>(calloc(1, size));
  if (value == nullptr) {
    KS_TRACE_HERE(KS_SUBTYPE_CACHE_ALERT, ":Malloc failed \n");
    return KS_NO_MEMORY;
  }
  fill_entry(value, head, metadata, label, random, output);

  // Write.
  const KsCacheKey key = ks::cache_key(name, name_len);
  KS_TRACE_HERE(KS_SUBTYPE_NORMAL, ":Writing PAC TPRF into shared DB.\n");
  const uint32_t code = sksd_sdb_write(&key, sizeof key, value, size);
  free(value);
  if (code != 0) return ks::change_refusal(code, "%s(%d):SDB write error.\n");
  KS_TRACE_HERE(KS_SUBTYPE_NORMAL, ":Return \n");
  return KS_SUCCESS;
}

KsResult ks_cache_read_tprf(const void *name, uint32_t name_len, const void *label, uint16_t label_len,
                            const void *random, uint16_t random_len, uint8_t **output, uint16_t *output_len) {
  KS_TRACE_HERE(KS_SUBTYPE_NORMAL, "\n");
  if (!ks::is_cache_name(name, name_len)) return KS_INVALID_ARGS;
  if (label == nullptr || label_len == 0) return KS_INVALID_ARGS;

  const KsCacheKey key = ks::cache_key(name, name_len);
  uint32_t error = 0;
  const KsSdbDatum *value = sksd_sdb_read(&key, sizeof key, &error);
  if (const KsResult refused = ks::read_refusal(error); refused != KS_SUCCESS) return refused;
  if (value == nullptr) {
    KS_TRACE_HERE(KS_SUBTYPE_CACHE_ALERT, ":Key is found in SDB but value is NULL. \n");
    return KS_FAILURE;
  }
  const ks::CachedEntry entry(*value);
  const KsCacheEntry &head = entry.head;
  KS_TRACE_HERE(KS_SUBTYPE_NORMAL, ":Total value Size :%d \n", value->size);
  KS_TRACE_HERE(KS_SUBTYPE_NORMAL, ":Cached Label Len :%d. Cached Random Len :%d\n", head.label_len, head.random_len);
  KS_TRACE_HERE(KS_SUBTYPE_NORMAL, ":Received Label Len :%d.Received Random Len :%d\n", label_len, random_len);

  if (head.label_len == 0 || head.output_len == 0) {
    KS_TRACE_HERE(KS_SUBTYPE_CACHE_ALERT, ":Either label or output is not present in cache.\n");
    return KS_FAILURE;
  }
  if (label_len != head.label_len || memcmp(label, entry.at(head.label_off), label_len) != 0) {
    KS_TRACE_HERE(KS_SUBTYPE_CACHE_ALERT, ":Label mismatch.\n");
    return KS_FAILURE;
  }
  // No random is like an empty one: it matches an entry without.
  if ((random == nullptr ? 0 : random_len) != head.random_len) {
    KS_TRACE_HERE(KS_SUBTYPE_CACHE_ALERT, ":Random number length mismatch.\n");
    return KS_FAILURE;
  }
  if (head.random_len != 0 && memcmp(random, entry.at(head.random_off), head.random_len) != 0) {
    KS_TRACE_HERE(KS_SUBTYPE_CACHE_ALERT, ":Given random number does not match cached value.\n");
    return KS_FAILURE;
  }

  *output = static_cast<uint8_t *>(calloc(1, head.output_len));
  if (*output == nullptr) {
    KS_TRACE_HERE(KS_SUBTYPE_CACHE_ALERT, ":Malloc failed \n");
    return KS_NO_MEMORY;
  }
  memcpy(*output, entry.at(head.output_off), head.output_len);
  *output_len = head.output_len;
  // DIFFERS(tprf-found-alert): the one success that is reported at the subtype of the alerts. Levelled, it would not
  // show where the gate of 100 alone is open.
  KS_TRACE_HERE(KS_SUBTYPE_CACHE_ALERT, ":Valid TPRF found in cache.\n");
  KS_TRACE_HERE(KS_SUBTYPE_NORMAL, ":Return \n");
  return KS_SUCCESS;
}
