// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// fail.h: how a test ends when what it stands on doesn't work.
#ifndef TESTS_SUPPORT_FAIL_H
#define TESTS_SUPPORT_FAIL_H

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

namespace ks_test {

// fail throws `what` failed, with the reason that errno gives. GoogleTest shows the text.
[[noreturn]] inline void fail(const std::string &what) {
  throw std::runtime_error(what + ": " + std::strerror(errno));
}

}  // namespace ks_test

#endif
