// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// socket_hooks.h: stands before four calls by which a connection is made, so that a test sees what is asked of the
// kernel, and can answer in its place.
#ifndef TESTS_HOST_MTS_SOCKET_HOOKS_H
#define TESTS_HOST_MTS_SOCKET_HOOKS_H

#include <functional>
#include <vector>

// Each gives what the call is to return, with errno, or passes on to the kernel. Null passes everything on.
struct SocketHooks {
  static constexpr int kPassOn = -2;

  std::function<int()> connect = nullptr;
  // The call itself, with 0, for SO_SNDBUF alone: the size to answer, or kPassOn.
  std::function<int()> send_buffer = nullptr;
  // For SO_SNDBUF and SO_SNDBUFFORCE, with what was asked for.
  std::function<int(int option, int size)> set_send_buffer = nullptr;
  // Sees SO_RCVTIMEO and SO_SNDTIMEO, which go on to the kernel.
  std::function<void(int option, long seconds, long microseconds)> set_limit = nullptr;
  // Sees each datagram before it goes; not under ThreadSanitizer, where datagrams go another way.
  std::function<long()> send = nullptr;
};

// As long as it is there, the calls of this process go by its hooks.
class WithSocketHooks {
 public:
  explicit WithSocketHooks(SocketHooks hooks);
  ~WithSocketHooks();
  WithSocketHooks(const WithSocketHooks &) = delete;
  WithSocketHooks &operator=(const WithSocketHooks &) = delete;
};

#endif
