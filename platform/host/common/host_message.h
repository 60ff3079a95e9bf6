// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// host_message.h: what the host libraries keep in the 25 bytes of a KsMtsMessage: libmts writes them, and libsdwrap
// reads there which message it is told of.
#ifndef HOST_MESSAGE_H
#define HOST_MESSAGE_H

#include <cstdint>
#include <cstring>

#include "mts.h"

namespace host {

inline constexpr uint32_t kSentMessage = 0x73746d31;
inline constexpr uint32_t kReceivedMessage = 0x72746d31;
inline constexpr uint32_t kDroppedMessage = 0x64746d31;

struct Message {
  uint32_t kind;
  uint32_t token;
  uint32_t payload_size;
  uint32_t opcode;
  void *payload;  // of a received one: a heap block of its own
};
static_assert(sizeof(Message) <= sizeof(KsMtsMessage));

inline Message load(const KsMtsMessage *message) {
  Message content;
  memcpy(&content, message->bytes, sizeof content);
  return content;
}

inline void store(const Message &content, KsMtsMessage *message) {
  memcpy(message->bytes, &content, sizeof content);
}

}  // namespace host

#endif
