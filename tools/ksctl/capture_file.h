// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// capture_file.h: a capture in the format pcapng. Each block is written at once, so that one whose writer is killed can
// be read as far as it goes.
#ifndef TOOLS_KSCTL_CAPTURE_FILE_H
#define TOOLS_KSCTL_CAPTURE_FILE_H

#include <sys/types.h>

#include <cstdint>
#include <span>
#include <string>

#include "base/fd.h"

namespace ksctl {

enum class Direction : uint8_t { kRequest = 0, kReply = 1 };

// What stands in front of each datagram, little-endian, 16 bytes.
struct CapturedHead {
  uint8_t version = 1;
  Direction direction = Direction::kRequest;
  uint16_t reserved = 0;
  uint32_t pid = 0;
  uint32_t connection = 0;
  uint32_t size = 0;  // of the datagram
};

class CaptureFile {
 public:
  // Makes the file, with mode 0600. Throws Failure: kConflict when there is one already, kFailed when it can't be made.
  explicit CaptureFile(const std::string &path);

  // record appends a datagram with the present time. When the disk has no room for it, nothing of it stays, and what
  // comes later isn't recorded either.
  void record(CapturedHead head, std::span<const uint8_t> datagram);

  int error() const { return error_; }  // errno of the write that failed; 0 for none
  uint64_t recorded() const { return recorded_; }
  uint64_t lost() const { return lost_; }

 private:
  bool append(std::span<const uint8_t> block);

  ksd::UniqueFd file_;
  off_t end_ = 0;  // of the last whole block
  uint64_t recorded_ = 0;
  uint64_t lost_ = 0;
  int error_ = 0;
};

}  // namespace ksctl

#endif
