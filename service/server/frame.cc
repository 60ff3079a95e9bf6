// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "server/frame.h"

#include <cstring>

namespace ksd::server {

Frame read_frame(Bytes received, size_t sent_size) {
  Frame frame;
  uint32_t magic = HOST_WIRE_MAGIC;  // of a datagram too short to have one
  if (received.size() >= sizeof magic) std::memcpy(&magic, received.data(), sizeof magic);
  if (magic != HOST_WIRE_MAGIC) {
    frame.verdict = Verdict::kForeign;
    return frame;
  }
  if (received.size() < sizeof frame.header) return frame;

  HostWireHeader &header = frame.header;
  std::memcpy(&header, received.data(), sizeof header);
  if (header.version != HOST_WIRE_VERSION) {
    frame.verdict = Verdict::kWrongVersion;
    return frame;
  }
  if (sent_size > HOST_WIRE_MAX_DATAGRAM || sent_size > received.size()) {
    frame.verdict = Verdict::kTooLarge;
    return frame;
  }
  const bool consistent = header.payload_size == sent_size - sizeof header &&
                          header.descriptor_size <= header.payload_size && header.token != 0;
  if (!consistent) return frame;

  frame.verdict = Verdict::kGood;
  frame.message = received.subspan(sizeof header);
  return frame;
}

}  // namespace ksd::server
