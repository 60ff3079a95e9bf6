// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// stderr_dump.h: the raw dump that two functions are promised to make.
#ifndef TRANSPORT_STDERR_DUMP_H
#define TRANSPORT_STDERR_DUMP_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

namespace ks {

// dump_to_stderr prints each byte as "%2x " with a call of its own: no line end, no flush, and no gate.
inline void dump_to_stderr(const void *bytes, size_t len) {
  const auto *at = static_cast<const uint8_t *>(bytes);
  // NOLINTNEXTLINE(clang-analyzer-core.CallAndMessage): the checker loses sight of what the builders write.
  for (size_t i = 0; i < len; ++i) static_cast<void>(fprintf(stderr, "%2x ", at[i]));
}

}  // namespace ks

#endif
