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

/* ks_return_metadata_resp hands out the metadata of a reply in a fresh block of exactly its length, which the caller
 * frees, and returns the result. `payload_size` is not read: the reply's own length is believed.
 *
 * KS_NO_MEMORY: `*metadata` is NULL, `*metadata_len` as it was. */
KS_EXPORT KsResult ks_return_metadata_resp(uint16_t payload_size, const void *payload, uint8_t **metadata,
                                           uint16_t *metadata_len);

#endif
