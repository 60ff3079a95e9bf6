// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// temporary_folder.h: a fresh folder for a test.
#ifndef TESTS_SUPPORT_TEMPORARY_FOLDER_H
#define TESTS_SUPPORT_TEMPORARY_FOLDER_H

#include <cstdlib>
#include <filesystem>
#include <string>

#include "fail.h"

namespace ks_test {

// TemporaryFolder is there, with mode 0700, as long as the object. Its path is short: a socket's has 107 bytes.
class TemporaryFolder {
 public:
  explicit TemporaryFolder(const std::string &parent = "/tmp") : path_(parent + "/ksXXXXXX") {
    if (mkdtemp(path_.data()) == nullptr) fail("mkdtemp " + path_);
  }
  ~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TemporaryFolder(const TemporaryFolder &) = delete;
  TemporaryFolder &operator=(const TemporaryFolder &) = delete;

  const std::string &path() const { return path_; }

 private:
  std::string path_;
};

}  // namespace ks_test

#endif
