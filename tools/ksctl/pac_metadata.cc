// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "pac_metadata.h"

#include <ks_pac.h>

#include <algorithm>

namespace ksctl {
namespace {

// Beside those that ks_pac.h has.
constexpr uint16_t kAId = 4;
constexpr uint16_t kAIdInfo = 7;
constexpr uint16_t kPacType = 10;

struct Tlv {
  uint16_t type;
  std::span<const uint8_t> value;
};

uint16_t be16(std::span<const uint8_t> at) {
  return static_cast<uint16_t>(at[0] << 8 | at[1]);
}

uint32_t be32(std::span<const uint8_t> at) {
  return static_cast<uint32_t>(be16(at)) << 16 | be16(at.subspan(2));
}

// take cuts the first TLV off; nothing, when what is left is none.
std::optional<Tlv> take(std::span<const uint8_t> &rest) {
  if (rest.size() < sizeof(KsPacTlv)) return std::nullopt;
  const size_t length = be16(rest.subspan(2));
  if (rest.size() - sizeof(KsPacTlv) < length) return std::nullopt;
  const Tlv tlv{be16(rest), rest.subspan(sizeof(KsPacTlv), length)};
  rest = rest.subspan(sizeof(KsPacTlv) + length);
  return tlv;
}

// Identities come with or without a NUL at their end.
std::string text_in(std::span<const uint8_t> value) {
  if (!value.empty() && value.back() == 0) value = value.first(value.size() - 1);
  return {value.begin(), value.end()};
}

}  // namespace

PacInfo parse_pac_info(std::span<const uint8_t> attributes) {
  PacInfo info;
  bool has_lifetime = false;
  while (!attributes.empty()) {
    const std::optional<Tlv> tlv = take(attributes);
    if (!tlv) {
      info.whole = false;
      break;
    }
    switch (tlv->type & ~KS_PAC_TLV_MANDATORY) {
      case EAP_FAST_PAC_LIFETIME:  // the first one is final, also one of a wrong size
        if (!has_lifetime && tlv->value.size() == sizeof(uint32_t)) info.expires = be32(tlv->value);
        has_lifetime = true;
        break;
      case kAId:
        if (!info.a_id) info.a_id = Bytes(tlv->value.begin(), tlv->value.end());
        break;
      case EAP_FAST_PAC_I_ID:
        if (!info.identity) info.identity = text_in(tlv->value);
        break;
      case kAIdInfo:
        if (!info.issuer) info.issuer = text_in(tlv->value);
        break;
      case kPacType:
        if (!info.type && tlv->value.size() == sizeof(uint16_t)) info.type = be16(tlv->value);
        break;
      default:
        break;
    }
  }
  return info;
}

std::optional<PacParts> pac_parts(std::span<const uint8_t> metadata) {
  std::optional<Bytes> opaque;
  std::optional<Bytes> info;
  while (!metadata.empty()) {
    const std::optional<Tlv> tlv = take(metadata);
    if (!tlv || (tlv->type != EAP_FAST_PAC_OPAQUE && tlv->type != EAP_FAST_PAC_INFO)) return std::nullopt;
    std::optional<Bytes> &part = tlv->type == EAP_FAST_PAC_OPAQUE ? opaque : info;
    if (part) return std::nullopt;
    part = Bytes(tlv->value.begin(), tlv->value.end());
  }
  if (!opaque || !info) return std::nullopt;
  return PacParts{*opaque, *info};
}

Bytes pac_tlv(uint16_t type, std::span<const uint8_t> value) {
  const auto length = static_cast<uint16_t>(value.size());
  Bytes tlv(sizeof(KsPacTlv) + value.size());
  tlv[0] = static_cast<uint8_t>(type >> 8);
  tlv[1] = static_cast<uint8_t>(type);
  tlv[2] = static_cast<uint8_t>(length >> 8);
  tlv[3] = static_cast<uint8_t>(length);
  std::copy(value.begin(), value.end(), tlv.begin() + sizeof(KsPacTlv));
  return tlv;
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
