// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// text_fields.h: the texts of fixed size in messages for administrators.
#ifndef SERVICE_SERVER_TEXT_FIELDS_H
#define SERVICE_SERVER_TEXT_FIELDS_H

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>

namespace ksd::server {

inline constexpr std::string_view kCut = "...";

// put_text copies a text that may be too long for its place: then its beginning.
template <size_t size>
void put_text(char (&place)[size], std::string_view text) {
  const bool fits = text.size() < size;
  char *end = std::copy_n(text.begin(), fits ? text.size() : size - 1 - kCut.size(), place);
  if (!fits) end = std::copy(kCut.begin(), kCut.end(), end);
  *end = '\0';
}

// put_path does so for a path, whose end says more than its beginning.
template <size_t size>
void put_path(char (&place)[size], std::string_view path) {
  const bool fits = path.size() < size;
  if (!fits) path.remove_prefix(path.size() - (size - 1 - kCut.size()));
  char *out = fits ? place : std::copy(kCut.begin(), kCut.end(), place);
  *std::copy(path.begin(), path.end(), out) = '\0';
}

template <size_t size>
std::string text_of(const char (&place)[size]) {
  return {place, strnlen(place, size)};
}

}  // namespace ksd::server

#endif
