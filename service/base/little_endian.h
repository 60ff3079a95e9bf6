// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// little_endian.h: numbers in records on disk, which a vault takes along to a machine of another byte order.
#ifndef SERVICE_BASE_LITTLE_ENDIAN_H
#define SERVICE_BASE_LITTLE_ENDIAN_H

#include <concepts>
#include <cstddef>
#include <cstdint>

namespace ksd {

template <std::unsigned_integral Number>
void put_little_endian(uint8_t *out, Number value) {
  for (size_t i = 0; i < sizeof value; ++i) out[i] = static_cast<uint8_t>(uint64_t{value} >> (8 * i));
}

template <std::unsigned_integral Number>
Number get_little_endian(const uint8_t *in) {
  uint64_t value = 0;
  for (size_t i = 0; i < sizeof(Number); ++i) value |= uint64_t{in[i]} << (8 * i);
  return static_cast<Number>(value);
}

}  // namespace ksd

#endif
