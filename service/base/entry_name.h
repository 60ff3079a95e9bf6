// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// entry_name.h: the names of entries, as the service keeps them and as they stand on the wire.
#ifndef SERVICE_BASE_ENTRY_NAME_H
#define SERVICE_BASE_ENTRY_NAME_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/bytes.h"
#include "ks_types.h"

namespace ksd {

// EntryName is a decoded wire name: what an entry is known by.
struct EntryName {
  uint8_t tag = 0;  // KS_NAME_TAG_SECRET or KS_NAME_TAG_PAC
  uint16_t vdc_id = 0;
  std::string name;  // 1 to 31 bytes, of any value for a PAC

  friend bool operator==(const EntryName &, const EntryName &) = default;
};

// entry_name decodes a wire name of 5 to 35 bytes with a known tag and a zero second byte, or gives nothing.
std::optional<EntryName> entry_name(Bytes wire);

// wire_name is the other way round.
std::vector<uint8_t> wire_name(const EntryName &name);

}  // namespace ksd

#endif
