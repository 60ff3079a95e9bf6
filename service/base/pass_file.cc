// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "base/pass_file.h"

#include <sys/socket.h>
#include <sys/uio.h>

#include <cstring>

namespace ksd {

ssize_t send_with_file(int socket, Bytes piece, int file, int flags) {
  iovec part{.iov_base = const_cast<uint8_t *>(piece.data()), .iov_len = piece.size()};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof file)] = {};
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof control;
  cmsghdr *head = CMSG_FIRSTHDR(&message);
  head->cmsg_level = SOL_SOCKET;
  head->cmsg_type = SCM_RIGHTS;
  head->cmsg_len = CMSG_LEN(sizeof file);
  std::memcpy(CMSG_DATA(head), &file, sizeof file);
  return sendmsg(socket, &message, flags);
}

}  // namespace ksd
