// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// The two purges: one walk over all keys of the cache, which deletes them one at a time.
#include "ks_api.h"
#include "sdb.h"
#include "sysmgr.h"
#include "transport/trace.h"

namespace {

// Purge tells the walks apart. Reports carry the name of the exported function.
struct Purge {
  const char *function;
  bool (*spares)(const KsSdbDatum &key, uint16_t vdc);
  uint16_t vdc;
  bool clears_places;  // whether the places for key and value are null again before each move
};

bool spares_nothing(const KsSdbDatum &, uint16_t) {
  return false;
}

// DIFFERS(purge-vdc-tag-range): a foreign key is spared only when its tag lies outside this range, and the tags of
// secrets and PACs lie inside: the purge of a VDC deletes all VDCs' PACs. Levelled, other VDCs' PACs would stay.
bool spares_foreign(const KsSdbDatum &key, uint16_t vdc) {
  const auto *bytes = static_cast<const uint8_t *>(key.data);
  constexpr size_t kWithVdc = offsetof(KsCacheKey, key_handle) + KS_NAME_HEADER_SIZE;
  if (key.size < kWithVdc) return false;  // no VDC to be another's, and no key of ours: it goes
  const uint8_t tag = bytes[4];
  const auto owner = static_cast<uint16_t>(bytes[6] << 8 | bytes[7]);
  return owner != vdc && (tag < 0x29 || tag > 0x50);
}

KsResult purge(const Purge &how) {
  const KsSdbDatum *key = nullptr;
  const KsSdbDatum *value = nullptr;
  KS_TRACE(KS_SUBTYPE_NORMAL, "%s(%d)\n", how.function, __LINE__);
  if (is_cache_present() == 0) {
    KS_TRACE(KS_SUBTYPE_NORMAL, "%s(%d):ks_cache is absent.\n", how.function, __LINE__);
    return KS_FAILURE;
  }
  if (sdb_iterator_init(ks_cache_uri, 1) != 0) {
    KS_TRACE(KS_SUBTYPE_CACHE_ALERT, "%s(%d):sdb_iterator_init failed \n", how.function, __LINE__);
    return KS_FAILURE;
  }

  // DIFFERS(purge-count-by-halves): counted where it is reported, once for each open half, so by two when both are
  // open. Levelled, the numbers in the reports would change.
  uint32_t count = 0;
  uint32_t moved = sdb_getkey(ks_cache_uri, &key, &value);
  while (moved == 0) {
    if (!how.spares(*key, how.vdc)) {
      KS_TRACE(KS_SUBTYPE_NORMAL, "%s(%d):Deleting %d Key from shared DB.\n", how.function, __LINE__, count++);
      static_cast<void>(sksd_sdb_delete(key->data, key->size));  // a key that stays doesn't end the walk
    }
    if (how.clears_places) key = value = nullptr;
    moved = sdb_getnext(ks_cache_uri, &key, &value);
  }
  KS_TRACE(KS_SUBTYPE_NORMAL, "%s(%d):Return \n", how.function, __LINE__);
  return KS_SUCCESS;
}

}  // namespace

KsResult ks_cache_purge_all(void) {
  return purge({.function = __func__, .spares = spares_nothing, .vdc = 0, .clears_places = false});
}

KsResult ks_cache_purge_vdc_keys(void) {
  // DIFFERS(purge-vdc-asks): asked anew, before anything is reported, where every name is made with the stored vdc_id.
  // Levelled, sysmgr_vdc_get would not be called, and before ks_init the keys of VDC 0 would be the caller's.
  const auto vdc = static_cast<uint16_t>(sysmgr_vdc_get());
  // DIFFERS(purge-vdc-clears-places): the purge of all keys leaves the places as the last move left them. Levelled, the
  // database would find other pointers in them at each move.
  return purge({.function = __func__, .spares = spares_foreign, .vdc = vdc, .clears_places = true});
}
