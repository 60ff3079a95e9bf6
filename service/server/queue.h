// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// queue.h: a queue of things that are linked by themselves, so that joining it takes no memory and can't fail.
#ifndef SERVICE_SERVER_QUEUE_H
#define SERVICE_SERVER_QUEUE_H

namespace ksd::server {

// Queue links things by their member `next`. It owns none of them.
template <typename Thing>
class Queue {
 public:
  bool empty() const { return first_ == nullptr; }
  Thing *first() const { return first_; }

  void push(Thing &thing) {
    thing.next = nullptr;
    (last_ == nullptr ? first_ : last_->next) = &thing;
    last_ = &thing;
  }

  // pop takes the first one out, of a queue that isn't empty.
  Thing &pop() {
    Thing &thing = *first_;
    first_ = thing.next;
    if (first_ == nullptr) last_ = nullptr;
    return thing;
  }

 private:
  Thing *first_ = nullptr;
  Thing *last_ = nullptr;
};

}  // namespace ksd::server

#endif
