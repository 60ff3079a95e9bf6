// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// crowd.h: who is connected, for whoever tells about it.
#ifndef SERVICE_SERVER_CROWD_H
#define SERVICE_SERVER_CROWD_H

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <vector>

#include "base/counters.h"

namespace ksd::server {

// Places are how many connections and users there are.
struct Places {
  uint32_t connections = 0;
  uint32_t of_unmapped = 0;
  uint32_t of_administrators = 0;
  uint32_t users = 0;
  uint32_t channels = 0;
};

// Visitor is a user who is connected or has been lately, with what was asked for since.
struct Visitor {
  uid_t uid = 0;  // HOST_ALL_UNMAPPED: all users without a VDC together
  std::optional<uint16_t> vdc_id;
  bool administrator = false;
  uint32_t connections = 0;
  uint64_t done = 0;
  uint64_t failed = 0;
};

// MessageCount is what was asked for of one message.
struct MessageCount {
  uint64_t done = 0;
  uint64_t failed = 0;
};
using MessageCountList = std::vector<MessageCount>;  // by opcode, from kFirstOpcode on

MessageCountList list_of(const MessageCounts &counts);

class Crowd {
 public:
  virtual ~Crowd() = default;
  virtual Places places() = 0;

  // visitors gives up to `most` users, ascending, from user `from` on.
  virtual std::vector<Visitor> visitors(uid_t from, size_t most) = 0;

  // messages_of gives what was counted for a user, or nothing for one who hasn't been here lately.
  virtual std::optional<MessageCountList> messages_of(uid_t uid) = 0;
};

}  // namespace ksd::server

#endif
