// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "ping_pong.h"

#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

namespace bench {

namespace {

constexpr size_t kLargest = 1 << 18;

[[noreturn]] void fail(const char *what) {
  std::perror(what);
  std::exit(1);
}

socklen_t fill_address(sockaddr_un &address, const std::string &name) {
  address = {};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path + 1, name.data(), name.size());
  return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
}

void make_room(int socket) {
  constexpr int kRoom = static_cast<int>(kLargest);
  setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &kRoom, sizeof kRoom);
}

void serve(int socket) {
  make_room(socket);
  std::vector<unsigned char> buffer(kLargest);
  while (recv(socket, buffer.data(), buffer.size(), 0) >= static_cast<ssize_t>(sizeof(uint32_t))) {
    uint32_t reply_size;
    std::memcpy(&reply_size, buffer.data(), sizeof reply_size);
    if (send(socket, buffer.data(), reply_size, MSG_NOSIGNAL) < 0) break;
  }
  close(socket);
}

[[noreturn]] void run_server(int listening) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  while (true) {
    const int socket = accept(listening, nullptr, nullptr);
    if (socket >= 0) std::thread(serve, socket).detach();
  }
}

}  // namespace

PingPongServer::PingPongServer() : address_("ks-ping-pong-" + std::to_string(getpid())) {
  const int listening = socket(AF_UNIX, SOCK_SEQPACKET, 0);
  sockaddr_un address;
  const socklen_t size = fill_address(address, address_);
  if (bind(listening, reinterpret_cast<sockaddr *>(&address), size) != 0 || listen(listening, 64) != 0) fail("listen");
  pid_ = fork();
  if (pid_ < 0) fail("fork");
  if (pid_ == 0) run_server(listening);
  close(listening);
}

PingPongServer::~PingPongServer() {
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
}

PingPong::PingPong(const PingPongServer &server, size_t request_size, size_t reply_size)
    : socket_(socket(AF_UNIX, SOCK_SEQPACKET, 0)), request_(request_size), reply_(reply_size) {
  sockaddr_un address;
  const socklen_t size = fill_address(address, server.address());
  if (connect(socket_, reinterpret_cast<sockaddr *>(&address), size) != 0) fail("connect");
  make_room(socket_);
  const auto wanted = static_cast<uint32_t>(reply_size);
  std::memcpy(request_.data(), &wanted, sizeof wanted);
}

PingPong::~PingPong() {
  close(socket_);
}

void PingPong::exchange() {
  if (send(socket_, request_.data(), request_.size(), MSG_NOSIGNAL) < 0) fail("send");
  if (recv(socket_, reply_.data(), reply_.size(), 0) != static_cast<ssize_t>(reply_.size())) fail("recv");
}

}  // namespace bench
