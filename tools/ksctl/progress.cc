// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "progress.h"

#include <fmt/format.h>
#include <unistd.h>

#include <cstdio>

#include "failure.h"

namespace ksctl {
namespace {

using std::chrono::steady_clock;

constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP};
constexpr std::chrono::milliseconds kBetweenLines{100};

volatile sig_atomic_t caught = 0;

}  // namespace

Progress::Progress(std::string what, const char *of_what, size_t total)
    : what_(std::move(what)), of_what_(of_what), total_(total), shown_(isatty(STDERR_FILENO) != 0) {
  struct sigaction action = {};
  action.sa_handler = [](int signal_number) { caught = signal_number; };
  action.sa_flags = SA_RESTART | static_cast<int>(SA_RESETHAND);
  for (size_t i = 0; i < std::size(kSignals); ++i) {
    sigaction(kSignals[i], nullptr, &before_[i]);
    if (before_[i].sa_handler != SIG_IGN) sigaction(kSignals[i], &action, nullptr);  // as nohup leaves it
  }
}

Progress::~Progress() {
  show("");
  for (size_t i = 0; i < std::size(kSignals); ++i) sigaction(kSignals[i], &before_[i], nullptr);
}

void Progress::heed_signal() const {
  if (caught == 0) return;
  throw Failure(Exit::kFailed, fmt::format("{}: interrupted after {} of {} {}; run it again for the rest", what_, done_,
                                           total_, of_what_));
}

void Progress::step() {
  heed_signal();
  if (const auto now = steady_clock::now(); now >= next_) {
    next_ = now + kBetweenLines;
    show(fmt::format("{}: {} of {} {}", what_, done_, total_, of_what_));
  }
  ++done_;
}

void Progress::show(const std::string &line) {
  if (!shown_ || (line.empty() && width_ == 0)) return;
  const std::string blanks(width_ > line.size() ? width_ - line.size() : 0, ' ');
  std::fprintf(stderr, "\r%s%s%s", line.c_str(), blanks.c_str(), line.empty() ? "\r" : "");
  std::fflush(stderr);
  width_ = line.size();
}

int caught_signal() {
  return caught;
}

}  // namespace ksctl
