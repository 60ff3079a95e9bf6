// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "common/remover.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <stdexcept>

namespace ks_tools {
namespace {

[[noreturn]] void fail(const std::string &what) {
  throw std::runtime_error(what + ": " + std::strerror(errno));
}

}  // namespace

void Remover::watch_over(const std::string &folder) {
  std::array<int, 2> pipe{};
  if (pipe2(pipe.data(), O_CLOEXEC) < 0) fail("can't make a pipe");
  const pid_t remover = fork();
  if (remover < 0) fail("can't start a process");
  if (remover > 0) {
    close(pipe[0]);
    pid_ = remover;
    lifeline_ = pipe[1];
    return;
  }
  // What ends a group of processes or a terminal's session isn't for this one, and it keeps no output of theirs open.
  setsid();
  for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGPIPE}) signal(number, SIG_IGN);
  const int nothing = open("/dev/null", O_RDWR | O_CLOEXEC);
  for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) dup2(nothing, standard);
  close(pipe[1]);
  char byte;
  while (read(pipe[0], &byte, sizeof byte) < 0 && errno == EINTR) continue;
  std::error_code ignored;
  std::filesystem::remove_all(folder, ignored);
  _exit(0);
}

Remover::~Remover() {
  if (pid_ < 0) return;
  close(lifeline_);
  while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) continue;
}

}  // namespace ks_tools
