// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// service_link.h: a connection to the service for administration messages. Everything else goes through libks.
#ifndef TOOLS_KSCTL_SERVICE_LINK_H
#define TOOLS_KSCTL_SERVICE_LINK_H

#include <cstdint>
#include <cstring>
#include <span>
#include <string>
#include <type_traits>
#include <vector>

#include "base/fd.h"
#include "failure.h"
#include "host_wire.h"

namespace ksctl {

class ServiceLink {
 public:
  // Connects. Failure: kNoService when nobody answers there, kNotAllowed when the socket may not be used.
  explicit ServiceLink(const std::string &socket);

  const HostHelloReply &hello() const { return hello_; }

  // ask sends one administration message and gives its reply, result included, which is KS_SUCCESS. Failure:
  // kNotAllowed for a user who is no administrator, or an older service; kNoService when it went away; kFailed for
  // another result.
  std::vector<uint8_t> ask(uint32_t opcode, std::span<const uint8_t> descriptor = {});

  // result_of is that for a message whose every result has its own meaning to the caller. It leaves the reply, result
  // included, in `reply` when that isn't null.
  KsResult result_of(uint32_t opcode, std::span<const uint8_t> descriptor = {}, std::vector<uint8_t> *reply = nullptr);

  // ask_for gives the reply as the record that it begins with.
  template <typename Reply>
  Reply ask_for(uint32_t opcode, std::span<const uint8_t> descriptor = {}) {
    static_assert(std::is_trivially_copyable_v<Reply>);
    const std::vector<uint8_t> payload = ask(opcode, descriptor);
    if (payload.size() < sizeof(Reply)) throw too_short();
    Reply reply;
    std::memcpy(&reply, payload.data(), sizeof reply);
    return reply;
  }

 private:
  Failure too_short() const;
  Failure lost(const char *what) const;

  const std::string socket_path_;
  HostHelloReply hello_{};
  ksd::UniqueFd socket_;
  uint32_t token_ = 1;
};

}  // namespace ksctl

#endif
