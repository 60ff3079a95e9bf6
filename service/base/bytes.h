// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// bytes.h: a piece of memory that is only looked at.
#ifndef SERVICE_BASE_BYTES_H
#define SERVICE_BASE_BYTES_H

#include <cstdint>
#include <span>

namespace ksd {

using Bytes = std::span<const uint8_t>;

}  // namespace ksd

#endif
