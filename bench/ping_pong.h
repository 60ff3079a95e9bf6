// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// ping_pong.h: the floor of every exchange: a datagram there and one back over the same kind of socket, both ends
// blocking, in a process of its own, a thread for each connection, and nothing else.
#ifndef BENCH_PING_PONG_H
#define BENCH_PING_PONG_H

#include <sys/types.h>

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace bench {

// PingPongServer answers each datagram with one whose size the datagram's first four bytes tell.
class PingPongServer {
 public:
  PingPongServer();
  ~PingPongServer();
  PingPongServer(const PingPongServer &) = delete;
  PingPongServer &operator=(const PingPongServer &) = delete;

  pid_t pid() const { return pid_; }
  const std::string &address() const { return address_; }

 private:
  std::string address_;  // in the abstract namespace
  pid_t pid_;
};

// PingPong is a client's end: one connection and the buffers of one size.
class PingPong {
 public:
  PingPong(const PingPongServer &server, size_t request_size, size_t reply_size);
  ~PingPong();
  PingPong(const PingPong &) = delete;
  PingPong &operator=(const PingPong &) = delete;

  void exchange();  // exits the program when it fails

 private:
  int socket_;
  std::vector<unsigned char> request_;
  std::vector<unsigned char> reply_;
};

}  // namespace bench

#endif
