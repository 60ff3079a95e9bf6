// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// screen.h: a terminal that is drawn anew in place, and is as it was when the object goes, however that comes.
#ifndef TOOLS_KSCTL_SCREEN_H
#define TOOLS_KSCTL_SCREEN_H

#include <signal.h>
#include <termios.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "base/fd.h"

namespace ksctl {

class Screen {
 public:
  // Takes over the terminal of standard output; keys are read one by one when standard input is a terminal, too. A
  // signal to end makes wait return, and ends the process with that signal once the terminal is restored; an interrupt
  // from the keyboard just ends the waiting, as the key q does.
  Screen();
  ~Screen();
  Screen(const Screen &) = delete;
  Screen &operator=(const Screen &) = delete;

  struct Size {
    size_t rows = 24;
    size_t columns = 80;
  };
  Size size() const;

  // Line is text without control characters, and whether it stands out.
  struct Line {
    std::string text;
    enum class Look { kPlain, kStrong, kAlarm } look = Look::kPlain;
  };

  // show draws the lines that the terminal has room for, cut to its width. `colour`: with what makes some stand out.
  void show(const std::vector<Line> &lines, bool colour);

  enum class Event { kTime, kResized, kEnd };

  // wait returns at `until`, or when the terminal has another size, or when it is to end.
  Event wait(std::chrono::steady_clock::time_point until);

 private:
  void take_over();
  void restore();
  Event handle(int signal);

  const bool has_keyboard_;
  termios settings_{};  // that were there before
  sigset_t mask_{};
  ksd::UniqueFd signals_;
  std::optional<int> ended_by_;
};

}  // namespace ksctl

#endif
