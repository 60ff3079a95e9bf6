/* SPDX-FileCopyrightText: 2026 The ks developers
 * SPDX-License-Identifier: Apache-2.0 */

/* ks_secret.h: the secret store. A secret is a byte string that the keystore keeps under a name of the caller's VDC;
 * other operations use it by that name, and none gives it back. */
#ifndef KS_SECRET_H
#define KS_SECRET_H

#include "ks_types.h"

/* The records of the requests. Lengths are in bytes, offsets count from the descriptor's first byte, and both are in
 * the processor's own byte order. */

/* KsStoreDescriptor describes a request to store a secret: its name, perhaps a linked name, the secret, and perhaps
 * metadata. A part that isn't there has length 0, and the offset of what follows it. */
typedef struct {
  uint8_t name_len;
  uint8_t name_offset; /* 12 */
  uint8_t linked_name_len;
  uint8_t linked_name_offset; /* name_len + 12 */
  uint16_t secret_len;
  uint16_t secret_offset; /* linked_name_offset + linked_name_len */
  uint16_t metadata_len;
  uint16_t metadata_offset; /* secret_offset + secret_len */
} KsStoreDescriptor;

KS_STATIC_ASSERT(sizeof(KsStoreDescriptor) == 12);
KS_STATIC_ASSERT(offsetof(KsStoreDescriptor, linked_name_len) == 2);
KS_STATIC_ASSERT(offsetof(KsStoreDescriptor, linked_name_offset) == 3);
KS_STATIC_ASSERT(offsetof(KsStoreDescriptor, secret_len) == 4);
KS_STATIC_ASSERT(offsetof(KsStoreDescriptor, secret_offset) == 6);
KS_STATIC_ASSERT(offsetof(KsStoreDescriptor, metadata_len) == 8);
KS_STATIC_ASSERT(offsetof(KsStoreDescriptor, metadata_offset) == 10);

/* KsRenameDescriptor describes a request to rename a secret, all in single bytes. */
typedef struct {
  uint8_t old_name_len;
  uint8_t old_name_offset; /* 6 */
  uint8_t new_name_len;
  uint8_t new_name_offset;    /* old_name_len + 6 */
  uint8_t linked_name_len;    /* 1 with a linked name, whose tag alone travels, else 0 */
  uint8_t linked_name_offset; /* new_name_offset + new_name_len with a linked name, else 0 */
} KsRenameDescriptor;

KS_STATIC_ASSERT(sizeof(KsRenameDescriptor) == 6);
KS_STATIC_ASSERT(offsetof(KsRenameDescriptor, linked_name_offset) == 5);

/* KsIndexDescriptor is all there is to the request for the name at a position of the service's table. */
typedef struct {
  uint16_t index;
} KsIndexDescriptor;

KS_STATIC_ASSERT(sizeof(KsIndexDescriptor) == 2);

/* ks_store_secret_and_metadata stores `secret`, 1 to 256 bytes, under `name` in the caller's VDC. `linked_name` is a
 * further name for the entry and may be NULL; `metadata` is kept with the secret and may be NULL, and no limit is put
 * on its length here. What happens to an entry that has the name already is the service's to say: the keystore daemon
 * replaces its secret and its metadata, without a word, and leaves it the further name that it has. To keep what is
 * there, ask ks_secret_exists first.
 *
 * KS_INVALID_ARGS: also for a `secret_len` above 256; from the service: another entry has `linked_name`. KS_NO_MEMORY:
 * also for a `linked_name` of more than 31 bytes. KS_FAILURE: the exchange failed.
 * NOTE: pass NULL for no linked name. With an empty one the library frees `secret` once the request is built: the call
 * then takes over the heap block that `secret` is. */
KS_EXPORT KsResult ks_store_secret_and_metadata(const char *name, const char *linked_name, const uint8_t *secret,
                                                uint16_t secret_len, const uint8_t *metadata, uint16_t metadata_len);

