// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "pac_metadata.h"

#include <ks.hpp>

namespace ksctl {
namespace {

uint16_t be16(ks::Bytes at) {
  return static_cast<uint16_t>(at[0] << 8 | at[1]);
}

uint32_t be32(ks::Bytes at) {
  return static_cast<uint32_t>(be16(at)) << 16 | be16(at.from(2));
}

Bytes copy_of(ks::Bytes value) {
  return {value.begin(), value.end()};
}

// Identities come with or without a NUL at their end.
std::string text_in(ks::Bytes value) {
  if (!value.empty() && value[value.size() - 1] == 0) value = value.first(value.size() - 1);
  return std::string(value.text());
}

}  // namespace

// Unlike ks::parse_pac_info it tells what it can of damaged attributes, too.
PacInfo parse_pac_info(std::span<const uint8_t> attributes) {
  PacInfo info;
  bool has_lifetime = false;
  ks::TlvReader reader(attributes);
  while (true) {
    const ks::Result<ks::Tlv> tlv = reader.next();
    if (!tlv) {
      info.whole = tlv.code() == KS_NO_MORE_ENTRIES;
      return info;
    }
    switch (tlv->type_alone()) {
      case EAP_FAST_PAC_LIFETIME:  // the first one is final, also one of a wrong size
        if (!has_lifetime && tlv->value.size() == sizeof(uint32_t)) info.expires = be32(tlv->value);
        has_lifetime = true;
        break;
      case EAP_FAST_PAC_A_ID:
        if (!info.a_id) info.a_id = copy_of(tlv->value);
        break;
      case EAP_FAST_PAC_I_ID:
        if (!info.identity) info.identity = text_in(tlv->value);
        break;
      case EAP_FAST_PAC_A_ID_INFO:
        if (!info.issuer) info.issuer = text_in(tlv->value);
        break;
      case EAP_FAST_PAC_TYPE:
        if (!info.type && tlv->value.size() == sizeof(uint16_t)) info.type = be16(tlv->value);
        break;
      default:
        break;
    }
  }
}

std::optional<PacParts> pac_parts(std::span<const uint8_t> metadata) {
  const ks::Result<ks::PacParts> parts = ks::parse_pac_metadata(metadata);
  if (!parts) return std::nullopt;
  return PacParts{copy_of(parts->opaque.value), copy_of(parts->info.value)};
}

Bytes pac_tlv(uint16_t type, std::span<const uint8_t> value) {
  const ks::Result<ks::Buffer> tlv = ks::with_tlv({}, type, value);
  if (!tlv) throw std::bad_alloc();
  return copy_of(*tlv);
}

std::string pac_type_name(uint16_t type) {
  switch (type) {
    case kTunnelPac:
      return "tunnel";
    case kMachinePac:
      return "machine";
    case kUserAuthorizationPac:
      return "user authorization";
    default:
      return std::to_string(type);
  }
}

}  // namespace ksctl
