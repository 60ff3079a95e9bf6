// handler.h: what a message handler of the keystore daemon sees. The server decodes the frame, knows the caller from
// the kernel, and calls the handler of the message's row; the handler checks lengths, does the work and fills a reply.
#ifndef SERVICE_HANDLERS_HANDLER_H
#define SERVICE_HANDLERS_HANDLER_H

#include <sys/types.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "host_wire.h"

namespace ksd {

using Bytes = std::span<const uint8_t>;

// Caller is who opened the connection, by the kernel's word (SO_PEERCRED), with what the configuration maps it to.
struct Caller {
  uid_t uid = 0;
  gid_t gid = 0;
  pid_t pid = 0;
  std::optional<uint16_t> vdc_id;  // none: an unmapped user, who may not use any name
  bool administrator = false;      // may act for any VDC

  bool may_use(uint16_t vdc) const { return administrator || (vdc_id && *vdc_id == vdc); }
};

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

// EntryName is a decoded wire name: what an entry is known by.
struct EntryName {
  uint8_t tag = 0;  // KS_NAME_TAG_SECRET or KS_NAME_TAG_PAC
  uint16_t vdc_id = 0;
  std::string name;  // 1 to 31 bytes, of any value for a PAC

  friend bool operator==(const EntryName &, const EntryName &) = default;
};

// entry_name decodes a wire name of 5 to 35 bytes with a known tag and a zero second byte, or gives nothing.
std::optional<EntryName> entry_name(Bytes wire);

// wire_name is the other way round.
std::vector<uint8_t> wire_name(const EntryName &name);

// Reply collects a reply's payload: a result, and with KS_SUCCESS a 16-bit length and data. The payload lies behind
// room for the frame's header in one buffer that lives as long as the connection, so that a reply needs neither an
// allocation nor a second copy. Its largest form has 65535 bytes of data.
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

  Bytes payload() const { return {frame_.get() + kHeaderRoom, size_}; }

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

class Service;  // everything the handlers share: store, crypto, counters, configuration (service.h)

using Handler = void (*)(Service &, const Request &, Reply &);

// Row is one message of the decoder table.
struct Row {
  uint32_t opcode;
  const char *name;  // for logs and counters
  Handler handler;
};

// Each family of messages brings its rows; the dispatcher puts them together.
std::span<const Row> device_rows();
std::span<const Row> secret_rows();
std::span<const Row> crypto_rows();
std::span<const Row> pac_rows();

}  // namespace ksd

#endif
