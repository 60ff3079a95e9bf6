/* SPDX-FileCopyrightText: 2026 The ks developers
 * SPDX-License-Identifier: Apache-2.0 */

/* ks_pac.h: Protected Access Credentials of EAP-FAST (RFC 4851). A PAC is named by its A-ID, 1 to 31 bytes of any
 * value; its key goes into the keystore and never comes back, its metadata does.
 *
 * Reads are answered from the PAC cache (ks_cache.h) when it has the PAC, with no message at all, and by the keystore
 * otherwise. No function here writes to the cache: a stored or cleared PAC leaves a cached copy as it was. A read of a
 * closed cache tries to open it, on every call. Whatever goes wrong with the cache only sends a read to the keystore.
 */
#ifndef KS_PAC_H
#define KS_PAC_H

#include "ks_types.h"

/* A PAC's metadata is a bare sequence of TLVs, at most one of each of two types: the opaque and the info, in either
 * order. Wherever an opaque or an info is data here, and in its length, the whole TLV is meant, header included. */
#define EAP_FAST_PAC_OPAQUE 2 /* the PAC-Opaque; never looked into */
#define EAP_FAST_PAC_INFO 9   /* a sequence of inner TLVs */

/* Inner TLVs of an info. Their types are compared without the mandatory bit, those of the outer TLVs with it. */
#define EAP_FAST_PAC_LIFETIME 3 /* 4 bytes: the time of expiry, big-endian, in the seconds of time() */
#define EAP_FAST_PAC_I_ID 5     /* identity text, with or without a NUL at its end */
#define KS_PAC_TLV_MANDATORY 0x8000

/* Others that an info may hold (RFC 5422, section 4.2.4), to which the library gives no meaning. */
#define EAP_FAST_PAC_A_ID 4      /* who issued the PAC */
#define EAP_FAST_PAC_A_ID_INFO 7 /* the issuer's name for people */
#define EAP_FAST_PAC_TYPE 10     /* 2 bytes, one of these: */
#define EAP_FAST_PAC_TYPE_TUNNEL 1
#define EAP_FAST_PAC_TYPE_MACHINE 2
#define EAP_FAST_PAC_TYPE_USER_AUTHORIZATION 3

/* KsPacTlv is the header of a TLV; `length` bytes of value follow it. All numbers in TLVs are big-endian, and no TLV is
 * aligned. */
typedef struct {
  uint8_t type[2];
  uint8_t length[2]; /* of the value alone */
} KsPacTlv;

KS_STATIC_ASSERT(sizeof(KsPacTlv) == 4);

/* The records of the requests. Lengths are in bytes, offsets count from the descriptor's first byte, and both are in
 * the processor's own byte order. Reserved bytes are not written; the service ignores them. */

/* KsStorePacDescriptor describes a request to store a PAC: its name, its key and its metadata. */
typedef struct {
  uint8_t name_len;
  uint8_t name_offset; /* 20 */
  uint8_t reserved[2];
  uint32_t key_len;
  uint32_t key_offset; /* name_len + 20 */
  uint32_t metadata_len;
  uint32_t metadata_offset; /* key_offset + key_len */
} KsStorePacDescriptor;

KS_STATIC_ASSERT(sizeof(KsStorePacDescriptor) == 20);
KS_STATIC_ASSERT(offsetof(KsStorePacDescriptor, key_len) == 4);
KS_STATIC_ASSERT(offsetof(KsStorePacDescriptor, key_offset) == 8);
KS_STATIC_ASSERT(offsetof(KsStorePacDescriptor, metadata_len) == 12);
KS_STATIC_ASSERT(offsetof(KsStorePacDescriptor, metadata_offset) == 16);

/* KsPacKeyTPrfDescriptor describes a request for a T-PRF on a PAC's key: its name, a label, and perhaps a random. */
typedef struct {
  uint16_t output_len; /* how many bytes are wanted */
  uint8_t name_len;
  uint8_t name_offset; /* 20 */
  uint16_t label_len;
  uint8_t reserved1[2];
  uint32_t label_offset; /* name_len + 20 */
  uint16_t random_len;
  uint8_t reserved2[2];
  uint32_t random_offset; /* label_offset + label_len, but 0 when random_len is 0 */
} KsPacKeyTPrfDescriptor;

