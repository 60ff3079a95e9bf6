// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// host_datagram.h: sends and receives one datagram, without being a cancellation point.
//
// In a process with threads, the C library's send and recv each switch cancellation on and off, two locked operations
// that take part in what an exchange costs; and a thread that was cancelled in the midst of an exchange would leave its
// connection behind. Errors and interruptions are those of send and recv.
#ifndef HOST_DATAGRAM_H
#define HOST_DATAGRAM_H

#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

#include <cstddef>

namespace host {

#ifdef __SANITIZE_THREAD__

// ThreadSanitizer takes what goes through a socket for a synchronisation if it sees it.
inline ssize_t send_datagram(int socket, const void *datagram, size_t size, int flags) {
  return send(socket, datagram, size, flags);
}

inline ssize_t receive_datagram(int socket, void *buffer, size_t size, int flags) {
  return recv(socket, buffer, size, flags);
}

#else

inline ssize_t send_datagram(int socket, const void *datagram, size_t size, int flags) {
  return syscall(SYS_sendto, socket, datagram, size, flags, nullptr, 0);
}

inline ssize_t receive_datagram(int socket, void *buffer, size_t size, int flags) {
  return syscall(SYS_recvfrom, socket, buffer, size, flags, nullptr, nullptr);
}

#endif

}  // namespace host

#endif
