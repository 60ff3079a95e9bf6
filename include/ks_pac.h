/* ks_pac.h: Protected Access Credentials of EAP-FAST (RFC 4851). A PAC is named by its A-ID, 1 to 31 bytes of any
 * value; its key goes into the keystore and never comes back, its metadata does. */
#ifndef KS_PAC_H
#define KS_PAC_H

#include "ks_types.h"

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

#endif
