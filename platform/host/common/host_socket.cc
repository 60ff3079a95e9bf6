// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "host_socket.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "host_datagram.h"
#include "host_trust.h"

namespace host {

SocketPath::SocketPath() : text{} {
  const char *path = secure_getenv("KS_SOCKET");
  if (path == nullptr || path[0] == '\0') path = HOST_DEFAULT_SOCKET;
  const size_t length = strlen(path);
  if (length < sizeof text) memcpy(text, path, length + 1);
}

namespace {

// What the kernel adds to a datagram's size when it compares it with the send buffer.
constexpr int kSendBufferOverhead = 32;
constexpr int kSendBufferNeeded = static_cast<int>(HOST_WIRE_MAX_DATAGRAM) + kSendBufferOverhead;

int64_t now_ms() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

bool set_limits(int socket, uint32_t limit_ms) {
  const timeval limit = {.tv_sec = static_cast<time_t>(limit_ms / 1000),
                         .tv_usec = static_cast<suseconds_t>(limit_ms % 1000 * 1000)};
  return setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) == 0 &&
         setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) == 0;
}

bool connect_socket(int socket, const char *path, const Deadline &deadline) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  memcpy(address.sun_path, path, strlen(path) + 1);
  // A Unix socket whose connect was interrupted is unconnected still, and waits its whole limit again.
  while (connect(socket, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
    if (errno == EINTR && deadline.left_ms() > 0) continue;
    if (errno == EAGAIN || errno == EINTR) errno = ETIMEDOUT;  // a queue of waiting connections that doesn't move
    return false;
  }
  return true;
}

// `out_result` is the service's, when it turned the caller away.
bool greet(int socket, const Deadline &deadline, HostHelloReply *hello, uint32_t *out_result) {
  constexpr uint32_t kToken = 1;
  const HostWireHeader request = {.magic = HOST_WIRE_MAGIC,
                                  .version = HOST_WIRE_VERSION,
                                  .descriptor_size = 0,
                                  .opcode = HOST_OP_HELLO,
                                  .token = kToken,
                                  .node = KS_SERVICE_NODE,
                                  .sap = KS_SERVICE_SAP,
                                  .app_uuid = 0,
                                  .payload_size = 0};
  ssize_t sent;
  do {
    sent = send_datagram(socket, &request, sizeof request, MSG_NOSIGNAL);
  } while (sent < 0 && errno == EINTR);
  if (sent < 0) return false;

  struct {
    HostWireHeader header;
    HostHelloReply hello;
  } reply;
  const ssize_t size = receive(socket, &reply, sizeof reply, deadline, false);
  if (size < 0) {
    if (errno == EMSGSIZE) errno = EPROTO;
    return false;
  }
  if (!is_reply(&reply, static_cast<size_t>(size)) || reply.header.opcode != HOST_OP_HELLO ||
      reply.header.token != kToken || reply.header.payload_size < sizeof reply.hello.result) {
    errno = EPROTO;
    return false;
  }
  if (reply.hello.result != KS_SUCCESS) {  // with nothing else behind it
    *out_result = reply.hello.result;
    errno = ECONNREFUSED;
    return false;
  }
  if (reply.header.payload_size != sizeof reply.hello ||
      memchr(reply.hello.running_cfg_uri, '\0', sizeof reply.hello.running_cfg_uri) == nullptr) {
    errno = EPROTO;
    return false;
  }
  *hello = reply.hello;
  if (hello->receive_limit_ms == 0) hello->receive_limit_ms = kDefaultReceiveLimitMs;
  return true;
}

// Waits until the deadline for something to receive, through any number of signals.
bool wait_readable(int socket, const Deadline &deadline) {
  for (int left = deadline.left_ms(); left > 0; left = deadline.left_ms()) {
    pollfd wanted = {.fd = socket, .events = POLLIN, .revents = 0};
    const int ready = poll(&wanted, 1, left);
    if (ready > 0) return true;
    if (ready < 0 && errno != EINTR) return false;
  }
  errno = ETIMEDOUT;
  return false;
}

// What a receive of at most `size` bytes gives, when it gave a datagram. Both an empty one and a closed connection are
// received as 0 bytes.
ssize_t checked(int socket, ssize_t received, size_t size) {
  if (received == 0) {
    errno = has_hung_up(socket) ? ECONNRESET : EPROTO;
    return -1;
  }
  if (static_cast<size_t>(received) > size) {
    errno = EMSGSIZE;
    return -1;
  }
  return received;
}

