// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// ks_sw_pac_still_valid: whether a PAC is to be kept for an identity.
//
// DIFFERS(still-valid-walk): a walk of its own, not that of the readers. It stops at the first info, takes any other
// TLV in its stride, and compares the lifetime as it stands in memory. Levelled, ks_clear_old_pacs would remove PACs
// that now stay, such as those with an unknown TLV between, and keep some that now go.
#include <string.h>
#include <time.h>

#include "pac/tlv.h"

namespace {

// first_info finds the first info TLV, or gives null. Every TLV up to it must be whole.
const uint8_t *first_info(const uint8_t *meta, uint16_t meta_len) {
  const uint8_t *position = meta;
  uint32_t remaining = meta_len;
  while (remaining >= sizeof(KsPacTlv) && ks::tlv_size(position) <= remaining) {
    if (ks::tlv_type(position) == EAP_FAST_PAC_INFO) return position;
    remaining -= ks::tlv_size(position);
    position += ks::tlv_size(position);
  }
  return nullptr;
}

// has_passed compares in the processor's own byte order, signed. DIFFERS(still-valid-lifetime): ks_get_pac_expiration
// converts the same four bytes. Levelled, a PAC that is still alive would stay where little-endian processors now
// remove most such PACs.
bool has_passed(const uint8_t *lifetime) {
  int32_t expiry;
  memcpy(&expiry, lifetime, sizeof expiry);
  return static_cast<int32_t>(time(nullptr)) > expiry;
}

// is_identity tells whether the value is the text, with its end or a NUL behind it; what follows a NUL doesn't count.
bool is_identity(const uint8_t *value, uint16_t length, const char *i_id) {
  const size_t wanted = strlen(i_id);
  if (wanted > length || memcmp(value, i_id, wanted) != 0) return false;
  return wanted == length || value[wanted] == '\0';
}

}  // namespace

uint32_t ks_sw_pac_still_valid(const uint8_t *meta, uint16_t meta_len, const char *i_id) {
  if (meta == nullptr) return 0;
  const uint8_t *info = first_info(meta, meta_len);
  if (info == nullptr) return 0;

  bool has_lifetime = false;
  bool has_expired = false;
  bool has_identity = false;
  const uint8_t *position = ks::tlv_value(info);
  uint32_t remaining = ks::tlv_length(info);
  while (remaining != 0 && !(has_lifetime && has_identity)) {
    if (remaining < sizeof(KsPacTlv) || ks::tlv_size(position) > remaining) return 0;
    const uint16_t length = ks::tlv_length(position);
    switch (ks::inner_type(position)) {
      case EAP_FAST_PAC_LIFETIME:
        if (length != sizeof(uint32_t)) break;
        has_lifetime = true;
        if (has_passed(ks::tlv_value(position))) has_expired = true;  // for good, whatever another lifetime says
        break;
      case EAP_FAST_PAC_I_ID:
        if (!is_identity(ks::tlv_value(position), length, i_id)) return 0;
        has_identity = true;
        break;
      default:
        break;
    }
    remaining -= ks::tlv_size(position);
    position += ks::tlv_size(position);
  }
  return has_identity && !has_expired ? 1 : 0;
}
