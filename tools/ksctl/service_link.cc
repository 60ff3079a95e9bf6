// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "service_link.h"

#include <fmt/format.h>

#include <cerrno>
#include <utility>

#include "host_datagram.h"
#include "host_socket.h"
#include "ks_api.h"

namespace ksctl {
namespace {

Failure no_connection(const std::string &path, int why) {
  const char *next = "look at the service's log";
  Exit exit = Exit::kNoService;
  switch (why) {
    case ENOENT:
      next = "start the service, or name its socket by --socket or KS_SOCKET";
      break;
    case ECONNREFUSED:
      next = "nobody serves it, or the service has too many connections: start it, or look at its log";
      break;
    case EACCES:
      exit = Exit::kNotAllowed;
      next = "the socket's mode and group say who may use it";
      break;
    case EPERM:
      exit = Exit::kNotAllowed;
      next = "others may write the socket's folder, or a stranger serves it: see who owns it";
      break;
    case ETIMEDOUT:
      next = "the service is stopped or overloaded: look at its process";
      break;
    case ENAMETOOLONG:
      next = "the path is too long for a socket";
      break;
    case EPROTO:
      next = "what serves there isn't the keystore's service";
      break;
    default:
      break;
  }
  return {exit, fmt::format("{}: {}; {}", path, std::strerror(why), next)};
}

}  // namespace

ServiceLink::ServiceLink(const std::string &socket) : socket_path_(socket) {
  const char *path = socket.size() < host::kSocketPathSize ? socket.c_str() : "";
  socket_ = ksd::UniqueFd(host::connect_to_service(path, host::kDefaultReceiveLimitMs, &hello_));
  if (!socket_) throw no_connection(socket, errno);
}

std::vector<uint8_t> ServiceLink::ask(uint32_t opcode, std::span<const uint8_t> descriptor) {
  std::vector<uint8_t> reply;
  const KsResult result = result_of(opcode, descriptor, &reply);
  if (result == KS_SUCCESS) return reply;
  throw Failure(result == KS_NOT_FOUND ? Exit::kNotFound : Exit::kFailed,
                fmt::format("{}: {} ({}); the service's log says more", socket_path_, kserr2str(result), result));
}

KsResult ServiceLink::result_of(uint32_t opcode, std::span<const uint8_t> descriptor, std::vector<uint8_t> *reply) {
  const HostWireHeader header = {.magic = HOST_WIRE_MAGIC,
                                 .version = HOST_WIRE_VERSION,
                                 .descriptor_size = static_cast<uint16_t>(descriptor.size()),
                                 .opcode = opcode,
                                 .token = ++token_,
                                 .node = KS_SERVICE_NODE,
                                 .sap = KS_SERVICE_SAP,
                                 .app_uuid = 0,
                                 .payload_size = static_cast<uint32_t>(descriptor.size())};
  std::vector<uint8_t> datagram(HOST_WIRE_MAX_DATAGRAM);  // for the reply as well, so that no copy of a key is left
  std::memcpy(datagram.data(), &header, sizeof header);
  if (!descriptor.empty()) std::memcpy(datagram.data() + sizeof header, descriptor.data(), descriptor.size());
  if (host::send_datagram(socket_.get(), datagram.data(), sizeof header + descriptor.size(), MSG_NOSIGNAL) < 0)
    throw lost("sent");

  const host::Deadline deadline = host::Deadline::in_ms(hello_.receive_limit_ms);
  const ssize_t size = host::receive(socket_.get(), datagram.data(), datagram.size(), deadline, false);
  if (size < 0) throw lost("received");
  uint32_t result = KS_FAILURE;
  if (!host::is_reply(datagram.data(), static_cast<size_t>(size)) ||
      static_cast<size_t>(size) < sizeof header + sizeof result) {
    throw too_short();
  }
  std::memcpy(&result, datagram.data() + sizeof header, sizeof result);
  if (result == KS_RPC_ERROR) {
    throw Failure(Exit::kNotAllowed,
                  fmt::format("{}: the service answers this to administrators only; run it as one of "
                              "those in [administrators] of its configuration",
                              socket_path_));
  }
  if (reply != nullptr) reply->assign(datagram.begin() + sizeof header, datagram.begin() + size);
  explicit_bzero(datagram.data(), datagram.size());  // a request may bear a key
  return result;
}

Failure ServiceLink::too_short() const {
  return {Exit::kFailed,
          fmt::format("{}: the reply isn't whole; service and ksctl are of different versions", socket_path_)};
}

Failure ServiceLink::lost(const char *what) const {
  return {Exit::kNoService, fmt::format("{}: nothing could be {}: {}; look at the service's log", socket_path_, what,
                                        std::strerror(errno))};
}

}  // namespace ksctl
