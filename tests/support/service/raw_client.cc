// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "service/raw_client.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "fail.h"

namespace ks_test {
namespace {

constexpr timeval kPatience{.tv_sec = 30, .tv_usec = 0};  // the point at which a silent service fails the test

}  // namespace

Datagram request_datagram(uint32_t opcode, uint32_t token, const Datagram &descriptor, const Datagram &sections) {
  HostWireHeader header{};
  header.magic = 0x3173776b;
  header.version = 1;
  header.descriptor_size = static_cast<uint16_t>(descriptor.size());
  header.opcode = opcode;
  header.token = token;
  header.node = 0xfe000000;
  header.sap = 11;
  header.payload_size = static_cast<uint32_t>(descriptor.size() + sections.size());
  Datagram datagram(sizeof header);
  std::memcpy(datagram.data(), &header, sizeof header);
  datagram.insert(datagram.end(), descriptor.begin(), descriptor.end());
  datagram.insert(datagram.end(), sections.begin(), sections.end());
  return datagram;
}

uint32_t RawReply::result() const {
  uint32_t result = UINT32_MAX;
  if (payload.size() >= sizeof result) std::memcpy(&result, payload.data(), sizeof result);
  return result;
}

Datagram RawReply::data() const {
  return payload.size() > 6 ? Datagram(payload.begin() + 6, payload.end()) : Datagram();
}

RawClient::RawClient(const std::string &socket_path) : socket_(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  socket_path.copy(address.sun_path, sizeof address.sun_path - 1);
  if (connect(socket_, reinterpret_cast<const sockaddr *>(&address), sizeof address) < 0) {
    const int error = errno;
    close(socket_);
    errno = error;
    fail("connect " + socket_path);
  }
  setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &kPatience, sizeof kPatience);
  const int large = 1 << 20;
  setsockopt(socket_, SOL_SOCKET, SO_SNDBUF, &large, sizeof large);
}

RawClient::~RawClient() {
  close(socket_);
}

bool RawClient::send(const Datagram &datagram) {
  return ::send(socket_, datagram.data(), datagram.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(datagram.size());
}

std::optional<RawReply> RawClient::receive() {
  const ssize_t size = recv(socket_, datagram_.get(), HOST_WIRE_MAX_DATAGRAM, MSG_TRUNC);
  if (size < 0 && errno == EAGAIN) throw std::runtime_error("the service neither replied nor closed the connection");
  if (size <= 0) return std::nullopt;
  RawReply reply;
  if (static_cast<size_t>(size) < sizeof reply.header || static_cast<size_t>(size) > HOST_WIRE_MAX_DATAGRAM) {
    throw std::runtime_error("a reply of " + std::to_string(size) + " bytes");
  }
  std::memcpy(&reply.header, datagram_.get(), sizeof reply.header);
  reply.payload.assign(datagram_.get() + sizeof reply.header, datagram_.get() + size);
  return reply;
}

RawReply RawClient::exchange(uint32_t opcode, const Datagram &descriptor, const Datagram &sections) {
  if (!send(request_datagram(opcode, token_++, descriptor, sections))) fail("send");
  std::optional<RawReply> reply = receive();
  if (!reply) throw std::runtime_error("the service closed the connection");
  return *reply;
}

HostHelloReply RawClient::hello() {
  const RawReply reply = exchange(HOST_OP_HELLO, {});
  HostHelloReply hello{};
  if (reply.payload.size() != sizeof hello) throw std::runtime_error("the reply to the hello has another size");
  std::memcpy(&hello, reply.payload.data(), sizeof hello);
  return hello;
}

}  // namespace ks_test
