// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// The heap and the clock, as the library's objects see them.
#include <algorithm>

#include "scripted.h"

namespace scripted {

void *Heap::allocate(size_t size, bool zeroed, const std::string &event) {
  note(event);
  if (failing_ > 0 && --failing_ == 0) {
    if (failing_on_) failing_ = 1;
    return nullptr;
  }
  // Not zeroed means that the library must not rely on what is there.
  const size_t padding = padded_ > 0 && --padded_ == 0 ? padding_ : 0;
  auto memory = std::make_unique<Guarded>(Bytes(size + padding, zeroed ? 0 : 0xa5));
  void *block = memory->data();
  blocks_[block] = {std::move(memory), size, event, next_order_++};
  return block;
}

void *Heap::adopt(const Bytes &content) {
  auto memory = std::make_unique<Guarded>(content);
  void *block = memory->data();
  blocks_[block] = {std::move(memory), content.size(), "adopted " + std::to_string(content.size()), next_order_++};
  return block;
}

void Heap::free(void *block) {
  if (block == nullptr) return;
  const auto found = blocks_.find(block);
  if (found == blocks_.end()) {
    ADD_FAILURE() << "free of what is not an allocated block: " << block;
    return;
  }
  const std::string &made = found->second.made;
  note("free " + made.substr(made.find(' ') + 1));
  release(block);
}

void Heap::release(const void *block) {
  if (block == nullptr) return;
  const auto found = blocks_.find(block);
  if (found == blocks_.end()) {
    ADD_FAILURE() << "release of what is not an allocated block: " << block;
    return;
  }
  found->second.memory->forbid();
  freed_.push_back(std::move(found->second.memory));
  blocks_.erase(found);
  constexpr size_t kKept = 1024;
  if (freed_.size() > kKept) freed_.pop_front();
}

std::vector<const Heap::Block *> Heap::in_order() const {
  std::vector<const Block *> all;
  for (const auto &[address, block] : blocks_) all.push_back(&block);
  std::sort(all.begin(), all.end(), [](const Block *a, const Block *b) { return a->order < b->order; });
  return all;
}

std::vector<size_t> Heap::live() const {
  std::vector<size_t> sizes;
  for (const Block *block : in_order()) sizes.push_back(block->size);
  return sizes;
}

std::vector<std::string> Heap::left() const {
  std::vector<std::string> made;
  for (const Block *block : in_order()) made.push_back(block->made);
  return made;
}

Bytes Heap::content(const void *block, size_t size) const {
  const auto found = blocks_.find(block);
  if (found == blocks_.end()) {
    ADD_FAILURE() << "not an allocated block: " << block;
    return {};
  }
  EXPECT_EQ(found->second.size, size) << "size of the block handed out";
  const auto *at = static_cast<const uint8_t *>(block);
  return Bytes(at, at + std::min(size, found->second.size));
}

void Heap::reset() {
  blocks_.clear();
  freed_.clear();
  failing_ = 0;
  failing_on_ = false;
  padded_ = 0;
}

}  // namespace scripted

using namespace scripted;

KS_EXTERN_C void *scripted_malloc(size_t size) {
  return platform().heap.allocate(size, false, "malloc " + std::to_string(size));
}

KS_EXTERN_C void *scripted_calloc(size_t count, size_t size) {
  const bool list = size == sizeof(KsSection);
  const std::string what = list ? "list[" + std::to_string(count) + "]" : std::to_string(count * size);
  return platform().heap.allocate(count * size, true, "calloc " + what);
}

KS_EXTERN_C void scripted_free(void *block) {
  platform().heap.free(block);
}

KS_EXTERN_C int scripted_usleep(useconds_t microseconds) {
  note("usleep " + std::to_string(microseconds));
  platform().clock.pauses.push_back(microseconds);
  return 0;
}

KS_EXTERN_C time_t scripted_time(time_t *out) {
  EXPECT_EQ(out, nullptr);
  return static_cast<time_t>(platform().clock.now);
}
