// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// exchange.h: the one sequence of send, receive and drop.
#ifndef TRANSPORT_EXCHANGE_H
#define TRANSPORT_EXCHANGE_H

#include "mts.h"
#include "transport/catalog.h"
#include "transport/reply.h"
#include "transport/sections.h"

namespace ks {

// AnyExchange is all of an Exchange but the record that its request begins with.
class AnyExchange {
 public:
  AnyExchange(const AnyExchange &) = delete;
  AnyExchange &operator=(const AnyExchange &) = delete;

  // Whether the request went out, which tells a failed receive from a failed send.
  bool sent() const { return sent_; }

  const uint8_t *payload() const { return payload_; }  // valid until the drop
  uint16_t size() const { return size_; }

  // drop releases the sent and then the received message.
  void drop();

  // keep_messages leaves them undropped for good.
  void keep_messages() { sent_live_ = received_live_ = false; }

  // run is ks_exchange without types. `list` is null for a message that carries no sections.
  KsResult run(const void *descriptor, uint16_t descriptor_size, const SectionList *list);

 protected:
  explicit AnyExchange(const MessageValues &message) : message_(message) {}
  ~AnyExchange() { drop(); }

 private:
  const MessageValues &message_;
  bool sent_ = false;
  bool sent_live_ = false;
  bool received_live_ = false;
  KsMtsMessage sent_message_;
  KsMtsMessage received_message_;
  const uint8_t *payload_ = nullptr;
  uint16_t size_ = 0;
};

// Exchange runs one message of the catalogue, and on leaving drops the messages that exist. Declared before the section
// list of its operation, it drops them after the buffers are freed, as the message service is promised.
template <typename Descriptor>
class Exchange : public AnyExchange {
 public:
  explicit Exchange(const Message<Descriptor> &message) : AnyExchange(message) {}
};

// ks_exchange sends the descriptor and the sections, and waits for the reply. A failure is reported in the words of the
// exchange's row and answered with its code. A record that isn't the row's doesn't compile.
template <typename Descriptor>
KsResult ks_exchange(Exchange<Descriptor> &exchange, const Descriptor &descriptor, const SectionList &list) {
  return exchange.run(&descriptor, sizeof descriptor, &list);
}

template <typename Descriptor>
KsResult ks_exchange(Exchange<Descriptor> &exchange, const Descriptor &descriptor) {
  return exchange.run(&descriptor, sizeof descriptor, nullptr);
}

inline KsResult ks_exchange(Exchange<NoDescriptor> &exchange) {
  return exchange.run(nullptr, 0, nullptr);
}

}  // namespace ks

#endif