KS_STATIC_ASSERT(sizeof(KsPacKeyTPrfDescriptor) == 20);
KS_STATIC_ASSERT(offsetof(KsPacKeyTPrfDescriptor, name_len) == 2);
KS_STATIC_ASSERT(offsetof(KsPacKeyTPrfDescriptor, name_offset) == 3);
KS_STATIC_ASSERT(offsetof(KsPacKeyTPrfDescriptor, label_len) == 4);
KS_STATIC_ASSERT(offsetof(KsPacKeyTPrfDescriptor, label_offset) == 8);
KS_STATIC_ASSERT(offsetof(KsPacKeyTPrfDescriptor, random_len) == 12);
KS_STATIC_ASSERT(offsetof(KsPacKeyTPrfDescriptor, random_offset) == 16);

/* ks_store_pac makes or replaces the PAC `aid`: its key, and as its metadata `opaque` followed by `info`. Each of the
 * two is exactly one TLV of its type, header included; what stands inside isn't examined, so that an info without a
 * lifetime can be stored. Nothing of the buffers is kept. The keystore daemon takes a key and metadata of up to 65,535
 * bytes each; EAP-FAST's keys have 32.
 *
 * KS_INVALID_ARGS: a pointer is NULL, `aid_len` is not 1 to 31, another length is 0, or a TLV's header doesn't fit its
 * type or length. KS_RPC_TOO_LARGE: the service takes no key or metadata of that size. KS_FAILURE: the exchange failed.
 * NOTE: a cached copy of the PAC that is replaced stays, and is what reads find. ksh_store_pac of ks_helpers.h removes
 * it. */
KS_EXPORT KsResult ks_store_pac(const uint8_t *aid, uint32_t aid_len, const uint8_t *pac_key, uint32_t pac_key_len,
                                const uint8_t *opaque, uint32_t opaque_len, const uint8_t *info, uint32_t info_len);

/* ks_store_pac_req allocates the name and a copy of the metadata, which the caller frees through entries 0 and 2 of
 * `sections` (three entries), points entry 1 at `pac_key` itself, and fills `descriptor`. It checks the two TLVs'
 * headers and nothing else. When it fails nothing stays allocated and nothing is written. */
KS_EXPORT KsResult ks_store_pac_req(const uint8_t *aid, uint32_t aid_len, const uint8_t *pac_key, uint32_t pac_key_len,
                                    const uint8_t *opaque, uint32_t opaque_len, const uint8_t *info, uint32_t info_len,
                                    KsSection *sections, KsStorePacDescriptor *descriptor);

/* ks_store_pac_resp returns the first word of `payload`. `payload_size` is not read. */
KS_EXPORT KsResult ks_store_pac_resp(uint16_t payload_size, const void *payload);

/* ks_return_pac_opaque hands out the opaque TLV of the PAC `aid`, header included, in a buffer of exactly its size that
 * the caller frees. The lifetime isn't looked at: an expired PAC is returned like any other.
 *
 * KS_NOT_FOUND: the keystore has no such PAC. KS_FAILURE: the keystore's metadata is damaged or holds no opaque, or no
 * reply came. KS_FW_COMM_ERROR: the request could not be sent.
 * NOTE: on a failure behind a cache miss `*opaque` is NULL and `*opaque_len` 0; behind a closed cache both are
 * untouched, but for a NULL in `*opaque` when the result can't be allocated.
 * NOTE: when the keystore's metadata holds two infos or an info of a bad length, both messages and the section list are
 * never released. */
KS_EXPORT KsResult ks_return_pac_opaque(const uint8_t *aid, uint32_t aid_len, uint8_t **opaque, uint32_t *opaque_len);

/* ks_cache_get_pac_opaque does the same from the cache alone. It sends no message and doesn't open the cache.
 *
 * KS_INVALID_ARGS: `aid_len` is above 31; no other argument is checked. KS_NOT_FOUND: no such entry. KS_FAILURE: the
 * cache can't be read, or the entry is damaged or holds no opaque; it stays as it is.
 * NOTE: `*opaque` is NULL when the result can't be allocated. */
KS_EXPORT KsResult ks_cache_get_pac_opaque(const uint8_t *aid, uint32_t aid_len, uint8_t **opaque,
                                           uint16_t *opaque_len);

/* ks_return_pac_info hands out the info TLV of the PAC `aid`, with the rules and results of ks_return_pac_opaque.
 * NOTE: here it is two opaques, or an opaque of a bad length, that leave both messages unreleased; nothing else stays.
 */
KS_EXPORT KsResult ks_return_pac_info(const uint8_t *aid, uint32_t aid_len, uint8_t **info, uint32_t *info_len);

/* ks_cache_get_pac_info does the same from the cache alone, with the rules of ks_cache_get_pac_opaque.
 * NOTE: of `aid_len` plus 4 the low 8 bits count, so that 257 looks up the first byte. */
