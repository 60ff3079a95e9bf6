// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// send_with_files.h: a datagram with descriptors, which another process gets copies of.
#ifndef TESTS_SUPPORT_SEND_WITH_FILES_H
#define TESTS_SUPPORT_SEND_WITH_FILES_H

#include <sys/socket.h>

#include <cstdint>
#include <cstring>
#include <vector>

// send_with_files takes four files at most, and gives whether it was sent.
inline bool send_with_files(int socket, const std::vector<uint8_t> &datagram, const std::vector<int> &files) {
  const size_t size = files.size() * sizeof(int);
  iovec piece = {.iov_base = const_cast<uint8_t *>(datagram.data()), .iov_len = datagram.size()};
  alignas(cmsghdr) char control[CMSG_SPACE(4 * sizeof(int))] = {};
  msghdr message = {};
  message.msg_iov = &piece;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = CMSG_SPACE(size);
  cmsghdr *head = CMSG_FIRSTHDR(&message);
  head->cmsg_level = SOL_SOCKET;
  head->cmsg_type = SCM_RIGHTS;
  head->cmsg_len = CMSG_LEN(size);
  std::memcpy(CMSG_DATA(head), files.data(), size);
  return sendmsg(socket, &message, MSG_NOSIGNAL) == static_cast<ssize_t>(datagram.size());
}

#endif
