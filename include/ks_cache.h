/* SPDX-FileCopyrightText: 2026 The ks developers
 * SPDX-License-Identifier: Apache-2.0 */

/* ks_cache.h: the cache of PAC metadata and T-PRF results in the shared database.
 *
 * Several processes see the same entries, and a PAC is read from here without asking the keystore. The library's own
 * operations only read: the processes that link it fill the cache with the writers and empty it with the purges. An
 * entry holds a PAC's metadata and at most one T-PRF result, never its key, and doesn't expire: it may outlive the
 * keystore's PAC. Nothing here is locked; a writer deletes the old entry first, and readers find none until it is done.
 *
 * Only ks_sdb_init and the purges look at ks_cache_present or set it. The others go to the database as it is. */
#ifndef KS_CACHE_H
#define KS_CACHE_H

#include "ks_types.h"

#define KS_CACHE_KEY_TYPE_PAC UINT32_C(1)

/* KsCacheKey is the key of every entry, always whole: bytes behind the name are zero, so that keys compare byte by
 * byte. It holds the VDC id, so each VDC has an entry of its own for one A-ID. */
typedef struct {
  uint32_t key_type;     /* KS_CACHE_KEY_TYPE_PAC, in the processor's byte order */
  KsWireName key_handle; /* KS_NAME_TAG_PAC for all that the library reads */
} __attribute__((packed)) KsCacheKey;

KS_STATIC_ASSERT(sizeof(KsCacheKey) == 39);
KS_STATIC_ASSERT(offsetof(KsCacheKey, key_handle) == 4);

/* KsCacheEntry is the head of every value. Fields are in the processor's byte order and have no alignment. The body
 * follows it at once, the metadata first; offsets count from the body's first byte. In an entry without a T-PRF result
 * everything but meta_len is zero. */
typedef struct {
  uint32_t meta_len;
  uint32_t label_off;
  uint16_t label_len; /* 0: no T-PRF result */
  uint32_t random_off;
  uint16_t random_len; /* 0: the T-PRF had no random */
  uint32_t output_off;
  uint16_t output_len; /* 0: no T-PRF result */
} __attribute__((packed)) KsCacheEntry;

KS_STATIC_ASSERT(sizeof(KsCacheEntry) == 22);
KS_STATIC_ASSERT(offsetof(KsCacheEntry, label_off) == 4);
KS_STATIC_ASSERT(offsetof(KsCacheEntry, label_len) == 8);
KS_STATIC_ASSERT(offsetof(KsCacheEntry, random_off) == 10);
KS_STATIC_ASSERT(offsetof(KsCacheEntry, random_len) == 14);
KS_STATIC_ASSERT(offsetof(KsCacheEntry, output_off) == 16);
KS_STATIC_ASSERT(offsetof(KsCacheEntry, output_len) == 20);

/* ks_sdb_init opens the cache for the application `uuid`: it learns the URI from the system manager, stores it in
 * ks_cache_uri, cut to 255 characters, and the outcome in ks_cache_present. While the database says that it can't be
 * opened for now, it is tried up to five times with a millisecond between. ks_init calls it, and so does each PAC read
 * that finds the cache closed.
 *
 * KS_FAILURE: the cache isn't open. NOTE: that closes the flag of a cache that was open, too. */
KS_EXPORT KsResult ks_sdb_init(uint32_t uuid);

/* is_cache_present returns ks_cache_present: 1 while the cache is open. It neither opens nor probes anything. */
KS_EXPORT uint32_t is_cache_present(void);

/* The three basic operations on the database at ks_cache_uri. They answer with the database's own codes, check nothing,
 * and pass keys and values of any size. Bytes handed in are read during the call only.
 * NOTE: they report the key byte by byte, the first four whatever `key_size` is: while the reports are recorded, four
 * bytes must be readable at `key`. */

/* sksd_sdb_read returns the value of `key`, or NULL, and stores 0 or the reason in `error`. The value belongs to the
 * database: it is valid until the calling thread's next call of a cache function, and isn't freed. */
KS_EXPORT const KsSdbDatum *sksd_sdb_read(const void *key, uint32_t key_size, uint32_t *error);

/* sksd_sdb_write stores `value` under `key` and completes that. Returns 0, or the code of the step that failed. */
KS_EXPORT uint32_t sksd_sdb_write(const void *key, uint32_t key_size, const void *value, uint32_t value_size);

/* sksd_sdb_delete removes `key` and completes that. Returns 0, or the code of the step that failed. */
KS_EXPORT uint32_t sksd_sdb_delete(const void *key, uint32_t key_size);

/* The entry functions name a PAC by its KsWireName and the length of that, the A-ID's length plus 4. Pointers to
 * results are not tested, but for the `metadata` of ks_cache_read_pac.
 *
 * KS_INVALID_ARGS: `name` is NULL, or `name_len` is 0 or above 35. */

