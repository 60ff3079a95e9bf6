// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "secret_input.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sodium.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>

#include "base/fd.h"
#include "base/read_secret.h"
#include "failure.h"

namespace ksctl {
namespace {

constexpr size_t kMostOfPassphrase = 4096;

Failure too_long(const char *what, size_t most) {
  return {Exit::kUsage, fmt::format("{}: more than {} bytes; give less", what, most)};
}

Secret read_all(int fd, const char *what, size_t most, ksd::SecretEnd end) {
  const ksd::ReadSecret input = ksd::read_secret(fd, most, end);
  if (input.error != 0) {
    throw Failure(Exit::kUsage,
                  fmt::format("{}: descriptor {}: {}; open it for reading", what, fd, std::strerror(input.error)));
  }
  if (input.secret == nullptr) throw too_long(what, most);
  return input.secret;
}

volatile sig_atomic_t interrupted = 0;

// HiddenTyping keeps a terminal from showing what is typed, and puts it back, also when the user interrupts. Signals
// arrive while it waits and at no other time, so that none falls between a look for one and the wait.
class HiddenTyping {
 public:
  explicit HiddenTyping(int terminal) : terminal_(terminal) {
    struct sigaction action = {};
    action.sa_handler = [](int signal_number) { interrupted = signal_number; };
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal_number : kSignals) sigaddset(&signals, signal_number);
    sigprocmask(SIG_BLOCK, &signals, &mask_before_);
    for (size_t i = 0; i < std::size(kSignals); ++i) sigaction(kSignals[i], &action, &before_[i]);
    tcgetattr(terminal_, &shown_);
    termios hidden = shown_;
    hidden.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    tcsetattr(terminal_, TCSAFLUSH, &hidden);
  }
  ~HiddenTyping() {
    tcsetattr(terminal_, TCSAFLUSH, &shown_);
    for (size_t i = 0; i < std::size(kSignals); ++i) sigaction(kSignals[i], &before_[i], nullptr);
    sigprocmask(SIG_SETMASK, &mask_before_, nullptr);
    if (interrupted != 0) raise(interrupted);
  }
  HiddenTyping(const HiddenTyping &) = delete;
  HiddenTyping &operator=(const HiddenTyping &) = delete;

  // wait returns true when there is something to read, and false when the user interrupted.
  bool wait() const {
    pollfd typed{.fd = terminal_, .events = POLLIN, .revents = 0};
    while (interrupted == 0) {
      if (ppoll(&typed, 1, nullptr, &mask_before_) > 0) return true;
    }
    return false;
  }

 private:
  static constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};

  const int terminal_;
  termios shown_{};
  sigset_t mask_before_{};
  struct sigaction before_[std::size(kSignals)] = {};
};

void write_text(int fd, const std::string &text) {
  size_t written = 0;
  while (written < text.size()) {
    const ssize_t got = write(fd, text.data() + written, text.size() - written);
    if (got <= 0) return;
    written += static_cast<size_t>(got);
  }
}

Secret ask(int terminal, const std::string &prompt, const char *what, size_t most) {
  const HiddenTyping hidden(terminal);
  write_text(terminal, prompt + ": ");
  const std::shared_ptr<ksd::SecretBytes> buffer = ksd::SecretBytes::allocate(most + 1);
  size_t size = 0;
  bool ended = false;
  while (!ended && size <= most && hidden.wait()) {
    const ssize_t got = read(terminal, buffer->writable().data() + size, 1);
    ended = got <= 0 || buffer->bytes()[size] == '\n';
    if (!ended) ++size;
  }
  write_text(terminal, "\n");
  if (size > most) throw too_long(what, most);
  return ksd::SecretBytes::copy_of(buffer->bytes().first(size));
}

Secret read_from_terminal(const char *what, size_t most, bool twice) {
  const ksd::UniqueFd terminal(open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY));
  if (!terminal) throw Failure(Exit::kUsage, fmt::format("{}: there is no terminal to ask at; pipe it in", what));
  const Secret first = ask(terminal.get(), what, what, most);
  if (!twice) return first;
  const Secret second = ask(terminal.get(), fmt::format("{} again", what), what, most);
  const bool same = first->size() == second->size() &&
                    sodium_memcmp(first->bytes().data(), second->bytes().data(), first->size()) == 0;
  if (!same) throw Failure(Exit::kUsage, fmt::format("{}: the two differ; type the same twice", what));
  return first;
}

Secret read_from(std::optional<int> fd, const char *what, size_t most, ksd::SecretEnd end, bool twice) {
  const bool typed = !fd && isatty(STDIN_FILENO);
  if (fd && isatty(*fd)) {
    throw Failure(Exit::kUsage, fmt::format("{}: descriptor {} is a terminal, which would show it; leave the option "
                                            "out to be asked",
                                            what, *fd));
  }
  const Secret secret =
      typed ? read_from_terminal(what, most, twice) : read_all(fd.value_or(STDIN_FILENO), what, most, end);
  if (secret->size() == 0) throw Failure(Exit::kUsage, fmt::format("{}: it is empty; give at least one byte", what));
  return secret;
}

}  // namespace

Secret read_secret(std::optional<int> fd, const char *what, size_t most) {
  return read_from(fd, what, most, ksd::SecretEnd::kEndOfFile, true);
}

Secret read_bytes(int fd, const char *what, size_t most) {
  return read_all(fd, what, most, ksd::SecretEnd::kEndOfFile);
}

Secret read_passphrase(std::optional<int> fd, const char *what, bool twice) {
  return read_from(fd, what, kMostOfPassphrase, ksd::SecretEnd::kEndOfLine, twice);
}

}  // namespace ksctl
