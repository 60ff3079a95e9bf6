// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// failure.h: how a command ends when it can't do what was asked.
#ifndef TOOLS_KSCTL_FAILURE_H
#define TOOLS_KSCTL_FAILURE_H

#include <string>
#include <utility>

namespace ksctl {

// Exit is the exit status, by which scripts tell what happened.
enum class Exit {
  kDone = 0,
  kFailed = 1,
  kUsage = 2,
  kNotFound = 3,
  kNotAllowed = 4,
  kNoService = 5,
  kExpired = 6,
  kConflict = 7,
};

// Failure ends a command. The text is one line: the object, the cause, and what to do next.
class Failure {
 public:
  Failure(Exit exit, std::string text) : exit_(exit), text_(std::move(text)) {}

  Exit exit() const { return exit_; }
  const std::string &text() const { return text_; }

 private:
  Exit exit_;
  std::string text_;
};

}  // namespace ksctl

#endif
