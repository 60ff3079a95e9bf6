// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// The message service over one Unix socket: a request is a datagram of header, descriptor and sections, and so is its
// reply. An exchange takes a connection of the pool in mts_send and gives it back in mts_recv. A connection that is
// used more than a few times has a channel (channel.h), through which all go that aren't too large for it.
#include "mts.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "channel.h"
#include "connections.h"
#include "host_datagram.h"
#include "host_message.h"
#include "host_socket.h"
#include "last_error.h"

namespace {

using host::load;
using host::Message;
using host::store;
using mts::Slot;
using mts::Step;

// Notes why a call fails, in numbers.
uint32_t failed(Step step, int error, const char *path, uint32_t detail = 0, const host::Obstacle &obstacle = {}) {
  mts::last_failure = {
      .step = step, .obstacle = obstacle, .detail = detail, .error = static_cast<uint32_t>(error), .path = path};
  return MTS_FAILED;
}

uint32_t failed_call(int error) {
  return failed(Step::kCall, error, mts::service_path());
}

uint32_t failed_take(int error) {
  return failed(Step::kTake, error, mts::service_path());
}

// ---- Queues. A handle is the place of its application id here, plus 1. They are plain numbers, good in a child too.

constexpr uint32_t kQueueCount = 256;
constexpr uint64_t kQueueBound = UINT64_C(1) << 32;  // beside the application id
constinit std::atomic<uint64_t> queues[kQueueCount];

// Binding again under the same application id gives the same queue. Returns MTS_FAILED when there are too many.
uint32_t queue_of(uint32_t app_uuid) {
  const uint64_t wanted = kQueueBound | app_uuid;
  for (uint32_t i = 0; i < kQueueCount; i++) {
    uint64_t there = 0;
    if (queues[i].compare_exchange_strong(there, wanted, std::memory_order_acq_rel) || there == wanted) return i + 1;
  }
  return MTS_FAILED;
}

bool find_queue(uint32_t queue, uint32_t *app_uuid) {
  if (queue == 0 || queue > kQueueCount) return false;
  const uint64_t entry = queues[queue - 1].load(std::memory_order_acquire);
  *app_uuid = static_cast<uint32_t>(entry);
  return entry != 0;
}

// ---- Requests.

// Up to here a request is copied together and sent from one piece, which costs less than having the kernel gather it: a
// tenth of an exchange at 1 KiB.
constexpr size_t kCopiedTogether = 8192;
constexpr uint32_t kGatheredSections = 14;

struct Request {
  HostWireHeader header;
  const void *descriptor;
  const KsSection *sections;
  uint32_t section_count;
};

// Adds up the sizes. Returns 0 or an error number.
int measure(Request *request, uint32_t descriptor_size) {
  if (descriptor_size > 0 && request->descriptor == nullptr) return EINVAL;
  if (request->section_count > 0 && request->sections == nullptr) return EINVAL;
  if (descriptor_size > UINT16_MAX) return EMSGSIZE;
  uint64_t size = descriptor_size;
  for (uint32_t i = 0; i < request->section_count; i++) {
    const KsSection &section = request->sections[i];
    if (section.length > 0 && section.data == nullptr) return EINVAL;
    size += section.length;
  }
  if (size > HOST_WIRE_MAX_PAYLOAD) return EMSGSIZE;
  request->header.descriptor_size = static_cast<uint16_t>(descriptor_size);
  request->header.payload_size = static_cast<uint32_t>(size);
  return 0;
}

uint8_t *append(uint8_t *out, const void *data, size_t size) {
  if (size > 0) memcpy(out, data, size);
  return out + size;
}

uint32_t size_of(const Request &request) {
  return static_cast<uint32_t>(sizeof request.header) + request.header.payload_size;
}

void copy_together(uint8_t *out, const Request &request) {
  out = append(out, &request.header, sizeof request.header);
  out = append(out, request.descriptor, request.header.descriptor_size);
  for (uint32_t i = 0; i < request.section_count; i++) {
    out = append(out, request.sections[i].data, request.sections[i].length);
  }
}

ssize_t send_copied(Slot *slot, const Request &request) {
  copy_together(slot->buffer, request);
  slot->buffer_used = size_of(request);
  return host::send_datagram(slot->socket, slot->buffer, slot->buffer_used, MSG_NOSIGNAL);
}

iovec piece(const void *data, size_t size) {
  return {.iov_base = const_cast<void *>(data), .iov_len = size};
}

ssize_t send_gathered(const Slot *slot, const Request &request) {
  iovec pieces[2 + kGatheredSections];
  size_t count = 0;
  pieces[count++] = piece(&request.header, sizeof request.header);
  pieces[count++] = piece(request.descriptor, request.header.descriptor_size);
  for (uint32_t i = 0; i < request.section_count; i++) {
    pieces[count++] = piece(request.sections[i].data, request.sections[i].length);
  }
  msghdr message = {};
  message.msg_iov = pieces;
  message.msg_iovlen = count;
  return sendmsg(slot->socket, &message, MSG_NOSIGNAL);
}

// Returns 0 or an error number. A datagram goes whole or not at all.
int send_by_socket(Slot *slot, const Request &request) {
  const bool copied = request.header.payload_size <= kCopiedTogether || request.section_count > kGatheredSections;
  ssize_t sent;
  do {
    sent = copied ? send_copied(slot, request) : send_gathered(slot, request);
  } while (sent < 0 && errno == EINTR);
  if (sent >= 0) return 0;
  return errno == EAGAIN ? ETIMEDOUT : errno;
}

bool goes_by_channel(const Slot *slot, const Request &request) {
  return slot->channel != nullptr && mts::fits_into_channel(size_of(request));
}

int send_request(Slot *slot, const Request &request) {
  slot->by_channel = goes_by_channel(slot, request);
  if (slot->by_channel) {
    copy_together(slot->channel->request_area, request);
    return mts::post_request(slot, size_of(request));
  }
  const int error = send_by_socket(slot, request);
  // The service waits at the channel.
  return error == 0 && slot->channel != nullptr ? mts::post_request(slot, HOST_CHANNEL_ON_SOCKET) : error;
}

// Whether a failed send tells that the connection had ended before: the service restarted or closed it while it was
// idle, or the program closed the descriptor. The request went nowhere and may go another way.
bool had_ended(int error) {
  return error == EPIPE || error == ECONNRESET || error == ENOTCONN || error == EBADF || error == ENOTSOCK;
}

// The processor's own clock, which costs a tenth of a system call.
uint64_t ticks() {
  return __builtin_ia32_rdtsc();
}

// Between the send and the receive of one operation lies less than any system call takes, by which the descriptor could
// have become another's: it was looked at a moment ago, and looking again would cost 3 % of an exchange.
constexpr uint64_t kNoTimeForAnything = 600;

// ---- Replies.

// Notes in the slot what may come back on the request.
void expect_reply(Slot *slot, const Request &request) {
  slot->opcode = request.header.opcode;
  slot->shape = &host_reply_shapes[host_reply_kind(slot->opcode)];
  slot->most = slot->shape->most;
  uint16_t asked = 0;
  const size_t asked_bytes = slot->shape->asked_bytes;
  if (asked_bytes == 0 || request.header.descriptor_size < asked_bytes) return;
  memcpy(&asked, request.descriptor, asked_bytes);
  if (asked < slot->most) slot->most = asked;
}

// Whether whoever reads the payload without looking stays within it, and within the buffer of who asked.
bool has_shape(const Slot *slot, const uint8_t *payload, size_t size) {
  KsResult result;
  memcpy(&result, payload, sizeof result);
  const HostReplyShape *shape = slot->shape;
  if (result != KS_SUCCESS) return true;
  if (size < shape->least) return false;
  if (shape->length_bytes == 0) return true;
  uint16_t length = 0;
  memcpy(&length, payload + sizeof result, shape->length_bytes);
  return length <= slot->most && sizeof result + sizeof length + length <= size;
}

// Attempt is what came of sending: 0 or an error number, and where that arose.
struct Attempt {
  int error;
  Step step;
  host::Obstacle obstacle;  // of Step::kConnect
};

// Sends on the slot's connection, or on a new one when there is none or it had ended.
Attempt send_on(Slot *slot, const Request &request) {
  if (mts::is_usable(slot, goes_by_channel(slot, request))) {
    const int not_grown = mts::grow(slot, mts::fits_into_channel(size_of(request)));
    const int error = not_grown != 0 ? not_grown : send_request(slot, request);
    const bool elsewhere = had_ended(error) || (not_grown != 0 && not_grown != ETIMEDOUT);
    if (error == 0 || !elsewhere) return {.error = error, .step = Step::kSend, .obstacle = {}};
  }
  host::Obstacle obstacle = {};
  if (!mts::open(slot, &obstacle)) return {.error = errno, .step = Step::kConnect, .obstacle = obstacle};
  return {.error = send_request(slot, request), .step = Step::kSend, .obstacle = {}};
}

// What a failed send is noted with. Called before the slot is given back.
uint32_t failed_send(const Slot *slot, const Attempt &attempt, const Request &request) {
  if (attempt.step == Step::kConnect) {
    return failed(attempt.step, attempt.error, mts::service_path(), 0, attempt.obstacle);
  }
  const uint32_t detail = attempt.error == ETIMEDOUT ? slot->receive_limit_ms : request.header.payload_size;
  return failed(attempt.step, attempt.error, mts::path_of(slot), detail);
}

uint32_t failed_receive(const Slot *slot, int error) {
  return failed(Step::kReceive, error, mts::path_of(slot), error == ETIMEDOUT ? slot->receive_limit_ms : slot->opcode);
}

HostWireHeader header_of(const Slot *slot) {
  HostWireHeader header;
  memcpy(&header, slot->buffer, sizeof header);
  return header;
}

// The next datagram, in the slot's buffer. Returns its size, or 0 with errno.
size_t receive_datagram(Slot *slot, const host::Deadline &deadline, bool first) {
  const ssize_t received = host::receive(slot->socket, slot->buffer, HOST_WIRE_MAX_DATAGRAM, deadline, first);
  // Whatever came is in the buffer as far as it fits.
  const size_t came = received >= 0 ? static_cast<size_t>(received) : errno == EMSGSIZE ? HOST_WIRE_MAX_DATAGRAM : 0;
  if (came > slot->buffer_used) slot->buffer_used = came;
  return received < 0 ? 0 : came;
}

// Receives by the socket until there is the token's reply, whole, in the slot's buffer. Returns 0 or an error number.
int receive_by_socket(Slot *slot, uint32_t token) {
  const host::Deadline deadline = host::Deadline::in_ms(slot->receive_limit_ms);
  for (bool first = true;; first = false) {
    const size_t size = receive_datagram(slot, deadline, first);
    if (size == 0) return errno;
    if (!host::is_reply(slot->buffer, size)) return EPROTO;
    const uint32_t of = header_of(slot).token;
    if (of == token) return 0;
    // An answer too many to an earlier request is no answer to this one, and no reason to give it up.
    if (!mts::is_earlier(of, token)) return EPROTO;
  }
}

// The same by the channel, where nothing can be left of an earlier exchange.
int receive_by_channel(Slot *slot, uint32_t token) {
  slot->buffer_used = mts::copy_answer(slot);
  return host::is_reply(slot->buffer, slot->buffer_used) && header_of(slot).token == token ? 0 : EPROTO;
}

int receive_datagram_of(Slot *slot, uint32_t token) {
  if (slot->by_channel) {
    if (const int error = mts::await_answer(slot); error != 0) return error;
    if (!mts::answer_is_on_socket(slot)) return receive_by_channel(slot, token);
  }
  const bool looked_at = !slot->by_channel && ticks() - slot->sent_at <= kNoTimeForAnything;
  return looked_at || mts::owns_socket(slot) ? receive_by_socket(slot, token) : EBADF;
}

// Receives the reply and stores it in `reply`, whose payload is a heap block of its own. Returns 0 or an error number;
// only without memory can the connection be used again.
int receive_reply(Slot *slot, Message *reply) {
  if (const int error = receive_datagram_of(slot, reply->token); error != 0) return error;
  const HostWireHeader header = header_of(slot);
  if (header.opcode != slot->opcode || header.payload_size < sizeof(KsResult)) return EPROTO;
  const uint8_t *payload = slot->buffer + sizeof header;
  if (!has_shape(slot, payload, header.payload_size)) return EBADMSG;

  reply->payload = malloc(header.payload_size);
  if (reply->payload == nullptr) return ENOMEM;
  memcpy(reply->payload, payload, header.payload_size);
  reply->payload_size = header.payload_size;
  return 0;
}

}  // namespace

