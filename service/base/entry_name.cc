// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "base/entry_name.h"

namespace ksd {
namespace {

constexpr size_t kShortest = KS_NAME_HEADER_SIZE + 1;
constexpr size_t kLongest = KS_NAME_HEADER_SIZE + KS_NAME_MAX;

bool is_known_tag(uint8_t tag) {
  return tag == KS_NAME_TAG_SECRET || tag == KS_NAME_TAG_PAC;
}

}  // namespace

std::optional<EntryName> entry_name(Bytes wire) {
  if (wire.size() < kShortest || wire.size() > kLongest) return std::nullopt;
  if (!is_known_tag(wire[0]) || wire[1] != 0) return std::nullopt;
  EntryName name;
  name.tag = wire[0];
  name.vdc_id = static_cast<uint16_t>(wire[2] << 8 | wire[3]);
  name.name.assign(wire.begin() + KS_NAME_HEADER_SIZE, wire.end());
  return name;
}

std::vector<uint8_t> wire_name(const EntryName &name) {
  std::vector<uint8_t> wire;
  wire.reserve(KS_NAME_HEADER_SIZE + name.name.size());
  wire.push_back(name.tag);
  wire.push_back(0);
  wire.push_back(static_cast<uint8_t>(name.vdc_id >> 8));
  wire.push_back(static_cast<uint8_t>(name.vdc_id));
  wire.insert(wire.end(), name.name.begin(), name.name.end());
  return wire;
}

}  // namespace ksd