/* ks_cache_pac_write replaces the PAC's entry with one that holds `metadata` and no T-PRF result. `metadata` is copied;
 * it may be NULL when `meta_len` is 0.
 *
 * KS_NO_MEMORY, KS_FAILURE (the database refused): the old entry is gone all the same.
 * NOTE: when the database refuses, the value that was built is never freed. NOTE: a report takes `metadata` for a
 * text. Metadata without a zero byte, which an opaque or info TLV begins with, costs as much of the stack again. */
KS_EXPORT KsResult ks_cache_pac_write(const void *name, uint32_t name_len, const void *metadata, uint16_t meta_len);

/* ks_cache_read_pac hands out a copy of the entry's metadata, which the caller frees, and its length. With a NULL
 * `metadata` it only asks whether the key is there, looks at no value, and `meta_len` is not used.
 *
 * KS_NOT_FOUND: there is no entry. KS_FAILURE: the URI is wrong, or the key has no value. KS_NO_MEMORY: `*metadata` is
 * then NULL.
 * NOTE: KS_SUCCESS with a NULL `*metadata` and a length of 0 is an entry without metadata, or a value too short for its
 * head. NOTE: the lengths in a value are not compared with its size. The database must refuse what no writer wrote, as
 * ours does by a check that it keeps beside each value. NOTE: more than 65,535 bytes of metadata, which no writer here
 * can store, are handed out whole, with the low 16 bits of their length. NOTE: a read error other than the three that
 * have a meaning counts as none: with a NULL `metadata` the answer is KS_SUCCESS. */
KS_EXPORT KsResult ks_cache_read_pac(const void *name, uint32_t name_len, uint8_t **metadata, uint16_t *meta_len);

/* ks_cache_find_pac tells whether the caller's VDC has an entry for `aid`, of 1 to 31 bytes, which is not tested for
 * NULL: `*found` becomes 1 when the result is KS_SUCCESS and 0 otherwise, which is KS_NOT_FOUND or what
 * ks_cache_read_pac answers.
 *
 * KS_INVALID_ARGS: `aid_len` is above 31. KS_NO_MEMORY: `*found` is as it was. */
KS_EXPORT KsResult ks_cache_find_pac(const void *aid, uint32_t aid_len, uint32_t *found);

/* ks_cache_pac_clear deletes the PAC's entry, and the T-PRF result in it.
 *
 * KS_FAILURE: the database refused, which may be its word for an entry that isn't there. */
KS_EXPORT KsResult ks_cache_pac_clear(const void *name, uint32_t name_len);

/* ks_cache_pac_write_tprf puts a T-PRF result into the PAC's entry, in place of the one that may be there. The entry
 * must exist; its metadata stays. `random` may be NULL: the T-PRF had none. All bytes are copied.
 *
 * KS_INVALID_ARGS: also for a NULL or empty `label` or `output`. KS_NOT_FOUND: there is no entry, and none is made.
 * KS_FAILURE: the entry had no metadata and is deleted, or the database refused; KS_NO_MEMORY. After a refusal, and
 * where the new value can't be allocated, the entry is gone. NOTE: two copies of the metadata are never freed, whatever
 * the result. NOTE: a NULL `random` with a length leaves a gap of that length in the value. */
KS_EXPORT KsResult ks_cache_pac_write_tprf(const void *name, uint32_t name_len, const void *label, uint16_t label_len,
                                           const void *random, uint16_t random_len, const void *output,
                                           uint16_t output_len);

/* ks_cache_read_tprf hands out a copy of the cached T-PRF output, which the caller frees, and its length, when `label`
 * and `random` are those it was stored with, byte by byte. `random` may be NULL: then the entry must have none.
 *
 * KS_INVALID_ARGS: also for a NULL or empty `label`. KS_NOT_FOUND: there is no entry. KS_FAILURE: it has no T-PRF
 * result, or that of another label or random; nothing but the report tells these apart. KS_NO_MEMORY: `*output` is then
 * NULL.
 * NOTE: as in ks_cache_read_pac, the lengths and offsets in a value are not compared with its size. */
KS_EXPORT KsResult ks_cache_read_tprf(const void *name, uint32_t name_len, const void *label, uint16_t label_len,
                                      const void *random, uint16_t random_len, uint8_t **output, uint16_t *output_len);

/* ks_cache_purge_all deletes every key of the cache. KS_SUCCESS means that the walk has ended: a key that couldn't be
 * deleted doesn't stop it and isn't told.
 *
 * KS_FAILURE: the cache isn't open, or can't be walked. */
KS_EXPORT KsResult ks_cache_purge_all(void);

/* ks_cache_purge_vdc_keys does the same, but spares a key whose VDC id isn't the caller's and whose name tag lies
 * outside 0x29 to 0x50.
 * NOTE: every PAC's tag lies inside: as things are, this empties the cache for all VDCs. NOTE: a key of fewer than 8
 * bytes, which none of ours is, holds no VDC id and is deleted. */
KS_EXPORT KsResult ks_cache_purge_vdc_keys(void);

#endif
