// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "link/connect.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <memory>

#include "base/refuse.h"
#include "link/pass.h"

namespace ksd::link {
namespace {

struct Pair {
  UniqueFd ours, others;
};

// Only our end is one that doesn't block.
Pair make_pair_of(int type) {
  int ends[2];
  if (socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, ends) < 0) refuse_by_errno("socketpair");
  Pair pair{UniqueFd(ends[0]), UniqueFd(ends[1])};
  fcntl(pair.ours.get(), F_SETFL, O_NONBLOCK);
  return pair;
}

// In the child: an ordinary process again, with the socket as its standard input.
[[noreturn]] void become(const char *program, int control) {
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  setsid();  // a terminal's interrupt is for the service, whose last changes still need an engine
  signal(SIGCHLD, SIG_DFL);
  if (dup2(control, STDIN_FILENO) == STDIN_FILENO) execl(program, program, nullptr);
  _exit(127);
}

}  // namespace

Connect connect_at(std::string path) {
  if (path.size() >= sizeof(sockaddr_un{}.sun_path)) refuse("{}: too long for a socket", path);
  return [path = std::move(path)] {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.data(), path.size());
    UniqueFd connection(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!connection || connect(connection.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) < 0) {
      refuse_by_errno(path);
    }
    return connection;
  };
}

Connect start_engines(const std::string &program) {
  if (access(program.c_str(), X_OK) < 0) refuse_by_errno(program);
  Pair control = make_pair_of(SOCK_SEQPACKET);
  signal(SIGCHLD, SIG_IGN);  // nobody waits for it
  const pid_t child = fork();
  if (child < 0) refuse_by_errno("fork");
  if (child == 0) become(program.c_str(), control.others.get());
  return [control = std::make_shared<UniqueFd>(std::move(control.ours)), program] {
    Pair connection = make_pair_of(SOCK_STREAM);
    if (!pass(control->get(), connection.others.get())) {
      if (errno == EAGAIN) refuse_by_errno(program);
      refuse("{}: no process is left that starts engines; restart the service", program);
    }
    return std::move(connection.ours);
  };
}

}  // namespace ksd::link