KS_EXPORT KsResult ks_cache_get_pac_info(const uint8_t *aid, uint32_t aid_len, uint8_t **info, uint16_t *info_len);

/* ks_pac_info_req builds the request of ks_return_pac_info for callers that run the exchange themselves: it allocates
 * the name, which the caller frees through `section`, and fills both outputs. It checks nothing. */
KS_EXPORT KsResult ks_pac_info_req(const uint8_t *aid, uint32_t aid_len, KsSection *section,
                                   KsNameDescriptor *descriptor);

/* ks_get_pac_expiration returns the time at which the PAC `aid` expires, in the seconds of time(): the first lifetime
 * of its info. It doesn't say whether that time has passed.
 *
 * 0: no expiry could be told, for whatever reason, bad arguments and a failed exchange included. ks_return_pac_info
 * tells more. */
KS_EXPORT uint32_t ks_get_pac_expiration(const uint8_t *aid, uint32_t aid_len);

/* ks_pac_exists asks for the PAC `aid`, the cache first. `*exists` becomes 1 from the cache, or the keystore's own
 * flag.
 *
 * KS_NOT_FOUND: the keystore has no such PAC; look at the result before `*exists`. KS_FW_COMM_ERROR: the exchange
 * failed.
 * NOTE: before you call it: with an open cache that lacks a PAC of the keystore, the process faults. Once the cache was
 * asked in vain, the keystore's positive answer is stored through a NULL pointer; `*exists` is 0 by then. An answer is
 * safe when the cache has the PAC, when the keystore hasn't, and while the cache can't be opened.
 * Call ksh_pac_exists of ks_helpers.h instead; or ks_return_pac_opaque or ks_return_pac_info, and free what they hand
 * out: KS_SUCCESS means that the PAC is there, KS_NOT_FOUND that it isn't. ks_cache_find_pac asks the cache alone. */
KS_EXPORT KsResult ks_pac_exists(const uint8_t *aid, uint32_t aid_len, uint32_t *exists);

/* ks_pac_exists_req allocates the name, which the caller frees through `section`, and fills both outputs. It checks
 * nothing. */
KS_EXPORT KsResult ks_pac_exists_req(const uint8_t *aid, uint32_t aid_len, KsSection *section,
                                     KsNameDescriptor *descriptor);

/* ks_pac_exists_resp stores the reply's flag in `*exists` when its result is KS_SUCCESS, and returns the result. */
KS_EXPORT KsResult ks_pac_exists_resp(uint32_t *exists, const void *payload);

/* ks_return_aid_by_index hands out the caller's next PAC: from position `*index` of the keystore's table on, which
 * starts at 0, it skips secrets and other VDCs' entries. `*aid` is a buffer that the caller frees, with a 0 behind its
 * `*aid_len` bytes; `*index` moves behind the entry.
 *
 * KS_NO_MORE_ENTRIES: the end of the table. KS_FAILURE: the exchange failed. On both `*index` stays where it was.
 * NOTE: an entry that comes or goes between two calls moves what the positions stand for. */
KS_EXPORT KsResult ks_return_aid_by_index(uint16_t *index, uint8_t **aid, uint16_t *aid_len);

/* ks_clear_pac removes the PAC `aid` from the keystore. A cached copy stays, and is still found.
 *
 * KS_NOT_REGISTERED, which is 0: the sup state holds every PAC, and the arguments were not looked at. KS_FAILURE: the
 * exchange failed, or there was no memory for the section list. */
KS_EXPORT KsResult ks_clear_pac(const uint8_t *aid, uint32_t aid_len);

/* ks_clear_pac_req allocates the name, which the caller frees through `section`, and fills both outputs. It checks
 * nothing. */
KS_EXPORT KsResult ks_clear_pac_req(const uint8_t *aid, uint32_t aid_len, KsSection *section,
                                    KsNameDescriptor *descriptor);

/* ks_clear_pac_resp returns the first word of `payload`. `payload_size` is not read. */
KS_EXPORT KsResult ks_clear_pac_resp(uint16_t payload_size, const void *payload);

/* ks_pac_key_t_prf computes the T-PRF of RFC 4851 on the key of the PAC `aid`, with `label` and, unless `random` is
 * NULL, `random` as its seed: `output_len` bytes into `output`. A result that is cached for the same label and random
 * comes from the cache, whatever its length. Label and random are not checked here. The service takes up to 1,024 bytes
 * of each.
 *
 * KS_INVALID_ARGS: `aid` or `output` is NULL, `aid_len` is not 1 to 31, or `output_len` is 0; from the service: it is
 * above 5,100, 255 blocks of SHA-1, which is all that a T-PRF has. KS_NOT_FOUND: the
 * keystore has no such PAC. KS_FAILURE: the exchange failed, or the result is longer than `output_len`, in which case
 * the keystore isn't asked for a shorter one and nothing is copied. KS_RPC_TOO_LARGE: the service refused the label or
 * the random. NOTE: a shorter result is a success, and the rest of `output` stays as it was; its length isn't told.
 * NOTE: the copy that the cache handed out stays allocated when it is too long, or when this call opened the cache. */
