/* SPDX-FileCopyrightText: 2026 The ks developers
 * SPDX-License-Identifier: Apache-2.0 */

/* ks_helpers.h: what C programs do around the operations of libks: PAC metadata, wire names, the PAC cache kept true,
 * times of expiry, and digests whose lengths aren't cut.
 *
 * A library of its own, libks-helpers (-lks-helpers, pkg-config ks-helpers), over the exported functions of libks. C++
 * programs have the same in ks.hpp and need no further library. What holds for the operations (docs/conventions.md)
 * holds here too; docs/helpers.md has examples. Lengths have the width of size_t, and one that is too long is refused
 * and never cut. A pointer may be NULL where its length is 0. An A-ID is of 1 to 31 bytes. */
#ifndef KS_HELPERS_H
#define KS_HELPERS_H

#include "ks_crypto.h"
#include "ks_pac.h"

/* KshBuffer is a block that a function here hands out; ksh_free_buffer releases it. Empty ones are all zero. */
typedef struct {
  uint8_t *data;
  size_t size;
} KshBuffer;

/* KshBytes looks at bytes that belong to somebody else. */
typedef struct {
  const uint8_t *data;
  size_t size;
} KshBytes;

/* KshTlv is one TLV within such bytes. */
typedef struct {
  uint16_t type;  /* with the mandatory bit */
  KshBytes value; /* without its header */
  KshBytes whole; /* with it */
} KshTlv;

/* KshPacInfo is what the info of a PAC tells (RFC 5422, section 4.2.4). What isn't there is 0, or of size 0: `{0}`
 * tells nothing. Attributes of other types are put into an info by ksh_append_tlv, and read by ksh_next_tlv. */
typedef struct {
  int64_t expires;   /* in the seconds of time(); wide enough in every program, whatever its time_t */
  KshBytes identity; /* I-ID: whom the PAC is for; read without a NUL at its end */
  KshBytes a_id;     /* A-ID: who issued it */
  KshBytes issuer;   /* A-ID-Info: the issuer's name for people; read without a NUL at its end */
  uint16_t type;     /* EAP_FAST_PAC_TYPE_TUNNEL and the like */
} KshPacInfo;

/* KshPacParts are the two TLVs of a PAC's metadata. */
typedef struct {
  KshTlv opaque;
  KshTlv info;
} KshPacParts;

/* ksh_free_buffer releases what `buffer` holds and makes it empty, so that a second call does nothing. `buffer` may be
 * NULL. */
KS_EXPORT void ksh_free_buffer(KshBuffer *buffer);

/* --- PAC metadata: made and read without a message */

/* ksh_make_pac_metadata makes the metadata of a PAC in a fresh `metadata`: an opaque TLV of the value `opaque`, and an
 * info TLV of what `info` tells, in the order of the types.
 *
 * KS_INVALID_ARGS: `opaque` is empty, or `info->expires` is outside 0 to 4,294,967,295. KS_RPC_TOO_LARGE: the metadata
 * would have more than 65,535 bytes. */
KS_EXPORT KsResult ksh_make_pac_metadata(const void *opaque, size_t opaque_len, const KshPacInfo *info,
                                         KshBuffer *metadata);

/* ksh_append_tlv appends a TLV of `type` with the value `value` to `buffer`, which may be empty. Attributes appended to
 * one buffer are the value of an info TLV in another.
 *
 * KS_RPC_TOO_LARGE: the value has more than 65,535 bytes. On every failure `buffer` is as it was. */
KS_EXPORT KsResult ksh_append_tlv(KshBuffer *buffer, uint16_t type, const void *value, size_t value_len);

/* ksh_next_tlv hands out the first TLV of `rest` and takes it off. What `tlv` points to belongs to the owner of the
 * bytes.
 *
 * KS_NO_MORE_ENTRIES: `rest` is empty. KS_FAILURE: it doesn't begin with a whole TLV. */
