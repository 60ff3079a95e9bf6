// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// content_of.h: all that a file holds.
#ifndef TESTS_SUPPORT_CONTENT_OF_H
#define TESTS_SUPPORT_CONTENT_OF_H

#include <fstream>
#include <iterator>
#include <string>

namespace ks_test {

// content_of gives nothing for a file that can't be read.
inline std::string content_of(const std::string &path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace ks_test

#endif
