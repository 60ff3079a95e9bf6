// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "screen.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace ksctl {
namespace {

constexpr char kTakeOver[] = "\033[?1049h\033[?25l";  // the other screen, no cursor
constexpr char kRestoreScreen[] = "\033[?25h\033[?1049l";
constexpr char kHome[] = "\033[H";
constexpr char kClearLine[] = "\033[K";
constexpr char kClearBelow[] = "\033[J";

const char *begin_of(Screen::Line::Look look) {
  switch (look) {
    case Screen::Line::Look::kStrong:
      return "\033[1m";
    case Screen::Line::Look::kAlarm:
      return "\033[1;31m";
    default:
      return "";
  }
}

// cut_to gives the first `columns` characters of UTF-8.
std::string cut_to(const std::string &text, size_t columns) {
  size_t at = 0;
  for (; at < text.size(); ++at) {
    const bool begins = (text[at] & 0xc0) != 0x80;
    if (begins && columns-- == 0) break;
  }
  return text.substr(0, at);
}

}  // namespace

Screen::Screen() : has_keyboard_(isatty(STDIN_FILENO) == 1) {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP, SIGWINCH}) sigaddset(&signals, signal);
  sigprocmask(SIG_BLOCK, &signals, &mask_);
  signals_ = ksd::UniqueFd(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
  if (has_keyboard_) tcgetattr(STDIN_FILENO, &settings_);
  take_over();
}

Screen::~Screen() {
  restore();
  if (ended_by_) {
    signal(*ended_by_, SIG_DFL);
    raise(*ended_by_);
  }
  sigprocmask(SIG_SETMASK, &mask_, nullptr);  // which delivers it
}

Screen::Size Screen::size() const {
  winsize window{};
  if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &window) < 0 || window.ws_row == 0 || window.ws_col == 0) return {};
  return {window.ws_row, window.ws_col};
}

void Screen::show(const std::vector<Line> &lines, bool colour) {
  const Size room = size();
  std::string page = kHome;
  for (size_t i = 0; i < std::min(lines.size(), room.rows); ++i) {
    const bool marked = colour && lines[i].look != Line::Look::kPlain;
    if (i != 0) page += "\r\n";
    if (marked) page += begin_of(lines[i].look);
    page += cut_to(lines[i].text, room.columns);
    if (marked) page += "\033[0m";
    page += kClearLine;
  }
  page += kClearBelow;
  std::fwrite(page.data(), 1, page.size(), stdout);
  std::fflush(stdout);
}

Screen::Event Screen::wait(std::chrono::steady_clock::time_point until) {
  while (true) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - std::chrono::steady_clock::now());
    if (left.count() <= 0) return Event::kTime;
    pollfd sources[] = {{.fd = signals_.get(), .events = POLLIN, .revents = 0},
                        {.fd = has_keyboard_ ? STDIN_FILENO : -1, .events = POLLIN, .revents = 0}};
    poll(sources, 2, static_cast<int>(left.count()));
    signalfd_siginfo signal{};
    while (read(signals_.get(), &signal, sizeof signal) == sizeof signal) {
      const Event event = handle(static_cast<int>(signal.ssi_signo));
      if (event != Event::kTime) return event;
    }
    char key = 0;
    if (sources[1].revents != 0 && (read(STDIN_FILENO, &key, 1) != 1 || key == 'q')) return Event::kEnd;
  }
}

Screen::Event Screen::handle(int signal) {
  switch (signal) {
    case SIGWINCH:
      return Event::kResized;
    case SIGTSTP:
      restore();
      raise(SIGSTOP);  // goes on here when it is continued
      take_over();
      return Event::kResized;
    case SIGINT:
      return Event::kEnd;
    default:
      ended_by_ = signal;
      return Event::kEnd;
  }
}

void Screen::take_over() {
  if (has_keyboard_) {
    termios settings = settings_;
    settings.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    tcsetattr(STDIN_FILENO, TCSADRAIN, &settings);
  }
  std::fputs(kTakeOver, stdout);
  std::fflush(stdout);
}

void Screen::restore() {
  std::fputs(kRestoreScreen, stdout);
  std::fflush(stdout);
  if (has_keyboard_) tcsetattr(STDIN_FILENO, TCSADRAIN, &settings_);
}

}  // namespace ksctl