KS_EXPORT KsResult ksh_next_tlv(KshBytes *rest, KshTlv *tlv);

/* ksh_parse_pac_metadata takes metadata apart. `parts` points into `metadata`. Both TLVs must be there, once each and
 * in either order, and nothing else.
 *
 * KS_FAILURE: they aren't. */
KS_EXPORT KsResult ksh_parse_pac_metadata(const void *metadata, size_t metadata_len, KshPacParts *parts);

/* ksh_parse_pac_info reads an info TLV, header included. `info` points into it. Of attributes of one type the first
 * counts; a time of 0 counts as none.
 *
 * KS_FAILURE: it isn't exactly one such TLV, an attribute reaches behind its end, or a time or type is of a wrong
 * size. */
KS_EXPORT KsResult ksh_parse_pac_info(const void *tlv, size_t tlv_len, KshPacInfo *info);

/* --- Names: what the functions of ks_cache.h take. Each name holds the caller's VDC id: make it after ks_init. */

/* ksh_pac_wire_name writes the wire form of the A-ID `aid` to `name`, with zeros behind it, and its length to
 * `name_len`.
 *
 * KS_INVALID_ARGS: the A-ID isn't of 1 to 31 bytes, or an output is NULL. */
KS_EXPORT KsResult ksh_pac_wire_name(const void *aid, size_t aid_len, KsWireName *name, uint32_t *name_len);

/* ksh_secret_wire_name does the same as ksh_pac_wire_name for the name of a secret, a NUL-terminated text. */
KS_EXPORT KsResult ksh_secret_wire_name(const char *secret, KsWireName *name, uint32_t *name_len);

/* --- The PAC cache. Like the reads of PACs, these try to open a cache that is closed. */

/* ksh_cache_clear removes the cached copy of the PAC `aid`, if there is one. Where this process can't open the cache
 * nothing is removed, and its own reads go to the keystore, too.
 *
 * KS_FAILURE: the cache refused, and may still have the copy. */
KS_EXPORT KsResult ksh_cache_clear(const void *aid, size_t aid_len);

/* ksh_cache_put puts metadata that the caller has at hand into the cache, in place of what is there for the PAC `aid`.
 * It must be what the keystore has, as behind ksh_store_pac.
 *
 * KS_INVALID_ARGS: also where the metadata aren't an opaque and an info TLV. KS_FAILURE: the cache can't be opened, or
 * refused. */
KS_EXPORT KsResult ksh_cache_put(const void *aid, size_t aid_len, const void *metadata, size_t metadata_len);

/* ksh_cache_warm puts the PAC `aid`, as the keystore has it, into the cache, with three messages. Results as in
 * ksh_read_pac; and KS_FAILURE, too, where the cache can't be opened or refused.
 * NOTE: a process that replaces the PAC meanwhile may leave the older one in the cache: let one process do both. */
KS_EXPORT KsResult ksh_cache_warm(const void *aid, size_t aid_len);

/* --- PACs */

/* ksh_store_pac makes or replaces the PAC `aid`, of which no cached copy is left: the copy is removed before the PAC is
 * stored, so that none outlives it wherever the process ends, and again behind that, for a reader that put it back.
 * `metadata` is an opaque and an info TLV, as ksh_make_pac_metadata makes them; ksh_cache_put takes the same.
 *
 * KS_INVALID_ARGS: a bad A-ID, an empty key, or other metadata. KS_RPC_TOO_LARGE: key or metadata have more than 65,535
 * bytes. KS_FAILURE: the exchange failed, or the cached copy could not be removed. After a failure it may be repeated.
 */
KS_EXPORT KsResult ksh_store_pac(const void *aid, size_t aid_len, const void *pac_key, size_t pac_key_len,
                                 const void *metadata, size_t metadata_len);

/* ksh_clear_pac removes the PAC `aid` and its cached copy, in the same order.
 *
 * KS_NOT_REGISTERED, which is 0: the sup state holds every PAC. KS_FAILURE: as in ksh_store_pac. */
