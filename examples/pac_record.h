// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// pac_record.h: making the public part of a PAC, as a program that provisions PACs does.
#ifndef EXAMPLES_PAC_RECORD_H
#define EXAMPLES_PAC_RECORD_H

#include <cstring>

#include "example.h"

namespace example {

// tlv is a PAC TLV: type and length big-endian, then the value.
inline Bytes tlv(uint16_t type, const Bytes &value) {
  const auto len = static_cast<uint16_t>(value.size());
  Bytes out = {static_cast<uint8_t>(type >> 8), static_cast<uint8_t>(type), static_cast<uint8_t>(len >> 8),
               static_cast<uint8_t>(len)};
  out.insert(out.end(), value.begin(), value.end());
  return out;
}

inline Bytes operator+(Bytes left, const Bytes &right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

inline Bytes pac_opaque() {
  return tlv(EAP_FAST_PAC_OPAQUE, Bytes(40, 0x0a));
}

// pac_info holds an expiry in seconds since 1970, big-endian, and the identity that the PAC is for.
inline Bytes pac_info(uint32_t expiry, const std::string &identity) {
  const Bytes lifetime = {static_cast<uint8_t>(expiry >> 24), static_cast<uint8_t>(expiry >> 16),
                          static_cast<uint8_t>(expiry >> 8), static_cast<uint8_t>(expiry)};
  return tlv(EAP_FAST_PAC_INFO, tlv(EAP_FAST_PAC_LIFETIME, lifetime) + tlv(EAP_FAST_PAC_I_ID, of_text(identity)));
}

// wire_name names a PAC to the cache.
inline KsWireName wire_name(const std::string &aid) {
  KsWireName name = {};
  name.tag = KS_NAME_TAG_PAC;
  name.vdc_id[0] = static_cast<uint8_t>(vdc_id >> 8);
  name.vdc_id[1] = static_cast<uint8_t>(vdc_id);
  std::memcpy(name.name, aid.data(), aid.size());
  return name;
}

inline uint32_t wire_len(const std::string &aid) {
  return static_cast<uint32_t>(aid.size() + KS_NAME_HEADER_SIZE);
}

// warm puts a PAC's metadata into the cache, as a provisioning process does.
inline void warm(const std::string &aid, const Bytes &metadata) {
  const KsWireName name = wire_name(aid);
  require(ks_cache_pac_write(&name, wire_len(aid), metadata.data(), static_cast<uint16_t>(metadata.size())),
          "writing to the cache");
}

}  // namespace example

#endif
