// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// progress.h: long work that tells a terminal how far it is, and that a user can interrupt between two steps.
#ifndef TOOLS_KSCTL_PROGRESS_H
#define TOOLS_KSCTL_PROGRESS_H

#include <chrono>
#include <csignal>
#include <string>

namespace ksctl {

// Progress is there as long as the work. A first signal to end is heeded at the next step; a second one ends the
// process at once, at what the step has got to.
class Progress {
 public:
  // `what` are the words of the command, `of_what` what is counted.
  Progress(std::string what, const char *of_what, size_t total);
  ~Progress();
  Progress(const Progress &) = delete;
  Progress &operator=(const Progress &) = delete;

  // step is called in front of each of the `total` steps. Failure kFailed, which says how far the work has come, when
  // it is to end.
  void step();

  // heed_signal is that without a step, for work that waits.
  void heed_signal() const;

 private:
  void show(const std::string &line);

  const std::string what_;
  const char *const of_what_;
  const size_t total_;
  size_t done_ = 0;
  const bool shown_;
  size_t width_ = 0;  // of what is shown
  std::chrono::steady_clock::time_point next_{};
  struct sigaction before_[3] = {};
};

// caught_signal is the signal that ended a Progress, or 0. The process ends by it once the failure is printed, so that
// a shell knows.
int caught_signal();

}  // namespace ksctl

#endif
