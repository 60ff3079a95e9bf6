// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// raw_channel.h: a client's end of a channel that does anything, right or wrong.
#ifndef TESTS_SUPPORT_SERVICE_RAW_CHANNEL_H
#define TESTS_SUPPORT_SERVICE_RAW_CHANNEL_H

#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <thread>

#include "host_channel.h"
#include "service/raw_client.h"

namespace ks_test {

class RawChannel {
 public:
  // Asks for the channel and maps it; throws when there is none. Takes it into use unless told otherwise.
  explicit RawChannel(RawClient &client, bool use = true) : client_(client) {
    if (!make()) throw std::runtime_error("the service makes no channel");
    if (use && !take_into_use()) throw std::runtime_error("the service doesn't take the channel into use");
  }
  ~RawChannel() {
    if (memory_ != nullptr) munmap(memory_, sizeof *memory_);
    if (file_ >= 0) close(file_);
  }
  RawChannel(const RawChannel &) = delete;
  RawChannel &operator=(const RawChannel &) = delete;

  HostChannel *operator->() { return memory_; }
  HostChannel &memory() { return *memory_; }
  int file() const { return file_; }

  static Datagram step(uint32_t step) { return request_datagram(HOST_OP_CHANNEL, 9, bytes_of(step)); }

  bool take_into_use() {
    client_.send(step(HOST_CHANNEL_USE));
    const auto reply = client_.receive();
    return reply && reply->result() == KS_SUCCESS;
  }

  // post hands over a datagram of at most the area's size, said to have `size` bytes.
  void post(const Datagram &datagram, std::optional<uint32_t> size = std::nullopt) {
    std::memcpy(memory_->request_area, datagram.data(), datagram.size());
    memory_->request.size = size.value_or(static_cast<uint32_t>(datagram.size()));
    bool woken;
    host::post(&memory_->request.word, ++serial_, &woken);
  }

  // answer waits for the reply to what was posted last; nothing when the service says that it is over.
  std::optional<RawReply> answer() {
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (std::chrono::steady_clock::now() < until) {
      const uint32_t word = host::read_word(&memory_->reply.word);
      if (host::serial_of(word) == serial_) return taken();
      if ((word & HOST_CHANNEL_OVER) != 0) return std::nullopt;
      const timespec slice{.tv_sec = 0, .tv_nsec = 10'000'000};
      if (host::replace_word(&memory_->reply.word, word, word | HOST_CHANNEL_WAITING)) {
        host::sleep_on(&memory_->reply.word, word | HOST_CHANNEL_WAITING, &slice);
      }
    }
    throw std::runtime_error("the service neither replied nor closed the channel");
  }

  RawReply exchange(const Datagram &datagram) {
    post(datagram);
    const auto reply = answer();
    if (!reply) throw std::runtime_error("the service closed the channel");
    return *reply;
  }

 private:
  static Datagram bytes_of(uint32_t number) {
    Datagram bytes(sizeof number);
    std::memcpy(bytes.data(), &number, sizeof number);
    return bytes;
  }

  bool make() {
    client_.send(step(HOST_CHANNEL_MAKE));
    Datagram datagram(256);
    iovec piece{.iov_base = datagram.data(), .iov_len = datagram.size()};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof file_)] = {};
    msghdr message{};
    message.msg_iov = &piece;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    if (recvmsg(client_.socket(), &message, MSG_CMSG_CLOEXEC) <= 0) return false;
    const cmsghdr *head = CMSG_FIRSTHDR(&message);
    if (head == nullptr) return false;
    std::memcpy(&file_, CMSG_DATA(head), sizeof file_);
    void *memory = mmap(nullptr, sizeof(HostChannel), PROT_READ | PROT_WRITE, MAP_SHARED, file_, 0);
    if (memory == MAP_FAILED) return false;
    memory_ = static_cast<HostChannel *>(memory);
    return true;
  }

  RawReply taken() const {
    RawReply reply;
    const size_t size = memory_->reply.size;
    if (size == HOST_CHANNEL_ON_SOCKET) {
      const auto sent = client_.receive();
      if (!sent) throw std::runtime_error("no reply on the socket");
      return *sent;
    }
    if (size < sizeof reply.header || size > sizeof memory_->reply_area) throw std::runtime_error("a reply's size");
    std::memcpy(&reply.header, memory_->reply_area, sizeof reply.header);
    reply.payload.assign(memory_->reply_area + sizeof reply.header, memory_->reply_area + size);
    return reply;
  }

  RawClient &client_;
  HostChannel *memory_ = nullptr;
  int file_ = -1;
  uint32_t serial_ = 0;
};

}  // namespace ks_test

#endif