/* ks_store_secret_and_metadata_req allocates the names, which the caller frees through the first and, with a linked
 * name that isn't empty, the second entry of `sections`, points the next entries at `secret` and, unless it is NULL,
 * `metadata`, and fills `descriptor`. `sections` is zeroed and has two entries, one more for a `linked_name` that isn't
 * NULL, and one more for `metadata`.
 *
 * KS_INVALID_ARGS: `linked_name` is longer than 31 bytes. When it fails nothing stays allocated and nothing is
 * written. */
KS_EXPORT KsResult ks_store_secret_and_metadata_req(const char *name, const char *linked_name, const uint8_t *secret,
                                                    uint16_t secret_len, const uint8_t *metadata, uint16_t metadata_len,
                                                    KsSection *sections, KsStoreDescriptor *descriptor);

/* ks_store_secret_and_metadata_resp returns the first word of `payload`. `payload_size` is not read. */
KS_EXPORT KsResult ks_store_secret_and_metadata_resp(uint16_t payload_size, const void *payload);

/* ks_add_metadata sends a block of at most 1024 bytes as the metadata of the secret `name`. Whether it replaces the
 * entry's block is the service's to say; the keystore daemon does. `metadata` may be NULL when `metadata_len` is 0.
 *
 * KS_INVALID_ARGS: also for a longer block. KS_NOT_FOUND: the service has no such entry. KS_FW_COMM_ERROR: the exchange
 * failed. */
KS_EXPORT KsResult ks_add_metadata(const char *name, const uint8_t *metadata, uint16_t metadata_len);

/* ks_add_metadata_req allocates the name, which the caller frees through entry 0 of `sections` (two entries), and fills
 * both outputs. It checks nothing. */
KS_EXPORT KsResult ks_add_metadata_req(const char *name, const uint8_t *metadata, uint16_t metadata_len,
                                       KsSection *sections, KsNameDataDescriptor *descriptor);

/* ks_add_metadata_resp returns the first word of `payload`. `payload_size` is not read. */
KS_EXPORT KsResult ks_add_metadata_resp(uint16_t payload_size, const void *payload);

/* ks_return_metadata hands out the metadata of the secret `name` in a block that the caller frees, and its length. An
 * entry without metadata gives a block of no bytes, to be freed like any other.
 *
 * KS_NOT_FOUND: the service has no such entry. KS_FAILURE: the exchange failed. KS_NO_MEMORY: `*metadata` is NULL when
 * it was the block that couldn't be allocated.
 * NOTE: `metadata_len` is not tested: NULL faults when the reply is a success. */
KS_EXPORT KsResult ks_return_metadata(const char *name, uint8_t **metadata, uint16_t *metadata_len);

/* ks_return_metadata_req allocates the name, which the caller frees through `section`, and fills both outputs. It
 * checks nothing. */
KS_EXPORT KsResult ks_return_metadata_req(const char *name, KsSection *section, KsNameDescriptor *descriptor);

/* ks_return_metadata_resp hands out the metadata of a reply in a fresh block of exactly its length, which the caller
 * frees, and returns the result. `payload_size` is not read: the reply's own length is believed.
 *
 * KS_NO_MEMORY: `*metadata` is NULL, `*metadata_len` as it was. */
KS_EXPORT KsResult ks_return_metadata_resp(uint16_t payload_size, const void *payload, uint8_t **metadata,
                                           uint16_t *metadata_len);

/* ks_return_secret_handle_by_index hands out the name of the caller's next secret: from position `*index` of the
 * keystore's table on, which starts at 0, it skips PACs and other VDCs' entries, with one message for each. `*name` is
 * a NUL-terminated text that the caller frees; `*index` moves behind the entry, for the next call.
 *
 * KS_NO_MORE_ENTRIES: the end of the table. KS_FW_COMM_ERROR: the exchange failed. On every result but KS_SUCCESS
 * `*index` stays where it was, however many entries were skipped.
 * NOTE: an entry that comes or goes between two calls moves what the positions stand for. */
