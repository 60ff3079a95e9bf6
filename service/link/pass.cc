// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "link/pass.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "base/pass_file.h"

namespace ksd::link {

bool pass(int socket, int fd) {
  const uint8_t byte = 0;  // an empty message would look like the end
  return send_with_file(socket, {&byte, 1}, fd, MSG_NOSIGNAL | MSG_DONTWAIT) == 1;
}

UniqueFd accept_passed(int socket) {
  while (true) {
    pollfd source{.fd = socket, .events = POLLIN, .revents = 0};
    char byte;
    iovec part{.iov_base = &byte, .iov_len = 1};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    if (poll(&source, 1, -1) < 0 && errno != EINTR) return {};
    const ssize_t size = recvmsg(socket, &message, MSG_CMSG_CLOEXEC | MSG_DONTWAIT);
    if (size < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (size <= 0) return {};
    const cmsghdr *passed = CMSG_FIRSTHDR(&message);
    if (passed == nullptr || passed->cmsg_type != SCM_RIGHTS) continue;
    int fd = -1;
    std::memcpy(&fd, CMSG_DATA(passed), sizeof fd);
    return UniqueFd(fd);
  }
}

}  // namespace ksd::link
