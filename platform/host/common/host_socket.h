// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// host_socket.h: how the host libraries find the service and open a connection to it.
#ifndef HOST_SOCKET_H
#define HOST_SOCKET_H

#include <sys/socket.h>
#include <sys/un.h>

#include <cstddef>
#include <cstdint>

#include "host_wire.h"

namespace host {

// A socket's path has to fit into its address.
inline constexpr size_t kSocketPathSize = sizeof(sockaddr_un::sun_path);

// SocketPath is where the service listens, as the environment says now: KS_SOCKET, unless it is empty or the program
// runs with another user's rights, else HOST_DEFAULT_SOCKET. `text` is empty when KS_SOCKET is too long for a socket.
struct SocketPath {
  SocketPath();

  char text[kSocketPathSize];
};

// How long is waited for the service until its hello says otherwise.
inline constexpr uint32_t kDefaultReceiveLimitMs = 30'000;

// Deadline is an instant of the monotonic clock, to the tick.
class Deadline {
 public:
  static Deadline in_ms(uint32_t limit_ms);

  // left_ms is how long it is until then, at most INT32_MAX; 0 when it has passed.
  int left_ms() const;

 private:
  int64_t at_ms_;
};

// Step is how far the making of a connection came.
enum class Step : uint8_t { kPath, kFolder, kSocket, kConnect, kPeer, kGreet };

// Obstacle is what kept a connection from being made, beside errno.
struct Obstacle {
  Step step;
  // With EPERM: of kFolder, which folder others may write, as check_folder_of counts; of kPeer, which user listens.
  // With ECONNREFUSED of kGreet, the service's result. With ETIMEDOUT, the limit in milliseconds.
  uint32_t detail;
};

// connect_to_service opens a connection and exchanges the hello, both within `limit_ms`. Returns the descriptor, which
// exec closes and whose receive and send limits and send buffer are set, or -1 with errno: ENAMETOOLONG for an empty
// path, EPERM where strangers listen or could do so (host_trust.h), ETIMEDOUT, EPROTO for an answer that isn't a
// hello's, ECONNREFUSED when the service turned the caller away, or whatever socket and connect give; `obstacle` tells
// more.
int connect_to_service(const char *path, uint32_t limit_ms, HostHelloReply *hello, Obstacle *obstacle);
inline int connect_to_service(const char *path, uint32_t limit_ms, HostHelloReply *hello) {
  Obstacle obstacle;
  return connect_to_service(path, limit_ms, hello, &obstacle);
}

// receive takes one datagram of at most `size` bytes and returns its size, or -1 with errno: ETIMEDOUT when none comes
// before the deadline, ECONNRESET when the other end is gone; EPROTO for an empty datagram; EMSGSIZE for one that is
// larger. A signal doesn't end or prolong the wait; descriptors that come along are closed by the kernel.
//
// `fresh_limit` says that the socket's own receive limit is the deadline: then the first wait is left to it.
ssize_t receive(int socket, void *buffer, size_t size, const Deadline &deadline, bool fresh_limit);

// receive_with_file is that for a datagram which may bring a file along. `out_file` is -1 when it brings none; of
// several it is the first, and the others are closed.
ssize_t receive_with_file(int socket, void *buffer, size_t size, const Deadline &deadline, int *out_file);

// has_hung_up tells whether the other end is gone.
bool has_hung_up(int socket);

// is_reply looks whether the `size` bytes at `datagram` are a whole reply to anything.
bool is_reply(const void *datagram, size_t size);

// size_send_buffer makes room for the largest datagram. The usual default is enough. Where net.core.wmem_default is
// lower, the buffer is raised as far as net.core.wmem_max lets it (the kernel doubles what is asked for); where that is
// too low also, a datagram that is too large for it fails with EMSGSIZE and all others go through.
void size_send_buffer(int socket);

}  // namespace host

#endif
