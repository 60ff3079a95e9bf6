// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "fingerprint.h"

#include <fmt/format.h>

#include <charconv>

namespace ksctl {

std::string to_words(std::span<const uint8_t> bytes) {
  std::string words;
  for (size_t i = 0; i + 1 < bytes.size(); i += 2) {
    words += fmt::format("{}{:02x}{:02x}", i == 0 ? "" : "-", bytes[i], bytes[i + 1]);
  }
  return words;
}

std::optional<std::vector<uint8_t>> from_words(std::string_view words) {
  std::vector<uint8_t> bytes;
  for (size_t at = 0; at + 4 <= words.size(); at += 5) {
    for (const size_t digits : {at, at + 2}) {
      std::from_chars(words.data() + digits, words.data() + digits + 2, bytes.emplace_back(), 16);
    }
  }
  if (to_words(bytes) != words) return std::nullopt;
  return bytes;
}

}  // namespace ksctl
