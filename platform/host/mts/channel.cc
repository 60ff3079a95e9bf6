// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "channel.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "connections.h"
#include "host_channel.h"
#include "host_datagram.h"

namespace mts {

namespace {

// How long is waited before it is looked whether the service is still there: nothing wakes who waits for a process that
// was killed. Exchanges are over long before.
constexpr int kLookEveryMs = 20;

struct Request {
  HostWireHeader header;
  HostChannelDescriptor descriptor;
};

struct Reply {
  HostWireHeader header;
  HostChannelReply channel;
};

// Asks for one step. Returns 0 or an error number; `out_made` says whether the service did it. What `out_file` holds,
// -1 for nothing, is the caller's to close in either case.
int ask(int socket, uint32_t step, const host::Deadline &deadline, bool *out_made, int *out_file) {
  *out_file = -1;
  constexpr uint32_t kToken = 1;
  const Request request = {.header = {.magic = HOST_WIRE_MAGIC,
                                      .version = HOST_WIRE_VERSION,
                                      .descriptor_size = sizeof request.descriptor,
                                      .opcode = HOST_OP_CHANNEL,
                                      .token = kToken,
                                      .node = KS_SERVICE_NODE,
                                      .sap = KS_SERVICE_SAP,
                                      .app_uuid = 0,
                                      .payload_size = sizeof request.descriptor},
                           .descriptor = {.step = step}};
  ssize_t sent;
  do {
    sent = host::send_datagram(socket, &request, sizeof request, MSG_NOSIGNAL);
  } while (sent < 0 && errno == EINTR);
  if (sent < 0) return errno == EAGAIN ? ETIMEDOUT : errno;

  Reply reply = {};
  const ssize_t size = host::receive_with_file(socket, &reply, sizeof reply, deadline, out_file);
  if (size < 0) return errno == EMSGSIZE ? EPROTO : errno;
  if (!host::is_reply(&reply, static_cast<size_t>(size)) || reply.header.opcode != HOST_OP_CHANNEL ||
      reply.header.token != kToken || reply.header.payload_size < sizeof reply.channel.result) {
    return EPROTO;
  }
  *out_made = reply.channel.result == KS_SUCCESS && reply.channel.size == sizeof(HostChannel) &&
              reply.header.payload_size == sizeof reply.channel;
  return 0;
}

// Only memory that nobody can cut may be touched without a signal that ends the program.
bool stays_whole(int file) {
  struct stat status;
  const int seals = fcntl(file, F_GET_SEALS);
  return seals >= 0 && (seals & F_SEAL_SHRINK) != 0 && fstat(file, &status) == 0 &&
         status.st_size >= static_cast<off_t>(sizeof(HostChannel));
}

// A program that confines itself may have forbidden what waiting takes.
bool can_wait(HostChannel *channel) {
  const uint32_t other = host::read_word(&channel->reply.word) ^ 1;
  return host::wake(&channel->reply.word) >= 0 && host::sleep_on(&channel->reply.word, other, nullptr) == EAGAIN;
}

// Returns null when this process can't have it. It is no child's to inherit.
HostChannel *map(int file) {
  if (!stays_whole(file)) return nullptr;
  void *fresh = mmap(nullptr, sizeof(HostChannel), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  if (fresh == MAP_FAILED) return nullptr;
  auto *channel = static_cast<HostChannel *>(fresh);
  if (madvise(fresh, sizeof(HostChannel), MADV_DONTFORK) == 0 && can_wait(channel)) return channel;
  unmap_channel(channel);
  return nullptr;
}

// Whether the service has left, as far as the channel doesn't tell.
bool is_gone(const Slot *slot) {
  return !owns_socket(slot) || host::has_hung_up(slot->socket);
}

}  // namespace

int agree_on_channel(int socket, const host::Deadline &deadline, HostChannel **out_channel) {
  *out_channel = nullptr;
  bool made = false;
  int file;
  int error = ask(socket, HOST_CHANNEL_MAKE, deadline, &made, &file);
  HostChannel *channel = error == 0 && made && file >= 0 ? map(file) : nullptr;
  if (file >= 0) close(file);
  if (channel == nullptr) return error;

  made = false;
  error = ask(socket, HOST_CHANNEL_USE, deadline, &made, &file);
  if (file >= 0) close(file);
  if (error == 0 && made) {
    *out_channel = channel;
  } else {
    unmap_channel(channel);
  }
  return error;
}

void unmap_channel(HostChannel *channel) {
  munmap(channel, sizeof *channel);
}

bool fits_into_channel(uint32_t size) {
  return size <= sizeof(HostChannel::request_area);
}

int post_request(Slot *slot, uint32_t size) {
  HostChannel *channel = slot->channel;
  slot->channel_serial = (slot->channel_serial + 1) & HOST_CHANNEL_SERIAL;
  channel->request.size = size;
  bool woken;
  const uint32_t before = host::post(&channel->request.word, slot->channel_serial, &woken);
  if ((before & HOST_CHANNEL_OVER) != 0) return EPIPE;
  // Where nobody was woken the service is about to look, or isn't there any more: then the request is taken back. Of
  // the two, taking it and taking it back, only one can happen.
  if (woken || !is_gone(slot)) return 0;
  return host::replace_word(&channel->request.word, slot->channel_serial, HOST_CHANNEL_OVER) ? EPIPE : 0;
}

int await_answer(Slot *slot) {
  uint32_t *word = &slot->channel->reply.word;
  uint32_t there = host::read_word(word);
  if (host::serial_of(there) == slot->channel_serial) return 0;  // the usual case where both ends share a processor
  const host::Deadline deadline = host::Deadline::in_ms(slot->receive_limit_ms);
  bool gone = false;
  while (true) {
    if ((there & HOST_CHANNEL_OVER) != 0 || gone) return ECONNRESET;
    const int left_ms = deadline.left_ms();
    if (left_ms == 0) return ETIMEDOUT;
    const uint32_t waiting = there | HOST_CHANNEL_WAITING;
    if (there == waiting || host::replace_word(word, there, waiting)) {
      const timespec limit = {.tv_sec = 0, .tv_nsec = std::min(left_ms, kLookEveryMs) * 1'000'000L};
      const int error = host::sleep_on(word, waiting, &limit);
      if (error == ETIMEDOUT) {
        gone = is_gone(slot);  // and then once more whether it had answered
      } else if (error != 0 && error != EAGAIN && error != EINTR) {
        return error;
      }
    }
    there = host::read_word(word);
    if (host::serial_of(there) == slot->channel_serial) return 0;
  }
}

bool answer_is_on_socket(const Slot *slot) {
  return host::read_word(&slot->channel->reply.size) == HOST_CHANNEL_ON_SOCKET;
}

size_t copy_answer(Slot *slot) {
  const size_t size = host::read_word(&slot->channel->reply.size);  // once: it may change
  uint8_t *area = slot->channel->reply_area;
  if (size > sizeof slot->channel->reply_area) return 0;
  memcpy(slot->buffer, area, size);
  explicit_bzero(area, size);
  return size;
}

}  // namespace mts
