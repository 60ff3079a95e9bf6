// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// reply.h: what a handler answers.
#ifndef SERVICE_HANDLERS_REPLY_H
#define SERVICE_HANDLERS_REPLY_H

#include <cstdint>
#include <cstring>
#include <memory>
#include <span>
#include <vector>

#include "base/bytes.h"
#include "host_wire.h"

namespace ksd::handlers {

// Reply collects a reply's payload: a result, and with KS_SUCCESS a 16-bit length and data. The payload lies behind
// room for the frame's header in one buffer that lives as long as the connection, so that a reply needs neither an
// allocation nor a second copy, which would be 1.1 % of an exchange with 64,000 bytes of AES-CBC. Its largest form has
// 65535 bytes of data.
class Reply {
 public:
  Reply() : frame_(std::make_unique_for_overwrite<uint8_t[]>(kHeaderRoom + kLargest)) {}

  // result makes the reply of a result alone, 4 bytes.
  void result(KsResult code) { std::memcpy(area(sizeof code), &code, sizeof code); }

  // data makes the reply KS_SUCCESS, length, `bytes`. More than 65535 bytes cannot be said: KS_RPC_TOO_LARGE.
  void data(Bytes bytes) {
    if (bytes.size() > UINT16_MAX) return result(KS_RPC_TOO_LARGE);
    uint8_t *out = data_area(static_cast<uint16_t>(bytes.size()));
    if (!bytes.empty()) std::memcpy(out, bytes.data(), bytes.size());
  }

  // data_area makes the reply KS_SUCCESS, length and `length` bytes for the caller to write, all of them, in place.
  uint8_t *data_area(uint16_t length) {
    uint8_t *out = area(kDataOffset + size_t{length});
    const uint32_t code = KS_SUCCESS;
    std::memcpy(out, &code, sizeof code);
    std::memcpy(out + sizeof code, &length, sizeof length);
    return out + kDataOffset;
  }

  // record makes a reply of a shape of its own.
  template <typename Record>
  void record(const Record &value) {
    static_assert(sizeof value <= kLargest);
    std::memcpy(area(sizeof value), &value, sizeof value);
  }

  // records makes a reply of a head and records behind it. More than fit cannot be said: KS_RPC_TOO_LARGE.
  template <typename Head, typename Record>
  void records(const Head &head, const std::vector<Record> &rest) {
    static_assert(sizeof head % alignof(Record) == 0, "records are where a struct of both would have them");
    if (rest.size() > (kLargest - sizeof head) / sizeof(Record)) return result(KS_RPC_TOO_LARGE);
    uint8_t *out = area(sizeof head + rest.size() * sizeof(Record));
    std::memcpy(out, &head, sizeof head);
    if (!rest.empty()) std::memcpy(out + sizeof head, rest.data(), rest.size() * sizeof(Record));
  }

  Bytes payload() const { return {frame_.get() + kHeaderRoom, size_}; }

  // code is the result that the reply begins with.
  KsResult code() const {
    KsResult code = KS_FAILURE;
    if (size_ >= sizeof code) std::memcpy(&code, frame_.get() + kHeaderRoom, sizeof code);
    return code;
  }

  // For the server: forget the last reply; write the header; take header and payload as one datagram.
  void reset() { size_ = 0; }
  void header(const HostWireHeader &header) { std::memcpy(frame_.get(), &header, sizeof header); }
  std::span<uint8_t> datagram() { return {frame_.get(), kHeaderRoom + size_}; }

 private:
  static constexpr size_t kHeaderRoom = sizeof(HostWireHeader);
  static constexpr size_t kDataOffset = 6;
  static constexpr size_t kLargest = kDataOffset + UINT16_MAX;

  uint8_t *area(size_t size) {
    size_ = size;
    return frame_.get() + kHeaderRoom;
  }

  std::unique_ptr<uint8_t[]> frame_;
  size_t size_ = 0;
};

}  // namespace ksd::handlers

#endif
