// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "link/pass.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

namespace ksd::link {
namespace {

// Message is one with a byte, since an empty one would look like the end, and room for a descriptor.
struct Message {
  Message() {
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    header.msg_control = control;
    header.msg_controllen = sizeof control;
  }

  char byte = 0;
  iovec part{.iov_base = &byte, .iov_len = 1};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
  msghdr header{};
};

}  // namespace

bool pass(int socket, int fd) {
  Message message;
  cmsghdr *passed = CMSG_FIRSTHDR(&message.header);
  passed->cmsg_level = SOL_SOCKET;
  passed->cmsg_type = SCM_RIGHTS;
  passed->cmsg_len = CMSG_LEN(sizeof fd);
  std::memcpy(CMSG_DATA(passed), &fd, sizeof fd);
  return sendmsg(socket, &message.header, MSG_NOSIGNAL | MSG_DONTWAIT) == 1;
}

UniqueFd accept_passed(int socket) {
  while (true) {
    pollfd source{.fd = socket, .events = POLLIN, .revents = 0};
    Message message;
    if (poll(&source, 1, -1) < 0 && errno != EINTR) return {};
    const ssize_t size = recvmsg(socket, &message.header, MSG_CMSG_CLOEXEC | MSG_DONTWAIT);
    if (size < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (size <= 0) return {};
    const cmsghdr *passed = CMSG_FIRSTHDR(&message.header);
    if (passed == nullptr || passed->cmsg_type != SCM_RIGHTS) continue;
    int fd = -1;
    std::memcpy(&fd, CMSG_DATA(passed), sizeof fd);
    return UniqueFd(fd);
  }
}

}  // namespace ksd::link
