// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// The conversion of passwords from UTF-8 to UTF-16LE.
#include "crypto/utf16.h"

#include <gtest/gtest.h>

#include "published_vectors.h"

namespace ksd::crypto {
namespace {

using published::ByteString;
using published::unhex;

std::optional<ByteString> converted(const ByteString &utf8) {
  const std::optional<size_t> size = utf16_size(utf8);
  if (!size) return std::nullopt;
  ByteString out(*size);
  to_utf16le(utf8, out.data());
  return out;
}

TEST(Utf16, ConvertsTheEndsOfEachLength) {
  EXPECT_EQ(converted({}), ByteString());
  EXPECT_EQ(converted(unhex("00")), unhex("0000"));
  EXPECT_EQ(converted(unhex("7f")), unhex("7f00"));
  EXPECT_EQ(converted(unhex("c280")), unhex("8000"));
  EXPECT_EQ(converted(unhex("dfbf")), unhex("ff07"));
  EXPECT_EQ(converted(unhex("e0a080")), unhex("0008"));
  EXPECT_EQ(converted(unhex("ed9fbf")), unhex("ffd7"));
  EXPECT_EQ(converted(unhex("ee8080")), unhex("00e0"));
  EXPECT_EQ(converted(unhex("efbfbf")), unhex("ffff"));
  EXPECT_EQ(converted(unhex("f0908080")), unhex("00d800dc"));
  EXPECT_EQ(converted(unhex("f48fbfbf")), unhex("ffdbffdf"));
}

TEST(Utf16, RefusesWhatIsNotWellFormed) {
  for (const char *const wrong : {
           "80",       "bf",                                        // a continuation that continues nothing
           "c080",     "c1bf",       "e09fbf", "f08fbfbf",          // longer than need be
           "eda080",   "edbfbf",                                    // surrogates
           "f4908080", "f7bfbfbf",                                  // above 10ffff
           "f8888080", "fc84808080", "fe",     "ff",                // no forms at all
           "c2",       "e0a0",       "f09080", "61c2",     "e282",  // cut short
           "c241",     "e28241",     "e2c280", "f0908041",          // broken off by another character
       }) {
    EXPECT_EQ(converted(unhex(wrong)), std::nullopt) << wrong;
  }
}

TEST(Utf16, EveryCodePointGoesThere) {
  for (uint32_t value = 0; value <= 0x10ffff; ++value) {
    ByteString utf8;
    if (value < 0x80) {
      utf8 = {static_cast<uint8_t>(value)};
    } else if (value < 0x800) {
      utf8 = {static_cast<uint8_t>(0xc0 | value >> 6), static_cast<uint8_t>(0x80 | (value & 63))};
    } else if (value < 0x10000) {
      utf8 = {static_cast<uint8_t>(0xe0 | value >> 12), static_cast<uint8_t>(0x80 | (value >> 6 & 63)),
              static_cast<uint8_t>(0x80 | (value & 63))};
    } else {
      utf8 = {static_cast<uint8_t>(0xf0 | value >> 18), static_cast<uint8_t>(0x80 | (value >> 12 & 63)),
              static_cast<uint8_t>(0x80 | (value >> 6 & 63)), static_cast<uint8_t>(0x80 | (value & 63))};
    }
    const std::optional<ByteString> got = converted(utf8);
    if (value >= 0xd800 && value <= 0xdfff) {
      ASSERT_EQ(got, std::nullopt);
      continue;
    }
    ASSERT_TRUE(got.has_value()) << value;
    const auto unit = [&](size_t i) { return static_cast<uint32_t>((*got)[2 * i] | (*got)[2 * i + 1] << 8); };
    const uint32_t back = got->size() == 2 ? unit(0) : 0x10000 + ((unit(0) - 0xd800) << 10) + (unit(1) - 0xdc00);
    ASSERT_EQ(back, value);
  }
}

}  // namespace
}  // namespace ksd::crypto
