// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "common/child.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <utility>

namespace ks_tools {
namespace {

[[noreturn]] void run(const std::vector<std::string> &arguments, const sigset_t &mask,
                      const std::function<void()> &prepare, int report) {
  std::vector<char *> argv;
  argv.reserve(arguments.size() + 1);
  for (const std::string &argument : arguments) argv.push_back(const_cast<char *>(argument.c_str()));
  argv.push_back(nullptr);
  prepare();
  sigprocmask(SIG_SETMASK, &mask, nullptr);
  execvp(argv[0], argv.data());
  const int error = errno;
  [[maybe_unused]] const ssize_t written = write(report, &error, sizeof error);
  _exit(127);
}

}  // namespace

Child::Child(const std::vector<std::string> &arguments, const sigset_t &mask, const std::function<void()> &prepare) {
  // Closed by a successful exec: then there is nothing to read.
  std::array<int, 2> report{};
  if (pipe2(report.data(), O_CLOEXEC) < 0 || (pid_ = fork()) < 0) {
    error_ = errno;
    return;
  }
  if (pid_ == 0) run(arguments, mask, prepare, report[1]);
  close(report[1]);
  fd_ = static_cast<int>(syscall(SYS_pidfd_open, pid_, 0));  // the C library's header for it isn't one of C++
  if (read(report[0], &error_, sizeof error_) != sizeof error_) error_ = 0;
  close(report[0]);
  if (error_ != 0) end();
}

Child::Child(Child &&other) noexcept
    : pid_(std::exchange(other.pid_, -1)), fd_(std::exchange(other.fd_, -1)), error_(other.error_) {}

Child &Child::operator=(Child &&other) noexcept {
  std::swap(pid_, other.pid_);
  std::swap(fd_, other.fd_);
  std::swap(error_, other.error_);
  return *this;
}

Child::~Child() {
  if (fd_ >= 0) close(fd_);
}

void Child::signal(int number) const {
  if (pid_ > 0) kill(pid_, number);
}

int Child::end() {
  int status = 0;
  while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) continue;
  pid_ = -1;
  return status;
}

std::optional<int> Child::end_within(int milliseconds) {
  pollfd state{.fd = fd_, .events = POLLIN, .revents = 0};
  if (poll(&state, 1, milliseconds) <= 0) return std::nullopt;
  return end();
}

}  // namespace ks_tools
