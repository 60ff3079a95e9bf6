// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// pac_metadata.h: what a PAC's metadata tells: TLVs and the attributes in its PAC-Info (RFC 5422, section 4.2).
#ifndef TOOLS_KSCTL_PAC_METADATA_H
#define TOOLS_KSCTL_PAC_METADATA_H

#include <ks_pac.h>

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace ksctl {

using Bytes = std::vector<uint8_t>;

// The types of a PAC. A user authorization PAC has no key.
inline constexpr uint16_t kTunnelPac = EAP_FAST_PAC_TYPE_TUNNEL;
inline constexpr uint16_t kMachinePac = EAP_FAST_PAC_TYPE_MACHINE;
inline constexpr uint16_t kUserAuthorizationPac = EAP_FAST_PAC_TYPE_USER_AUTHORIZATION;

// PacInfo holds the attributes of a PAC-Info, each as it comes first. One that isn't there, or of a wrong size, is
// none.
struct PacInfo {
  std::optional<uint32_t> expires;  // in the seconds of time()
  std::optional<Bytes> a_id;
  std::optional<std::string> identity;  // I-ID: whom it is for
  std::optional<std::string> issuer;    // A-ID-Info
  std::optional<uint16_t> type;
  bool whole = true;  // whether the attributes end where the PAC-Info does
};

PacInfo parse_pac_info(std::span<const uint8_t> attributes);

// PacParts are the values of the two TLVs, without their headers.
struct PacParts {
  Bytes opaque;
  Bytes info;
};

// pac_parts takes metadata apart; it gives nothing where the library's readers find it damaged.
std::optional<PacParts> pac_parts(std::span<const uint8_t> metadata);

// pac_tlv makes a TLV of a value of up to 65,535 bytes.
Bytes pac_tlv(uint16_t type, std::span<const uint8_t> value);

std::string pac_type_name(uint16_t type);

}  // namespace ksctl

#endif