KS_EXPORT KsResult ksh_clear_pac(const void *aid, size_t aid_len);

/* ksh_read_pac hands out the metadata of the PAC `aid`: from the cache, with no message at all, or from the keystore
 * with three.
 *
 * KS_NOT_FOUND: there is no such PAC. KS_FAILURE: its metadata is damaged, the exchange failed, or the PAC was replaced
 * again and again meanwhile. KS_FW_COMM_ERROR: the request could not be sent. */
KS_EXPORT KsResult ksh_read_pac(const void *aid, size_t aid_len, KshBuffer *metadata);

/* ksh_pac_exists stores in `exists` 1 where there is a PAC `aid`, in the cache or in the keystore, and 0 where there is
 * none. It is what to call instead of ks_pac_exists, which ends the process where the cache is open and lacks the PAC.
 *
 * KS_SUCCESS: also for a PAC that isn't there. KS_FAILURE: the exchange failed, or the PAC is there and its metadata is
 * damaged. */
KS_EXPORT KsResult ksh_pac_exists(const void *aid, size_t aid_len, uint32_t *exists);

/* ksh_pac_expiry stores in `expires` when the PAC `aid` expires, in the seconds of time(), or 0 where its info has no
 * time. It has expired when that isn't 0 and `expires <= time(NULL)`. Results as in ksh_read_pac, with one message at
 * most. */
KS_EXPORT KsResult ksh_pac_expiry(const void *aid, size_t aid_len, int64_t *expires);

/* ksh_clear_expired_pacs removes the caller's PACs that have expired at the time `now`, with their cached copies, and
 * stores in `removed` how many it removed, whatever the result. It is what to call instead of ks_clear_old_pacs, which
 * removes live PACs on little-endian processors. A PAC without a time, or whose metadata is damaged, stays.
 *
 * KS_NOT_REGISTERED, which is 0: the sup state holds every PAC. KS_FAILURE: an exchange failed. */
KS_EXPORT KsResult ksh_clear_expired_pacs(int64_t now, uint32_t *removed);

/* --- Digests and HMACs: the operations of ks_crypto.h, which count in 16 bits, over lengths that aren't cut: one of
 * 65,552 would go out as 16 there. */

/* ksh_md5 writes to `output` (16 bytes) the digest of the first piece, the secret `name` and the second piece, as
 * ks_md5_hash does. One piece may be empty.
 *
 * KS_RPC_TOO_LARGE: the pieces have more than KS_DATA_MAX bytes together. */
KS_EXPORT KsResult ksh_md5(const char *name, const void *first, size_t first_len, const void *second, size_t second_len,
                           uint8_t *output);

/* ksh_sha1 does the same as ksh_md5 with SHA-1; `output` is 20 bytes. */
KS_EXPORT KsResult ksh_sha1(const char *name, const void *first, size_t first_len, const void *second,
                            size_t second_len, uint8_t *output);

/* ksh_hmac_md5 writes to `output` (16 bytes) the HMAC-MD5 of `data` under the secret `name`, as ks_hmac_md5 does.
 *
 * KS_RPC_TOO_LARGE: `data` has more than KS_DATA_MAX bytes. */
KS_EXPORT KsResult ksh_hmac_md5(const char *name, const void *data, size_t data_len, uint8_t *output);

/* ksh_hmac_sha1 does the same as ksh_hmac_md5 with SHA-1; `output` is 20 bytes. */
KS_EXPORT KsResult ksh_hmac_sha1(const char *name, const void *data, size_t data_len, uint8_t *output);

/* ksh_hmac_sha1_for_pac does the same as ksh_hmac_md5 with SHA-1 and the key of the PAC `aid`; `output` is 20 bytes. */
KS_EXPORT KsResult ksh_hmac_sha1_for_pac(const void *aid, size_t aid_len, const void *data, size_t data_len,
                                         uint8_t *output);

#endif
