// exchange.h: the one sequence of send, receive and drop, and the reading of what every reply begins with.
#ifndef TRANSPORT_EXCHANGE_H
#define TRANSPORT_EXCHANGE_H

#include "mts.h"
#include "transport/catalog.h"
#include "transport/sections.h"

namespace ks {

// Exchange runs one message of the catalogue, and on leaving drops the messages that exist. Declared before the section
// list of its operation, it drops them after the buffers are freed, as the message service is promised.
class Exchange {
 public:
  explicit Exchange(const Message &message) : message_(message) {}
  Exchange(const Exchange &) = delete;
  Exchange &operator=(const Exchange &) = delete;
  ~Exchange() { drop(); }

  // run sends `descriptor`, of the row's size, and the sections, and waits for the reply. A failure is reported in the
  // row's words and answered with the row's code.
  KsResult run(const void *descriptor) { return run(descriptor, nullptr); }
  KsResult run(const void *descriptor, const SectionList &list);

  // Whether the request went out, which tells a failed receive from a failed send.
  bool sent() const { return sent_; }

  const uint8_t *payload() const { return payload_; }  // valid until the drop
  uint16_t size() const { return size_; }

  // drop releases the sent and then the received message.
  void drop();

  // keep_messages leaves them undropped for good.
  void keep_messages() { sent_live_ = received_live_ = false; }

 private:
  KsResult run(const void *descriptor, const KsSendOptions *options);

  const Message &message_;
  bool sent_ = false;
  bool sent_live_ = false;
  bool received_live_ = false;
  KsMtsMessage sent_message_;
  KsMtsMessage received_message_;
  const uint8_t *payload_ = nullptr;
  uint16_t size_ = 0;
};

// reply_result reads the service's result, the first word of every reply.
inline KsResult reply_result(const void *payload) {
  KsResult result;
  memcpy(&result, payload, sizeof result);
  return result;
}

// reply_len reads the length of the data. It is believed: no reply is checked to hold that much.
inline uint16_t reply_len(const void *payload) {
  uint16_t len;
  memcpy(&len, static_cast<const uint8_t *>(payload) + 4, sizeof len);
  return len;
}

// reported_len is the length as reports show it, also of a refusal, which may end before it: then it is 0.
inline uint16_t reported_len(uint16_t size, const void *payload) {
  return size < sizeof(KsResult) + sizeof(uint16_t) ? uint16_t{0} : reply_len(payload);
}

inline const uint8_t *reply_data(const void *payload) {
  return static_cast<const uint8_t *>(payload) + 6;
}

// copy_reply_data allocates the length of a success's data in zeroed bytes, stores the block in `out` even when there
// is none, and copies the data and its length.
KsResult copy_reply_data(const void *payload, uint8_t **out, uint16_t *out_len);

// read_exactly copies the reply's data to `output` when it is as long as expected, and returns the final result. Any
// other length is reported and a KS_FAILURE, with nothing written.
KsResult read_exactly(const void *payload, void *output, uint16_t expected_len);

}  // namespace ks

#endif
