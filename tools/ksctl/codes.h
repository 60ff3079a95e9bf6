// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// codes.h: what is known of each result code and of the cache's codes. `ksctl explain` and docs/codes.md are made of
// it.
#ifndef TOOLS_KSCTL_CODES_H
#define TOOLS_KSCTL_CODES_H

#include <cstdint>
#include <span>
#include <string>

namespace ksctl {

struct Code {
  uint32_t number;
  const char *name;    // of the header's constant, or words where no header names it
  const char *causes;  // when it is answered
  const char *remedy;  // what to do then
};

std::span<const Code> result_codes();  // of operations, KsResult
std::span<const Code> cache_codes();   // of libsdb, as reports show them

// text_of gives the words that the library, or libsdb, has for the code.
std::string text_of(const Code &code);

}  // namespace ksctl

#endif
