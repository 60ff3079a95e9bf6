// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// bytes.h: a piece of memory that is only looked at.
#ifndef SERVICE_BASE_BYTES_H
#define SERVICE_BASE_BYTES_H

#include <cstdint>
#include <span>
#include <string_view>

namespace ksd {

using Bytes = std::span<const uint8_t>;

// bytes_of is a text's characters.
inline Bytes bytes_of(std::string_view text) {
  return {reinterpret_cast<const uint8_t *>(text.data()), text.size()};
}

}  // namespace ksd

#endif
