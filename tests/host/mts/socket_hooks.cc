// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "socket_hooks.h"

#include <dlfcn.h>
#include <sys/socket.h>
#include <sys/syscall.h>

#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <utility>

namespace {

SocketHooks active;

template <typename Function>
Function *next_of(const char *name) {
  return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

}  // namespace

WithSocketHooks::WithSocketHooks(SocketHooks hooks) {
  active = std::move(hooks);
}

WithSocketHooks::~WithSocketHooks() {
  active = {};
}

extern "C" int connect(int socket, const sockaddr *address, socklen_t size) {
  static auto *const real = next_of<int(int, const sockaddr *, socklen_t)>("connect");
  const int result = active.connect ? active.connect() : SocketHooks::kPassOn;
  return result == SocketHooks::kPassOn ? real(socket, address, size) : result;
}

// On i386 a program with times of 64 bits has other names for the two calls below, and other numbers for the limits.
constexpr int kReceiveLimit64 = 66;
constexpr int kSendLimit64 = 67;

namespace {

using GetOption = int(int, int, int, void *, socklen_t *);
using SetOption = int(int, int, int, const void *, socklen_t);

int get(GetOption *real, int socket, int level, int option, void *value, socklen_t *size) {
  const bool asked = level == SOL_SOCKET && option == SO_SNDBUF && active.send_buffer;
  const int answer = asked ? active.send_buffer() : SocketHooks::kPassOn;
  if (answer == SocketHooks::kPassOn) return real(socket, level, option, value, size);
  memcpy(value, &answer, sizeof answer);
  return 0;
}

int set(SetOption *real, int socket, int level, int option, const void *value, socklen_t size) {
  if (level == SOL_SOCKET && (option == SO_SNDBUF || option == SO_SNDBUFFORCE) && active.set_send_buffer) {
    int wanted = 0;
    memcpy(&wanted, value, sizeof wanted);
    const int result = active.set_send_buffer(option, wanted);
    if (result != SocketHooks::kPassOn) return result;
  }
  const bool receives = option == SO_RCVTIMEO || option == kReceiveLimit64;
  const bool sends = option == SO_SNDTIMEO || option == kSendLimit64;
  if (level == SOL_SOCKET && (receives || sends) && active.set_limit) {
    int64_t limit[2] = {};
    if (size == sizeof limit) memcpy(limit, value, sizeof limit);
    active.set_limit(receives ? SO_RCVTIMEO : SO_SNDTIMEO, static_cast<long>(limit[0]), static_cast<long>(limit[1]));
  }
  return real(socket, level, option, value, size);
}

}  // namespace

extern "C" {

// Six words at most go into the kernel, whatever they are.
long syscall(long number, ...) noexcept {
  static auto *const real = next_of<long(long, long, long, long, long, long, long)>("syscall");
  if (number == SYS_sendto && active.send) {
    const long result = active.send();
    if (result != SocketHooks::kPassOn) return result;
  }
  va_list words;
  va_start(words, number);
  long word[6];
  for (long &one : word) one = va_arg(words, long);
  va_end(words);
  return real(number, word[0], word[1], word[2], word[3], word[4], word[5]);
}

int getsockopt(int socket, int level, int option, void *value, socklen_t *size) noexcept {
  static auto *const real = next_of<GetOption>("getsockopt");
  return get(real, socket, level, option, value, size);
}

int setsockopt(int socket, int level, int option, const void *value, socklen_t size) noexcept {
  static auto *const real = next_of<SetOption>("setsockopt");
  return set(real, socket, level, option, value, size);
}

#ifdef __i386__
int getsockopt_64(int socket, int level, int option, void *value, socklen_t *size) noexcept __asm__("__getsockopt64");
int setsockopt_64(int socket, int level, int option, const void *value, socklen_t size) noexcept
    __asm__("__setsockopt64");

int getsockopt_64(int socket, int level, int option, void *value, socklen_t *size) noexcept {
  static auto *const real = next_of<GetOption>("__getsockopt64");
  return get(real, socket, level, option, value, size);
}

int setsockopt_64(int socket, int level, int option, const void *value, socklen_t size) noexcept {
  static auto *const real = next_of<SetOption>("__setsockopt64");
  return set(real, socket, level, option, value, size);
}
#endif
}