KS_EXPORT KsResult ks_return_secret_handle_by_index(uint16_t *index, char **name);

/* ks_return_secret_handle_by_index_req stores the position in `descriptor`. */
KS_EXPORT void ks_return_secret_handle_by_index_req(uint16_t index, KsIndexDescriptor *descriptor);

/* ks_return_secret_handle_by_index_resp hands out the entry of a reply, whatever its tag and VDC, as a wire name (see
 * KsWireName) of `*name_len` bytes that the caller frees, and returns the result. The reply's own length is believed;
 * `payload_size` only tells whether a refusal has a length to report.
 *
 * KS_NO_MEMORY: `*name` is NULL, `*name_len` as it was. */
KS_EXPORT KsResult ks_return_secret_handle_by_index_resp(uint16_t payload_size, const void *payload, uint8_t **name,
                                                         uint16_t *name_len);

/* ks_secret_exists stores in `exists` the service's flag for the secret `name`, or 0 where it has no such entry.
 *
 * KS_SUCCESS: also for an entry that isn't there. KS_FW_COMM_ERROR: the exchange failed.
 * NOTE: ks_pac_exists answers KS_NOT_FOUND for a PAC that isn't there. */
KS_EXPORT KsResult ks_secret_exists(const char *name, uint32_t *exists);

/* ks_secret_exists_req allocates the name, which the caller frees through `section`, and fills both outputs. It checks
 * nothing. */
KS_EXPORT KsResult ks_secret_exists_req(const char *name, KsSection *section, KsNameDescriptor *descriptor);

/* ks_secret_exists_resp reads a reply as ks_secret_exists tells. `payload_size` is not read. */
KS_EXPORT KsResult ks_secret_exists_resp(uint16_t payload_size, const void *payload, uint32_t *exists);

/* ks_clear_secret removes the secret `name` of the caller's VDC from the keystore. Nothing is handed out.
 *
 * KS_NOT_FOUND: the service has no such entry. KS_FW_COMM_ERROR: the exchange failed; ks_clear_pac answers KS_FAILURE
 * there. */
KS_EXPORT KsResult ks_clear_secret(const char *name);

/* ks_clear_secret_req allocates the name, which the caller frees through `section`, and fills both outputs. It checks
 * nothing. */
KS_EXPORT KsResult ks_clear_secret_req(const char *name, KsSection *section, KsNameDescriptor *descriptor);

/* ks_clear_secret_resp returns the first word of `payload`. `payload_size` is not read. */
KS_EXPORT KsResult ks_clear_secret_resp(uint16_t payload_size, const void *payload);

/* ks_rename_secret gives the secret `old_name` the name `new_name`. `linked_name` may be NULL; of another one a single
 * byte travels, to which the service gives no meaning today.
 *
 * KS_SUCCESS: also for two equal names, at once, whether there is such an entry or not. KS_FAILURE: the exchange
 * failed, or there was no memory for the section list. NOTE: without memory for a name the request is sent with empty
 * sections, and the service's answer returned. */
KS_EXPORT KsResult ks_rename_secret(const char *old_name, const char *new_name, const char *linked_name);

/* ks_rename_secret_req allocates the names, which the caller frees through `sections`, and fills both outputs.
 * `sections` has two entries, and a third when `*linked_name` isn't NULL. It checks nothing. When it fails nothing
 * stays allocated and nothing is written. NOTE: a linked name that isn't empty is replaced in `*linked_name` by its
 * buffer, which is that of the third entry. */
KS_EXPORT KsResult ks_rename_secret_req(const char *old_name, const char *new_name, const char **linked_name,
                                        KsSection *sections, KsRenameDescriptor *descriptor);

/* ks_rename_secret_resp returns the first word of `payload`. NOTE: it takes no size, unlike its siblings. */
KS_EXPORT KsResult ks_rename_secret_resp(const void *payload);

#endif
