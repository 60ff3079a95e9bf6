// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "relay.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "failure.h"
#include "host_socket.h"
#include "host_trust.h"

namespace ksctl {
namespace {

constexpr int kAgainMs = 20;  // until a queue that was full is tried again

sockaddr_un address_of(const std::string &path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  return address;
}

ksd::UniqueFd make_socket() {
  return ksd::UniqueFd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

bool is_ready(const pollfd &polled) {
  return polled.revents != 0;
}

}  // namespace

Relay::Relay(const std::string &listening, std::string service, CaptureFile &file)
    : service_path_(std::move(service)), file_(file), listener_(make_socket()), buffer_(HOST_WIRE_MAX_DATAGRAM + 1) {
  const sockaddr_un address = address_of(listening);
  if (listening.size() >= sizeof address.sun_path) errno = ENAMETOOLONG;
  if (listening.size() >= sizeof address.sun_path || !listener_ ||
      bind(listener_.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
      listen(listener_.get(), SOMAXCONN) != 0) {
    throw Failure(Exit::kFailed, fmt::format("{}: can't be listened at: {}; set TMPDIR to a shorter folder", listening,
                                             std::strerror(errno)));
  }
}

// The listener first, then for each link the client's side and the service's. A side is read when the other one has
// nothing waiting, so that whoever doesn't read stops who sends, and nothing piles up here.
std::vector<pollfd> Relay::sources() const {
  std::vector<pollfd> polled{{.fd = full_ ? -1 : listener_.get(), .events = POLLIN, .revents = 0}};
  const auto add = [&polled](const Side &side, bool may_read) {
    const int events = (may_read ? POLLIN : 0) | (side.has_waiting ? POLLOUT : 0);
    polled.push_back({.fd = events == 0 ? -1 : side.socket.get(), .events = static_cast<short>(events), .revents = 0});
  };
  for (const Link &link : links_) {
    add(link.client, link.connected && !link.service.has_waiting);
    add(link.service, link.connected && !link.client.has_waiting);
  }
  return polled;
}

int Relay::pause_ms() const {
  for (const Link &link : links_) {
    if (!link.connected) return kAgainMs;
  }
  return -1;
}

void Relay::handle(const std::vector<pollfd> &polled) {
  size_t at = 1;
  for (Link &link : links_) {
    const pollfd &client = polled[at++];
    const pollfd &service = polled[at++];
    if (!link.connected) {
      connect(link);
      continue;
    }
    // Replies before the end of the connection that the service closed behind them, and requests likewise.
    if (is_ready(service) && link.service.has_waiting) flush(link, link.service);
    if (is_ready(client) && link.client.has_waiting) flush(link, link.client);
    if (is_ready(service) && !link.client.has_waiting) pass(link, link.service, link.client, Direction::kReply);
    if (is_ready(client) && !link.service.has_waiting) pass(link, link.client, link.service, Direction::kRequest);
  }
  if (links_.remove_if([](const Link &link) { return link.over; }) > 0) full_ = false;
  if (is_ready(polled[0])) accept_one();
}

void Relay::accept_one() {
  Link link;
  link.client.socket = ksd::UniqueFd(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  if (!link.client.socket) {
    full_ = errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS;
    return;
  }
  ucred peer{};
  socklen_t size = sizeof peer;
  const bool known = getsockopt(link.client.socket.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0;
  // To the service it would be this user.
  if (!known || peer.uid != geteuid()) return;
  link.pid = peer.pid;
  link.number = ++accepted_;
  host::size_send_buffer(link.client.socket.get());
  link.service.socket = make_socket();
  if (!link.service.socket) {
    full_ = true;
    return;
  }
  connect(links_.emplace_back(std::move(link)));
}

void Relay::connect(Link &link) {
  const sockaddr_un address = address_of(service_path_);
  const int socket = link.service.socket.get();
  uid_t owner = 0;
  const bool trusted = host::check_folder_of(service_path_.c_str(), &owner);
  if (trusted && ::connect(socket, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0) {
    link.connected = true;
    uid_t peer = 0;
    link.over = !host::check_peer(socket, owner, &peer);
    host::size_send_buffer(socket);
  } else {
    link.over = !trusted || (errno != EAGAIN && errno != EINTR);  // a full queue is tried again
  }
}

void Relay::pass(Link &link, Side &from, Side &to, Direction direction) {
  const ssize_t size = recv(from.socket.get(), buffer_.data(), buffer_.size(), MSG_DONTWAIT);
  if (size < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (size <= 0) {
    link.over = true;
    return;
  }
  to.waiting.assign(buffer_.begin(), buffer_.begin() + size);
  explicit_bzero(buffer_.data(), static_cast<size_t>(size));
  to.has_waiting = true;
  const bool request = direction == Direction::kRequest;
  file_.record({.direction = direction, .pid = static_cast<uint32_t>(link.pid), .connection = link.number},
               request ? link.striker.request(to.waiting) : link.striker.reply(to.waiting));
  flush(link, to);
}

void Relay::flush(Link &link, Side &to) {
  const ssize_t sent = send(to.socket.get(), to.waiting.data(), to.waiting.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  if (sent < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (sent < 0) link.over = true;
  to.has_waiting = false;
  explicit_bzero(to.waiting.data(), to.waiting.size());  // it may have held a secret
}

}  // namespace ksctl
