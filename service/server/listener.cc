// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "server/listener.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/refuse.h"
#include "base/trust.h"

namespace ksd::server {
namespace {

// How many connections wait in the socket itself, where they are all one queue: a short one, so that whoever connects
// without end stands in the way of others for a few milliseconds at most. Those who find it full wait for room.
constexpr int kQueue = 256;

void remove_left_behind(const std::string &path) {
  struct stat status {};
  if (lstat(path.c_str(), &status) < 0) return;
  if (!S_ISSOCK(status.st_mode)) {
    refuse("{}: isn't a socket; remove it or name another place", path);
  }
  if (unlink(path.c_str()) < 0) refuse_by_errno(path, "can't remove the socket of an earlier service");
}

}  // namespace

std::string socket_path_of(int socket) {
  sockaddr_un address{};
  socklen_t size = sizeof address;
  if (getsockname(socket, reinterpret_cast<sockaddr *>(&address), &size) < 0 || address.sun_path[0] != '/') {
    refuse("the socket that was passed has no absolute path");
  }
  return address.sun_path;
}

void make_socket_folder(const std::string &socket_path) {
  const std::string folder = folder_of(socket_path);
  if (mkdir(folder.c_str(), 0755) == 0 || errno == EEXIST) return;
  refuse(
      "{}: can't make the folder of the socket: {}; make it for user {}, or name another socket with --socket "
      "(ks-session gives any user a service of their own)",
      folder, std::strerror(errno), geteuid());
}

UniqueFd listen_at(const std::string &path, const config::Config &config) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    refuse("{}: too long for a socket; {} bytes are possible", path, sizeof address.sun_path - 1);
  }
  path.copy(address.sun_path, sizeof address.sun_path);
  remove_left_behind(path);

  UniqueFd socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!socket) refuse_by_errno(path, "can't make a socket");
  const mode_t old_mask = umask(0777 & ~config.socket_mode);  // so that no moment has a wider mode
  const int bound = bind(socket.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address);
  umask(old_mask);
  if (bound < 0) refuse_by_errno(path, "can't bind the socket");
  if (config.socket_group && chown(path.c_str(), static_cast<uid_t>(-1), *config.socket_group) < 0) {
    refuse_by_errno(path, "can't give the socket to its group");
  }
  if (listen(socket.get(), kQueue) < 0) refuse_by_errno(path, "can't listen on the socket");
  return socket;
}

}  // namespace ksd::server
