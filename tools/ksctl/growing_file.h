// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// growing_file.h: a file that is written piece by piece, and is there as a whole or not at all.
#ifndef TOOLS_KSCTL_GROWING_FILE_H
#define TOOLS_KSCTL_GROWING_FILE_H

#include <sys/types.h>

#include <cstdint>
#include <span>
#include <string>

#include "base/fd.h"

namespace ksctl {

// GrowingFile has no name until keep gives it one, where the file system can do that; else one that ends in ".part". It
// never takes the place of a file that is there: Failure kConflict. Other failures are kFailed, with the cause.
class GrowingFile {
 public:
  // mode is the file's once it is kept; until then it is for this user alone.
  explicit GrowingFile(const std::string &path, mode_t mode = 0600);
  ~GrowingFile();
  GrowingFile(const GrowingFile &) = delete;
  GrowingFile &operator=(const GrowingFile &) = delete;

  void write(std::span<const uint8_t> bytes);

  // keep brings it to disk, under its name.
  void keep();

 private:
  [[noreturn]] void fail() const;

  const std::string path_, draft_;
  const mode_t mode_;
  ksd::UniqueFd file_;
  bool has_name_ = false;
};

}  // namespace ksctl

#endif
