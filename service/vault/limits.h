// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// limits.h: how much a vault takes.
#ifndef SERVICE_VAULT_LIMITS_H
#define SERVICE_VAULT_LIMITS_H

#include <cstdint>

namespace ksd::vault {

// Limits bounds entries and the bytes of their secrets and metadata, of each user and of all together. By default the
// positions of the table, which are told in 16 bits, are the only bound.
struct Limits {
  uint64_t entries = UINT16_MAX;
  uint64_t entries_per_user = UINT16_MAX;
  uint64_t bytes = UINT64_MAX;
  uint64_t bytes_per_user = UINT64_MAX;
};

}  // namespace ksd::vault

#endif
