// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// frame.h: the check of a datagram before anything in it is believed.
#ifndef SERVICE_SERVER_FRAME_H
#define SERVICE_SERVER_FRAME_H

#include "base/bytes.h"
#include "host_wire.h"

namespace ksd::server {

enum class Verdict {
  kGood,
  kMalformed,     // sizes that contradict each other, or no room for a header
  kTooLarge,      // more than anybody may send
  kWrongVersion,  // of this protocol, but not of this version
  kForeign,       // of another protocol
};

struct Frame {
  Verdict verdict = Verdict::kMalformed;
  HostWireHeader header{};  // as received; all zero when there was no room for one
  Bytes message;            // descriptor and sections; empty unless the verdict is kGood
};

// read_frame checks the datagram that begins with the bytes `received` and was `sent_size` long when it was sent.
Frame read_frame(Bytes received, size_t sent_size);

}  // namespace ksd::server

#endif
