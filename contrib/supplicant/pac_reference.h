/* SPDX-FileCopyrightText: 2026 The ks developers
 * SPDX-License-Identifier: Apache-2.0 */

/* pac_reference.h: references, which stand where a supplicant keeps a PAC's key, and the metadata that ties a PAC of
 * the keystore to its reference. Nothing here needs the supplicant's source or the library. */
#ifndef CONTRIB_SUPPLICANT_PAC_REFERENCE_H
#define CONTRIB_SUPPLICANT_PAC_REFERENCE_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A reference has the size of a key: a mark, by which it is told from one, and random bytes. */
#define PAC_REFERENCE_SIZE 32
#define PAC_REFERENCE_RANDOM_SIZE 24

void pac_reference_make(const uint8_t random[PAC_REFERENCE_RANDOM_SIZE], uint8_t reference[PAC_REFERENCE_SIZE]);

/* pac_reference_is tells whether what stands in a key's place is a reference. A key passes for one with a probability
 * of 2 to the power of -64. */
bool pac_reference_is(const uint8_t bytes[PAC_REFERENCE_SIZE]);

/* PacAttributes are the attributes of a PAC-Info that a supplicant keeps when it doesn't keep the PAC-Info. One that is
 * NULL isn't there. */
typedef struct {
  const uint8_t *a_id, *i_id, *a_id_info;
  size_t a_id_len, i_id_len, a_id_info_len;
  uint16_t pac_type;
} PacAttributes;

/* pac_info_of makes a PAC-Info, without the header of its TLV, of the attributes. The caller frees it. NULL: it would
 * be longer than a TLV can be, or there is no memory. */
uint8_t *pac_info_of(const PacAttributes *attributes, size_t *info_len);

/* PacTie is the info TLV of a PAC in the keystore: the reference, the one that its file may still name because a write
 * was lost (or NULL), and the PAC-Info as the server gave it. */
typedef struct {
  const uint8_t *reference, *replaced, *info;
  size_t info_len;
} PacTie;

/* pac_tie_tlv makes the info TLV, header included, which the caller frees; NULL as in pac_info_of. */
uint8_t *pac_tie_tlv(const PacTie *tie, uint32_t *tlv_len);

/* pac_tie_read takes an info TLV apart; `tie` points into it. False: it bears no reference, so that something else has
 * stored the PAC, or it is damaged. */
bool pac_tie_read(const uint8_t *tlv, uint32_t tlv_len, PacTie *tie);

/* pac_opaque_tlv makes the opaque TLV of a PAC-Opaque, which the caller frees; NULL as in pac_info_of. */
uint8_t *pac_opaque_tlv(const uint8_t *opaque, size_t opaque_len, uint32_t *tlv_len);

#ifdef __cplusplus
}
#endif

#endif
