// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "crypto/utf16.h"

namespace ksd::crypto {

namespace {

struct CodePoint {
  uint32_t value;
  size_t length;  // of its form in UTF-8; 0: not well-formed
};

// The forms of UTF-8: how a first byte begins, and the smallest value that needs that many bytes.
struct Form {
  uint8_t mask;
  uint8_t lead;
  uint32_t least;
};

constexpr Form kForms[] = {{0x80, 0x00, 0}, {0xe0, 0xc0, 0x80}, {0xf0, 0xe0, 0x800}, {0xf8, 0xf0, 0x10000}};

CodePoint first_code_point(Bytes utf8) {
  size_t length = 1;
  for (const Form &form : kForms) {
    if ((utf8[0] & form.mask) != form.lead) {
      ++length;
      continue;
    }
    if (length > utf8.size()) return {0, 0};
    uint32_t value = utf8[0] & static_cast<uint8_t>(~form.mask);
    for (size_t i = 1; i < length; ++i) {
      if ((utf8[i] & 0xc0) != 0x80) return {0, 0};
      value = value << 6 | (utf8[i] & 0x3f);
    }
    const bool surrogate = value >= 0xd800 && value <= 0xdfff;
    return value < form.least || surrogate || value > 0x10ffff ? CodePoint{0, 0} : CodePoint{value, length};
  }
  return {0, 0};
}

uint8_t *put_unit(uint32_t unit, uint8_t *out) {
  out[0] = static_cast<uint8_t>(unit);
  out[1] = static_cast<uint8_t>(unit >> 8);
  return out + 2;
}

}  // namespace

std::optional<size_t> utf16_size(Bytes utf8) {
  size_t size = 0;
  while (!utf8.empty()) {
    const CodePoint next = first_code_point(utf8);
    if (next.length == 0) return std::nullopt;
    size += next.value > 0xffff ? 4 : 2;
    utf8 = utf8.subspan(next.length);
  }
  return size;
}

void to_utf16le(Bytes utf8, uint8_t *out) {
  while (!utf8.empty()) {
    const CodePoint next = first_code_point(utf8);
    if (next.value > 0xffff) {
      const uint32_t above = next.value - 0x10000;
      out = put_unit(0xd800 | above >> 10, out);
      out = put_unit(0xdc00 | (above & 0x3ff), out);
    } else {
      out = put_unit(next.value, out);
    }
    utf8 = utf8.subspan(next.length);
  }
}

}  // namespace ksd::crypto
