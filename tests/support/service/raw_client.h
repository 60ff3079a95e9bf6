// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// raw_client.h: a client that can say anything to the service, right or wrong, datagram by datagram.
#ifndef TESTS_SUPPORT_SERVICE_RAW_CLIENT_H
#define TESTS_SUPPORT_SERVICE_RAW_CLIENT_H

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host_wire.h"

namespace ks_test {

using Datagram = std::vector<uint8_t>;

// request_datagram makes a well-formed request: header, descriptor, sections.
Datagram request_datagram(uint32_t opcode, uint32_t token, const Datagram &descriptor, const Datagram &sections = {});

// RawReply is a reply taken apart.
struct RawReply {
  HostWireHeader header{};
  Datagram payload;

  uint32_t result() const;  // the payload's first word; all ones without one
  Datagram data() const;    // behind result and length; empty without any
};

class RawClient {
 public:
  // Connects; throws std::runtime_error when nobody listens.
  explicit RawClient(const std::string &socket_path);
  ~RawClient();
  RawClient(const RawClient &) = delete;
  RawClient &operator=(const RawClient &) = delete;

  int socket() const { return socket_; }

  // send sends one datagram as it is, waiting for room; false when the connection is gone.
  bool send(const Datagram &datagram);

  // receive waits for the next reply; nothing when the service closed the connection. Throws when neither comes.
  std::optional<RawReply> receive();

  // exchange sends a well-formed request and gives its reply; throws when the service closes instead.
  RawReply exchange(uint32_t opcode, const Datagram &descriptor, const Datagram &sections = {});
  HostHelloReply hello();

  // is_closed waits until the service closes the connection; false when it replies instead.
  bool is_closed() { return !receive(); }

 private:
  int socket_;
  uint32_t token_ = 1;
  // Once for all replies, since each is small and the largest isn't.
  std::unique_ptr<uint8_t[]> datagram_ = std::make_unique_for_overwrite<uint8_t[]>(HOST_WIRE_MAX_DATAGRAM);
};

}  // namespace ks_test

#endif
