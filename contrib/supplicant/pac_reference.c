/* SPDX-FileCopyrightText: 2026 The ks developers
 * SPDX-License-Identifier: Apache-2.0 */

#include "pac_reference.h"

#include <ks_pac.h>
#include <stdlib.h>
#include <string.h>

/* Attributes of our own, in front of the server's; no server and no supplicant gets to see them. Readers pass over
 * types that they don't know. */
#define REFERENCE 0x3ff0
#define REPLACED 0x3ff1

/* More attributes of RFC 5422, section 4.2. */
#define A_ID 4
#define A_ID_INFO 7
#define PAC_TYPE 10

static const uint8_t mark[PAC_REFERENCE_SIZE - PAC_REFERENCE_RANDOM_SIZE] = {'k', 's', ' ', 'P', 'A', 'C', ' ', 1};

void pac_reference_make(const uint8_t random[PAC_REFERENCE_RANDOM_SIZE], uint8_t reference[PAC_REFERENCE_SIZE]) {
  memcpy(reference, mark, sizeof mark);
  memcpy(reference + sizeof mark, random, PAC_REFERENCE_RANDOM_SIZE);
}

bool pac_reference_is(const uint8_t bytes[PAC_REFERENCE_SIZE]) {
  return memcmp(bytes, mark, sizeof mark) == 0;
}

static KsPacTlv header_of(unsigned type, size_t len) {
  const KsPacTlv header = {{(uint8_t)(type >> 8), (uint8_t)type}, {(uint8_t)(len >> 8), (uint8_t)len}};
  return header;
}

/* put writes to `at` and returns where it ends. What is NULL writes nothing. */
static uint8_t *put(uint8_t *at, const void *bytes, size_t len) {
  if (bytes == NULL) return at;
  memcpy(at, bytes, len);
  return at + len;
}

static uint8_t *put_tlv(uint8_t *at, unsigned type, const void *value, size_t len) {
  if (value == NULL) return at;
  const KsPacTlv header = header_of(type, len);
  return put(put(at, &header, sizeof header), value, len);
}

static size_t size_of(const void *value, size_t len) {
  return value == NULL ? 0 : sizeof(KsPacTlv) + len;
}

uint8_t *pac_info_of(const PacAttributes *attributes, size_t *info_len) {
  const uint8_t type[] = {(uint8_t)(attributes->pac_type >> 8), (uint8_t)attributes->pac_type};
  const size_t len = size_of(attributes->a_id, attributes->a_id_len) + size_of(attributes->i_id, attributes->i_id_len) +
                     size_of(attributes->a_id_info, attributes->a_id_info_len) + size_of(type, sizeof type);
  uint8_t *const info = len > UINT16_MAX ? NULL : malloc(len);
  if (info == NULL) return NULL;
  uint8_t *at = put_tlv(info, A_ID, attributes->a_id, attributes->a_id_len);
  at = put_tlv(at, EAP_FAST_PAC_I_ID, attributes->i_id, attributes->i_id_len);
  at = put_tlv(at, A_ID_INFO, attributes->a_id_info, attributes->a_id_info_len);
  put_tlv(at, PAC_TYPE, type, sizeof type);
  *info_len = len;
  return info;
}

uint8_t *pac_tie_tlv(const PacTie *tie, uint32_t *tlv_len) {
  const size_t len =
      size_of(tie->reference, PAC_REFERENCE_SIZE) + size_of(tie->replaced, PAC_REFERENCE_SIZE) + tie->info_len;
  uint8_t *const tlv = len > UINT16_MAX ? NULL : malloc(sizeof(KsPacTlv) + len);
  if (tlv == NULL) return NULL;
  const KsPacTlv header = header_of(EAP_FAST_PAC_INFO, len);
  uint8_t *at = put(tlv, &header, sizeof header);
  at = put_tlv(at, REFERENCE, tie->reference, PAC_REFERENCE_SIZE);
  at = put_tlv(at, REPLACED, tie->replaced, PAC_REFERENCE_SIZE);
  put(at, tie->info, tie->info_len);
  *tlv_len = (uint32_t)(sizeof(KsPacTlv) + len);
  return tlv;
}

/* take_reference reads an attribute of the type `type` off the front of what is left, or NULL where there is none. */
static const uint8_t *take_reference(const uint8_t **at, size_t *left, unsigned type) {
  const KsPacTlv wanted = header_of(type, PAC_REFERENCE_SIZE);
  if (*left < sizeof wanted + PAC_REFERENCE_SIZE || memcmp(*at, &wanted, sizeof wanted) != 0) return NULL;
  const uint8_t *const value = *at + sizeof wanted;
  *at = value + PAC_REFERENCE_SIZE;
  *left -= sizeof wanted + PAC_REFERENCE_SIZE;
  return value;
}

bool pac_tie_read(const uint8_t *tlv, uint32_t tlv_len, PacTie *tie) {
  if (tlv_len < sizeof(KsPacTlv)) return false;
  tie->info = tlv + sizeof(KsPacTlv);
  tie->info_len = tlv_len - sizeof(KsPacTlv);
  tie->reference = take_reference(&tie->info, &tie->info_len, REFERENCE);
  tie->replaced = take_reference(&tie->info, &tie->info_len, REPLACED);
  return tie->reference != NULL;
}

uint8_t *pac_opaque_tlv(const uint8_t *opaque, size_t opaque_len, uint32_t *tlv_len) {
  uint8_t *const tlv = opaque_len > UINT16_MAX ? NULL : malloc(sizeof(KsPacTlv) + opaque_len);
  if (tlv == NULL) return NULL;
  const KsPacTlv header = header_of(EAP_FAST_PAC_OPAQUE, opaque_len);
  put(put(tlv, &header, sizeof header), opaque, opaque_len);
  *tlv_len = (uint32_t)(sizeof(KsPacTlv) + opaque_len);
  return tlv;
}