// `mode`, `first` and `third` choose between services on platforms that have several. Here there is one.
KS_EXPORT uint32_t mts_bind(uint32_t, uint32_t, const KsBindTemplate *bind, uint32_t) {
  mts::forget_failure();
  if (bind == nullptr) return failed_call(EINVAL);
  mts::use_service_path();
  Slot *slot = mts::take();
  if (slot == nullptr) return failed_take(errno);
  // Always a new greeting, so that success means a service that answers now.
  host::Obstacle obstacle = {};
  const int error = mts::open(slot, &obstacle) ? 0 : errno;
  mts::give_back(slot);
  if (error != 0) return failed(Step::kConnect, error, mts::service_path(), 0, obstacle);
  const uint32_t queue = queue_of(bind->app_uuid);
  return queue == MTS_FAILED ? failed_call(ENOSPC) : queue;
}

KS_EXPORT uint32_t mts_send(uint32_t queue, uint32_t node, uint32_t sap, uint32_t opcode, const void *descriptor,
                            uint32_t descriptor_size, KsMtsMessage *sent, uint32_t, const KsSendOptions *options) {
  mts::forget_failure();
  Request request = {};
  if (!find_queue(queue, &request.header.app_uuid)) return failed_call(EBADF);
  if (sent == nullptr) return failed_call(EINVAL);
  request.header.magic = HOST_WIRE_MAGIC;
  request.header.version = HOST_WIRE_VERSION;
  request.header.opcode = opcode;
  request.header.node = node;
  request.header.sap = sap;
  request.descriptor = descriptor;
  if (options != nullptr) {
    request.sections = options->sections;
    request.section_count = options->section_count;
  }
  if (const int error = measure(&request, descriptor_size); error != 0) return failed_call(error);

  Slot *slot = mts::take();
  if (slot == nullptr) return failed_take(errno);
  expect_reply(slot, request);
  request.header.token = mts::next_token(slot);
  const Attempt attempt = send_on(slot, request);
  if (attempt.error != 0) {
    failed_send(slot, attempt, request);
    if (attempt.error == ETIMEDOUT || had_ended(attempt.error)) {
      mts::close_and_give_back(slot);
    } else {  // the request's fault, not the connection's
      mts::give_back(slot);
    }
    return MTS_FAILED;
  }
  slot->sent_at = ticks();
  mts::await_reply(slot);
  store({.kind = host::kSentMessage,
         .token = request.header.token,
         .payload_size = 0,
         .opcode = opcode,
         .payload = nullptr},
        sent);
  return 0;
}

