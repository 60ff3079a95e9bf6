// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "server/channel.h"

#include <fcntl.h>
#include <sys/mman.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>

#include "base/timespec.h"
#include "host_channel.h"
#include "server/memory_guard.h"

namespace ksd::server {
namespace {

using Clock = std::chrono::steady_clock;

constexpr unsigned kNotExecutable = 8;  // MFD_NOEXEC_SEAL of Linux 6.3

// What a client has to do between two requests wakes the service once. Who has it look more often than this, or changes
// the word under its hands, does nothing but keep a processor busy.
constexpr int kMostLooks = 64;

constexpr size_t kMoreThanADatagram = HOST_WIRE_MAX_DATAGRAM + 1;

UniqueFd make_file() {
  constexpr char kName[] = "ks-channel";
  int file = memfd_create(kName, MFD_CLOEXEC | MFD_ALLOW_SEALING | kNotExecutable);
  if (file < 0 && errno == EINVAL) file = memfd_create(kName, MFD_CLOEXEC | MFD_ALLOW_SEALING);
  return UniqueFd(file);
}

}  // namespace

// All of the memory is taken at once, so that it is missed here and not by whoever touches it first.
std::unique_ptr<Channel> Channel::make(UniqueFd &out_file) noexcept {
  UniqueFd file = make_file();
  constexpr int kSeals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL;
  if (!file || fallocate(file.get(), 0, 0, sizeof(HostChannel)) != 0 || fcntl(file.get(), F_ADD_SEALS, kSeals) != 0) {
    return nullptr;
  }
  void *memory = mmap(nullptr, sizeof(HostChannel), PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0);
  if (memory == MAP_FAILED) return nullptr;
  madvise(memory, sizeof(HostChannel), MADV_DONTDUMP);
  try {
    auto channel = std::make_unique<Channel>(static_cast<HostChannel *>(memory));
    out_file = std::move(file);
    return channel;
  } catch (const std::bad_alloc &) {
    munmap(memory, sizeof(HostChannel));
    return nullptr;
  }
}

Channel::~Channel() {
  bool woken;
  guarded([&] { host::post(&memory_->reply.word, HOST_CHANNEL_OVER, &woken); });
  munmap(memory_, sizeof(HostChannel));
}

Channel::Arrival Channel::wait(std::span<uint8_t> buffer, std::optional<std::chrono::milliseconds> limit) noexcept {
  Arrival arrival{Came::kNonsense};
  const Clock::time_point until = limit ? Clock::now() + *limit : Clock::time_point();
  guarded([&] {
    uint32_t *word = &memory_->request.word;
    for (int look = 0; look < kMostLooks; ++look) {
      const bool ending = ending_.load(std::memory_order_acquire);
      const uint32_t there = host::read_word(word);
      const uint32_t over = ending ? HOST_CHANNEL_OVER : 0;
      if ((there & HOST_CHANNEL_OVER) != 0) {
        arrival = {Came::kEnd};
        return;
      }
      if (host::serial_of(there) != answered_) {
        // What comes after this one goes nowhere if the connection is to end.
        if (!host::replace_word(word, there, host::serial_of(there) | HOST_CHANNEL_TAKEN | over)) continue;
        arrival = take(there, buffer);
        return;
      }
      if (ending) {
        if (!host::replace_word(word, there, there | over)) continue;
        arrival = {Came::kEnd};
        return;
      }
      const uint32_t waiting = there | HOST_CHANNEL_WAITING;
      if (there != waiting && !host::replace_word(word, there, waiting)) continue;
      timespec left{};
      if (limit) {
        const std::chrono::nanoseconds time = until - Clock::now();
        if (time.count() <= 0) {
          arrival = {Came::kNothing};
          return;
        }
        left = to_timespec(time);
      }
      host::sleep_on(word, waiting, limit ? &left : nullptr);
    }
  });
  return arrival;
}

Channel::Arrival Channel::take(uint32_t word, std::span<uint8_t> buffer) noexcept {
  answered_ = host::serial_of(word);
  const uint32_t size = host::read_word(&memory_->request.size);  // once: the client may change it
  if (size == HOST_CHANNEL_ON_SOCKET) return {Came::kOnSocket};
  const size_t there = std::min<size_t>({size, sizeof memory_->request_area, buffer.size()});
  std::memcpy(buffer.data(), memory_->request_area, there);
  explicit_bzero(memory_->request_area, there);
  return {Came::kRequest, size > sizeof memory_->request_area ? kMoreThanADatagram : size};
}

bool Channel::reply(Bytes datagram) noexcept {
  return guarded([&] { std::memcpy(memory_->reply_area, datagram.data(), datagram.size()); }) &&
         announce(static_cast<uint32_t>(datagram.size()));
}

bool Channel::announce(uint32_t size) noexcept {
  return guarded([&] {
    bool woken;
    __atomic_store_n(&memory_->reply.size, size, __ATOMIC_RELAXED);
    host::post(&memory_->reply.word, answered_, &woken);
  });
}

// Nothing here touches the memory, whose pages the client could keep from being had for a while.
void Channel::end() noexcept {
  ending_.store(true, std::memory_order_release);
  host::wake(&memory_->request.word);
}

}  // namespace ksd::server
