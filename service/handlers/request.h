// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// request.h: one message as it arrived. The server decodes the frame and knows the caller from the kernel; the handler
// checks lengths, does the work and fills a reply.
#ifndef SERVICE_HANDLERS_REQUEST_H
#define SERVICE_HANDLERS_REQUEST_H

#include <cstring>
#include <optional>

#include "base/bytes.h"
#include "base/caller.h"

namespace ksd::handlers {

// Request is one message as it arrived: `message` is the descriptor and the sections behind it, without gaps; offsets
// in descriptors count from its first byte. Nothing in it has been checked but that the descriptor is within it.
struct Request {
  uint32_t opcode = 0;
  Bytes message;
  size_t descriptor_size = 0;
  const Caller &caller;

  // descriptor copies the record out, or gives nothing unless the request's descriptor has exactly that size.
  template <typename Record>
  std::optional<Record> descriptor() const {
    if (descriptor_size != sizeof(Record)) return std::nullopt;
    Record record;
    std::memcpy(&record, message.data(), sizeof record);
    return record;
  }

  // section gives the `length` bytes at `offset`, or nothing unless all of them lie behind the descriptor.
  std::optional<Bytes> section(size_t offset, size_t length) const {
    if (offset < descriptor_size || offset > message.size() || length > message.size() - offset) return std::nullopt;
    return message.subspan(offset, length);
  }
};

}  // namespace ksd::handlers

#endif
