// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "server/channels.h"

#include <sys/epoll.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <new>

#include "base/refuse.h"

namespace ksd::server {

Channels::Channels() : watched_(epoll_create1(EPOLL_CLOEXEC)) {
  if (!watched_) refuse("can't watch connections: {}", std::strerror(errno));
}

void Channels::enter(int socket, Channel &channel, uint32_t limit, std::optional<Seat> &out_seat) noexcept {
  const std::lock_guard lock(mutex_);
  if (closed_ || entries_.size() >= limit) return;
  const uint64_t id = next_id_++;
  try {
    entries_[id] = {.channel = &channel};
  } catch (const std::bad_alloc &) {
    return;
  }
  epoll_event event{};
  event.events = EPOLLRDHUP | EPOLLONESHOT;
  event.data.u64 = id;
  if (epoll_ctl(watched_.get(), EPOLL_CTL_ADD, socket, &event) != 0) {
    entries_.erase(id);
    return;
  }
  out_seat.emplace(*this, socket, id);
}

void Channels::leave(int socket, uint64_t id) noexcept {
  epoll_ctl(watched_.get(), EPOLL_CTL_DEL, socket, nullptr);
  const std::lock_guard lock(mutex_);
  const auto entry = entries_.find(id);
  if (entry->second.ending) --ending_;
  entries_.erase(entry);
}

uint32_t Channels::count() {
  const std::lock_guard lock(mutex_);
  return static_cast<uint32_t>(entries_.size());
}

bool Channels::end_those_left() noexcept {
  const std::lock_guard lock(mutex_);
  std::array<epoll_event, 64> events{};
  const int count = epoll_wait(watched_.get(), events.data(), events.size(), 0);
  for (int i = 0; i < count; ++i) {
    const uint64_t id = events[static_cast<size_t>(i)].data.u64;  // a copy: the kernel's structure is packed
    const auto entry = entries_.find(id);
    if (entry == entries_.end() || entry->second.ending) continue;
    entry->second.ending = true;
    ++ending_;
  }
  if (ending_ == 0) return false;
  for (auto &[id, entry] : entries_) {
    if (entry.ending) entry.channel->end();
  }
  return true;
}

void Channels::end_all() noexcept {
  const std::lock_guard lock(mutex_);
  closed_ = true;
  for (auto &[id, entry] : entries_) entry.channel->end();
}

}  // namespace ksd::server
