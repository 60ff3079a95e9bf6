#include "socket_hooks.h"

#include <dlfcn.h>
#include <sys/socket.h>
#include <sys/time.h>

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

extern "C" int getsockopt(int socket, int level, int option, void *value, socklen_t *size) noexcept {
  static auto *const real = next_of<int(int, int, int, void *, socklen_t *)>("getsockopt");
  const bool asked = level == SOL_SOCKET && option == SO_SNDBUF && active.send_buffer;
  const int answer = asked ? active.send_buffer() : SocketHooks::kPassOn;
  if (answer == SocketHooks::kPassOn) return real(socket, level, option, value, size);
  memcpy(value, &answer, sizeof answer);
  return 0;
}

extern "C" int setsockopt(int socket, int level, int option, const void *value, socklen_t size) noexcept {
  static auto *const real = next_of<int(int, int, int, const void *, socklen_t)>("setsockopt");
  if (level == SOL_SOCKET && (option == SO_SNDBUF || option == SO_SNDBUFFORCE) && active.set_send_buffer) {
    int wanted = 0;
    memcpy(&wanted, value, sizeof wanted);
    const int result = active.set_send_buffer(option, wanted);
    if (result != SocketHooks::kPassOn) return result;
  }
  if (level == SOL_SOCKET && (option == SO_RCVTIMEO || option == SO_SNDTIMEO) && active.set_limit) {
    timeval limit = {};
    memcpy(&limit, value, sizeof limit);
    active.set_limit(option, limit.tv_sec, limit.tv_usec);
  }
  return real(socket, level, option, value, size);
}