// Takes the file out of what came along with a datagram, or -1. The room for one may hold two.
int file_of(msghdr *message) {
  int kept = -1;
  for (cmsghdr *part = CMSG_FIRSTHDR(message); part != nullptr; part = CMSG_NXTHDR(message, part)) {
    if (part->cmsg_level != SOL_SOCKET || part->cmsg_type != SCM_RIGHTS) continue;
    const size_t count = (part->cmsg_len - CMSG_LEN(0)) / sizeof(int);
    for (size_t i = 0; i < count; i++) {
      int file;
      memcpy(&file, CMSG_DATA(part) + i * sizeof file, sizeof file);
      if (kept < 0) {
        kept = file;
      } else {
        close(file);
      }
    }
  }
  return kept;
}

}  // namespace

void size_send_buffer(int socket) {
  int size = 0;
  socklen_t length = sizeof size;
  if (getsockopt(socket, SOL_SOCKET, SO_SNDBUF, &size, &length) == 0 && size >= kSendBufferNeeded) return;
  if (setsockopt(socket, SOL_SOCKET, SO_SNDBUFFORCE, &kSendBufferNeeded, sizeof kSendBufferNeeded) == 0) return;
  setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &kSendBufferNeeded, sizeof kSendBufferNeeded);
}

Deadline Deadline::in_ms(uint32_t limit_ms) {
  Deadline deadline;
  deadline.at_ms_ = now_ms() + limit_ms;
  return deadline;
}

int Deadline::left_ms() const {
  const int64_t left = at_ms_ - now_ms();
  if (left <= 0) return 0;
  return left > INT32_MAX ? INT32_MAX : static_cast<int>(left);
}

int connect_to_service(const char *path, uint32_t limit_ms, HostHelloReply *hello, Obstacle *obstacle) {
  const auto at = [&](Step step) {
    *obstacle = {.step = step, .detail = limit_ms};
    return true;
  };
  at(Step::kPath);
  if (path[0] == '\0') {
    errno = ENAMETOOLONG;
    return -1;
  }
  at(Step::kFolder);
  uid_t folder_owner;
  if (!check_folder_of(path, &folder_owner, &obstacle->detail)) return -1;
  at(Step::kSocket);
  const int socket = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  if (socket < 0) return -1;
  const Deadline deadline = Deadline::in_ms(limit_ms);
  if (set_limits(socket, limit_ms) && at(Step::kConnect) && connect_socket(socket, path, deadline) && at(Step::kPeer) &&
      check_peer(socket, folder_owner, &obstacle->detail) && at(Step::kGreet)) {
    size_send_buffer(socket);
    if (greet(socket, deadline, hello, &obstacle->detail) && set_limits(socket, hello->receive_limit_ms)) return socket;
  }
  const int why = errno;
  close(socket);
  errno = why;
  return -1;
}

ssize_t receive(int socket, void *buffer, size_t size, const Deadline &deadline, bool fresh_limit) {
  // The socket's limit would begin anew with each signal, and may not be what it was set to: it ends the first wait at
  // most, and what is left is waited for here.
  ssize_t received = -1;
  errno = EINTR;
  // MSG_TRUNC: a datagram's own size is returned, so that a cut one shows.
  if (fresh_limit) received = receive_datagram(socket, buffer, size, MSG_TRUNC);
  while (received < 0 && (errno == EINTR || errno == EAGAIN)) {
    if (!wait_readable(socket, deadline)) return -1;
    received = receive_datagram(socket, buffer, size, MSG_TRUNC | MSG_DONTWAIT);
  }
  return received < 0 ? -1 : checked(socket, received, size);
}

ssize_t receive_with_file(int socket, void *buffer, size_t size, const Deadline &deadline, int *out_file) {
  *out_file = -1;
  iovec piece = {.iov_base = buffer, .iov_len = size};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
  msghdr message;
  ssize_t received;
  do {
    if (!wait_readable(socket, deadline)) return -1;
    message = {};
    message.msg_iov = &piece;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    received = recvmsg(socket, &message, MSG_TRUNC | MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
  } while (received < 0 && (errno == EINTR || errno == EAGAIN));
  if (received < 0) return -1;
  *out_file = file_of(&message);
  received = checked(socket, received, size);
  if (received < 0 && *out_file >= 0) {
    const int why = errno;
    close(*out_file);
    *out_file = -1;
    errno = why;
  }
  return received;
}

bool has_hung_up(int socket) {
  pollfd state = {.fd = socket, .events = POLLRDHUP, .revents = 0};
  return poll(&state, 1, 0) != 0;
}

bool is_reply(const void *datagram, size_t size) {
  HostWireHeader header;
  if (size < sizeof header) return false;
  memcpy(&header, datagram, sizeof header);
  return header.magic == HOST_WIRE_MAGIC && header.version == HOST_WIRE_VERSION &&
         header.payload_size == size - sizeof header;
}

}  // namespace host