KS_EXPORT KsResult ks_pac_key_t_prf(const uint8_t *aid, uint8_t aid_len, const uint8_t *label, uint16_t label_len,
                                    const uint8_t *random, uint16_t random_len, uint8_t *output, uint16_t output_len);

/* ks_pac_key_t_prf_req allocates the name, of exactly its length, which the caller frees through entry 0 of `sections`,
 * and fills `descriptor` and the entries: three, or two when `random` is NULL, and then no third entry is touched. */
KS_EXPORT KsResult ks_pac_key_t_prf_req(const uint8_t *aid, uint8_t aid_len, const uint8_t *label, uint16_t label_len,
                                        const uint8_t *random, uint16_t random_len, uint16_t output_len,
                                        KsSection *sections, KsPacKeyTPrfDescriptor *descriptor);

/* ks_pac_key_t_prf_resp copies a reply's data to `output` and returns the result. `payload_size` is not read.
 *
 * KS_FAILURE: the data is longer than `output_len`; nothing is copied. */
KS_EXPORT KsResult ks_pac_key_t_prf_resp(uint16_t payload_size, const void *payload, uint8_t *output,
                                         uint16_t output_len);

/* ks_cache_get_pac_tprf hands out the T-PRF result that is cached for the PAC `aid` with this label and random, in a
 * buffer that the caller frees. It sends no message and doesn't open the cache.
 *
 * KS_INVALID_ARGS: `label` is NULL or empty, or the name too long. KS_NOT_FOUND: no entry for the PAC. KS_FAILURE: the
 * entry holds no result, or one of another label or random.
 * NOTE: of `aid_len` plus 4 the low 8 bits count. */
KS_EXPORT KsResult ks_cache_get_pac_tprf(const uint8_t *aid, uint32_t aid_len, const uint8_t *label, uint16_t label_len,
                                         const uint8_t *random, uint16_t random_len, uint8_t **output,
                                         uint16_t *output_len);

/* ks_sw_pac_still_valid returns 1 if a PAC with this metadata is to be kept for the identity `i_id`, and 0 if it isn't:
 * its info must hold that identity, and no lifetime that has passed. Only the first info counts, and the walk ends at
 * another identity, or as soon as it has met both. Damaged metadata gives 0.
 * NOTE: before you call it: the lifetime is compared as a signed number in the processor's own byte order, not
 * converted as ks_get_pac_expiration converts it. On a little-endian processor the last byte of the time decides: nine
 * of ten PACs with a lifetime count as expired, however long they still live, and some that have expired count as
 * alive. To know whether a PAC has expired, compare ks_get_pac_expiration with time(). NOTE: `i_id` is not tested: NULL
 * faults at the first identity. */
KS_EXPORT uint32_t ks_sw_pac_still_valid(const uint8_t *meta, uint16_t meta_len, const char *i_id);

/* ks_clear_old_pacs removes the caller's PACs that ks_sw_pac_still_valid doesn't accept for `i_id` from the keystore:
 * those that have expired, those of other identities and those with damaged metadata. A PAC that can't be cleared is
 * passed over.
 *
 * KS_SUCCESS: the end of the table was reached. Any other result ends the walk.
 * NOTE: before you call it: by the byte order in which ks_sw_pac_still_valid compares lifetimes, most PACs that still
 * live are removed on a little-endian processor. Call ksh_clear_expired_pacs of ks_helpers.h instead; or ask
 * ks_return_aid_by_index for each PAC and ks_get_pac_expiration for its time, and remove with ks_clear_pac those that
 * have expired. A time of 0 says that none could be told. After each removal begin again at position 0: the table may
 * have closed up. NOTE: the position behind a PAC that stays is not looked at, so that one call may pass over PACs;
 * call again. NOTE: each PAC visited costs its two messages and its name for the life of the process. */
KS_EXPORT KsResult ks_clear_old_pacs(const char *i_id);

/* ks_clear_all_pacs removes all of the caller's PACs from the keystore, up to the first that can't be removed, whose
 * result it returns: KS_NOT_REGISTERED while the sup state holds every PAC. */
KS_EXPORT KsResult ks_clear_all_pacs(void);

#endif
