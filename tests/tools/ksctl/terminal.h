// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// terminal.h: ksctl at a terminal, as somebody who types sees it.
#ifndef TESTS_TOOLS_KSCTL_TERMINAL_H
#define TESTS_TOOLS_KSCTL_TERMINAL_H

#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>
#include <utmp.h>

#include <array>
#include <stdexcept>
#include <string>
#include <vector>

#include "base/fd.h"
#include "fail.h"
#include "ksctl.h"
#include "service/service_process.h"

namespace ks_test {

class Terminal {
 public:
  // Runs ksctl with a terminal of its own as standard input, output and error. A `held` terminal makes it wait when it
  // writes, until release.
  Terminal(const std::string &socket, std::vector<std::string> arguments, bool held = false) {
    int keyboard = -1;
    int screen = -1;
    if (openpty(&keyboard, &screen, nullptr, nullptr, nullptr) < 0) fail("openpty");
    keyboard_ = ksd::UniqueFd(keyboard);
    screen_ = ksd::UniqueFd(screen);
    if (held && tcflow(screen, TCOOFF) < 0) fail("tcflow");
    arguments.insert(arguments.begin(), {kKsctl, "--socket", socket});
    std::vector<char *> words;
    for (std::string &argument : arguments) words.push_back(argument.data());
    words.push_back(nullptr);
    pid_ = fork();
    if (pid_ < 0) fail("fork");
    if (pid_ != 0) return;
    ks_test::heed_signals();
    if (login_tty(screen) == 0) execv(kKsctl, words.data());
    _exit(127);
  }
  ~Terminal() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      wait();
    }
  }
  Terminal(const Terminal &) = delete;
  Terminal &operator=(const Terminal &) = delete;

  pid_t pid() const { return pid_; }

  // wait_for_text waits until the screen has shown `text`, behind what was waited for before.
  void wait_for_text(const std::string &text) {
    size_t found = std::string::npos;
    while ((found = shown_.find(text, seen_)) == std::string::npos) {
      if (!read_more(kPatience)) throw std::runtime_error("\"" + text + "\" isn't shown, but:\n" + shown_);
    }
    seen_ = found + text.size();
  }

  void type(const std::string &text) {
    if (write(keyboard_.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) fail("write");
  }

  bool shows_what_is_typed() const {
    termios settings{};
    if (tcgetattr(screen_.get(), &settings) < 0) fail("tcgetattr");
    return (settings.c_lflag & ECHO) != 0;
  }

  void release() {
    if (tcflow(screen_.get(), TCOON) < 0) fail("tcflow");
  }

  // wait waits for ksctl's end, as wait_for.
  int wait() {
    const int status = wait_for(std::exchange(pid_, -1));
    while (read_more(0)) continue;
    return status;
  }

  const std::string &shown() const { return shown_; }

 private:
  static constexpr int kPatience = 30'000;  // ms, after which a silent program fails the test

  bool read_more(int limit) {
    pollfd ready{keyboard_.get(), POLLIN, 0};
    if (poll(&ready, 1, limit) <= 0) return false;
    std::array<char, 4096> part;
    const ssize_t size = read(keyboard_.get(), part.data(), part.size());
    if (size > 0) shown_.append(part.data(), static_cast<size_t>(size));
    return size > 0;
  }

  ksd::UniqueFd keyboard_;
  ksd::UniqueFd screen_;
  pid_t pid_ = -1;
  std::string shown_;
  size_t seen_ = 0;
};

}  // namespace ks_test

#endif