KS_EXPORT uint32_t mts_rr_token_get(const KsMtsMessage *sent) {
  return sent == nullptr ? 0 : load(sent).token;
}

KS_EXPORT uint32_t mts_recv(uint32_t queue, KsMtsMessage *received, const KsRecvOptions *options) {
  uint32_t app_uuid;
  if (!find_queue(queue, &app_uuid)) return failed_call(EBADF);
  if (received == nullptr || options == nullptr) return failed_call(EINVAL);
  Slot *slot = mts::resume(options->token);
  if (slot == nullptr) return failed_call(EINVAL);

  Message reply = {.kind = host::kReceivedMessage,
                   .token = options->token,
                   .payload_size = 0,
                   .opcode = slot->opcode,
                   .payload = nullptr};
  const int error = receive_reply(slot, &reply);
  if (error != 0) failed_receive(slot, error);
  if (error != 0 && error != ENOMEM) {
    mts::close_and_give_back(slot);  // what may still come on it is nobody's
    return MTS_FAILED;
  }
  mts::give_back(slot);
  if (error != 0) return MTS_FAILED;
  store(reply, received);
  return 0;
}

KS_EXPORT const void *mts_payload_get(const KsMtsMessage *received) {
  return received == nullptr ? nullptr : load(received).payload;
}

KS_EXPORT uint32_t mts_payload_size(const KsMtsMessage *received) {
  return received == nullptr ? 0 : load(received).payload_size;
}

KS_EXPORT void mts_drop(uint32_t, KsMtsMessage *message) {
  if (message == nullptr) return;
  const Message dropped = load(message);
  if (dropped.kind == host::kSentMessage) {
    // Usually nothing: the reply is in. A request whose reply nobody waited for ends its connection.
    if (Slot *slot = mts::resume(dropped.token)) mts::close_and_give_back(slot);
  } else if (dropped.kind == host::kReceivedMessage) {
    explicit_bzero(dropped.payload, dropped.payload_size);  // a reply may hold what a secret stands for
    free(dropped.payload);
  } else {
    return;
  }
  store({.kind = host::kDroppedMessage, .token = 0, .payload_size = 0, .opcode = 0, .payload = nullptr}, message);
}

KS_EXPORT uint32_t mts_errno_get(uint32_t) {
  return mts::last_failure.error;
}
