// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// tlv.h: the numbers in PAC metadata, big-endian and not aligned.
#ifndef PAC_TLV_H
#define PAC_TLV_H

#include "ks_pac.h"

namespace ks {

inline uint16_t be16(const uint8_t *at) {
  return static_cast<uint16_t>(at[0] << 8 | at[1]);
}

inline uint32_t be32(const uint8_t *at) {
  return static_cast<uint32_t>(be16(at)) << 16 | be16(at + 2);
}

// The header of the TLV at `at`, of which all four bytes must be there.
inline uint16_t tlv_type(const uint8_t *at) {
  return be16(at + offsetof(KsPacTlv, type));
}
inline uint16_t tlv_length(const uint8_t *at) {
  return be16(at + offsetof(KsPacTlv, length));
}
inline const uint8_t *tlv_value(const uint8_t *at) {
  return at + sizeof(KsPacTlv);
}

// tlv_size is the whole TLV's size. In 32 bits it never wraps.
inline uint32_t tlv_size(const uint8_t *at) {
  return tlv_length(at) + uint32_t{sizeof(KsPacTlv)};
}

// inner_type is the type of a TLV inside an info, where the mandatory bit doesn't count.
inline uint16_t inner_type(const uint8_t *at) {
  return tlv_type(at) & static_cast<uint16_t>(~KS_PAC_TLV_MANDATORY);
}

}  // namespace ks

#endif
