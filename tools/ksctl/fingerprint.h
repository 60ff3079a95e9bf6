// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// fingerprint.h: bytes in words that people compare: "1412-52b1-4c4a".
#ifndef TOOLS_KSCTL_FINGERPRINT_H
#define TOOLS_KSCTL_FINGERPRINT_H

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace ksctl {

// to_words gives bytes, an even number of them.
std::string to_words(std::span<const uint8_t> bytes);

// from_words is the other way round; nothing for a text that to_words doesn't give.
std::optional<std::vector<uint8_t>> from_words(std::string_view words);

}  // namespace ksctl

#endif
