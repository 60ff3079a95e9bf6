// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// request.h: an operation's request from its building to the reading of its reply, in the steps that most operations
// have. Where one has another step, it takes Exchange and SectionList by themselves.
#ifndef TRANSPORT_REQUEST_H
#define TRANSPORT_REQUEST_H

#include <type_traits>

#include "transport/exchange.h"

namespace ks {

// Request allocates the section list. Its steps are then called in their order: build, exchange, read. The first that
// fails, the allocation included, decides the result, and the later ones do nothing. On leaving, the buffers are freed
// and then the messages dropped.
template <typename Descriptor>
class Request {
 public:
  explicit Request(const Message<Descriptor> &message, uint32_t owned = kOwnsName, uint32_t optional_sections = 0)
      : exchange_(message), list_(message, owned, optional_sections) {
    if (!has_list()) result_ = KS_NO_MEMORY;
  }

  bool has_list() const { return list_.allocated(); }
  KsResult result() const { return result_; }
  bool failed() const { return result_ != KS_SUCCESS; }

  // build gives `builder` the arguments, the section list and the descriptor, in this order.
  template <typename Builder, typename... Arguments>
  void build(Builder builder, Arguments... arguments) {
    if (!failed()) result_ = builder(arguments..., list_.data(), &descriptor_);
  }

  // build_or_send_empty carries on when the builder fails: the list then goes out as it was allocated.
  template <typename Builder, typename... Arguments>
  void build_or_send_empty(Builder builder, Arguments... arguments) {
    if (!failed()) static_cast<void>(builder(arguments..., list_.data(), &descriptor_));
  }

  KsResult exchange() {
    if (!failed()) result_ = ks_exchange(exchange_, descriptor_, list_);
    return result_;
  }

  // read gives `reader` the reply's size, its payload and the outputs, in this order, and returns the final result.
  template <typename... Outputs>
  KsResult read(KsResult (*reader)(uint16_t, const void *, Outputs...), std::type_identity_t<Outputs>... outputs) {
    return failed() ? result_ : reader(exchange_.size(), exchange_.payload(), outputs...);
  }

  const Descriptor &descriptor() const { return descriptor_; }
  const SectionList &list() const { return list_; }
  bool sent() const { return exchange_.sent(); }
  uint16_t size() const { return exchange_.size(); }
  const uint8_t *payload() const { return exchange_.payload(); }

  // keep_names leaves the owned buffers allocated for good.
  void keep_names() { list_.keep_names(); }

 private:
  Exchange<Descriptor> exchange_;  // declared first: drops its messages after the list's buffers are freed
  SectionList list_;
  Descriptor descriptor_;  // nothing is written into it before the builder does
  KsResult result_ = KS_SUCCESS;
};

}  // namespace ks

#endif
