// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "server/connection.h"

#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <new>

#include "base/pass_file.h"
#include "host_datagram.h"

namespace ksd::server {
namespace {

// The buffer for requests is never part of a core, and costs only the pages that requests touch.
uint8_t *map_buffer() {
  void *memory =
      mmap(nullptr, HOST_WIRE_MAX_DATAGRAM, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (memory == MAP_FAILED) throw std::bad_alloc();
  madvise(memory, HOST_WIRE_MAX_DATAGRAM, MADV_DONTDUMP);
  return static_cast<uint8_t *>(memory);
}

void set_timeout(int socket, int option, uint32_t limit_ms) {
  const timeval limit{.tv_sec = limit_ms / 1000, .tv_usec = static_cast<suseconds_t>(limit_ms % 1000) * 1000};
  setsockopt(socket, SOL_SOCKET, option, &limit, sizeof limit);
}

// The largest reply has to fit whatever the system's default is.
void make_room_for_replies(int socket) {
  constexpr int needed = 2 * (6 + UINT16_MAX + static_cast<int>(sizeof(HostWireHeader)));
  int size = 0;
  socklen_t length = sizeof size;
  if (getsockopt(socket, SOL_SOCKET, SO_SNDBUF, &size, &length) == 0 && size < needed) {
    setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &needed, sizeof needed);
  }
}

std::vector<gid_t> further_groups_of(int socket) {
  std::vector<gid_t> groups(64);
  while (true) {
    auto size = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
    const int result = getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &size);
    if (result < 0 && errno != ERANGE) return {};
    const bool enough = result == 0;
    groups.resize(size / sizeof(gid_t));
    if (enough) return groups;
  }
}

}  // namespace

std::optional<Peer> peer_of(int socket) {
  ucred credentials{};
  socklen_t size = sizeof credentials;
  if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &size) < 0) return std::nullopt;
  return Peer{credentials.uid, credentials.gid, credentials.pid, further_groups_of(socket)};
}

Connection::Connection(handlers::Service &service, const handlers::Dispatcher &dispatcher, const Desk &desk,
                       const CurrentConfig &current_config, Channels &channels, int socket, User &user,
                       const Peer &peer)
    : service_(service),
      dispatcher_(dispatcher),
      desk_(desk),
      current_config_(current_config),
      channels_(channels),
      user_(user),
      socket_(socket),
      peer_(peer),
      config_generation_(current_config.generation()),
      config_(current_config.snapshot()),
      caller_(config_->identify(peer_.uid, peer_.gid, peer_.pid, peer_.further_groups)),
      buffer_(map_buffer()) {
  make_room_for_replies(socket_);
  set_timeout(socket_, SO_SNDTIMEO, config_->send_limit_ms);
  set_timeout(socket_, SO_RCVTIMEO, config_->silence_limit_ms);
}

Connection::~Connection() {
  munmap(buffer_, HOST_WIRE_MAX_DATAGRAM);
}

void Connection::serve() {
  while (const std::optional<size_t> sent_size = receive()) {
    const size_t received = std::min<size_t>(*sent_size, HOST_WIRE_MAX_DATAGRAM);
    const Frame frame = read_frame({buffer_, received}, *sent_size);
    const handlers::Row *row = frame.verdict == Verdict::kGood ? dispatcher_.find(frame.header.opcode) : nullptr;
    const bool timed = is_timed(row);
    const Clock::time_point arrived = timed ? Clock::now() : Clock::time_point();
    Share::Pass pass(share_for(frame, row));
    const Next next = answer(frame);
    if (timed) service_.latencies.add(row->opcode, Clock::now() - arrived);
    const bool answered = next == Next::kAnswer && send(frame.header, pass);
    cleanse(received);
    if (!answered) return;
    waits_at_channel_ = seat_.has_value();
  }
}

// A change waits for the disk more than it works, and those that wait together share one commit: it counts apart. What
// an administrator asks of the service waits for no turn, least of all behind changes that a disk holds up; but the
// parts of a backup, which are work, do.
Share *Connection::share_for(const Frame &frame, const handlers::Row *row) {
  const bool takes_turns = frame.header.opcode == HOST_OP_HELLO || frame.header.opcode == HOST_OP_NEXT_BACKUP_PART;
  if (row == nullptr && caller_.administrator && !takes_turns) return nullptr;
  if (row == nullptr || row->work != handlers::Work::kChange) return &user_.requests;
  return &user_.changes_of(frame.message.size());
}

// Reading the clock twice is 1 % of an exchange, which a commit doesn't notice.
bool Connection::is_timed(const handlers::Row *row) const {
  constexpr uint64_t kOneOf = 16;
  if (row == nullptr) return false;
  if (row->work == handlers::Work::kChange) return true;
  return (user_.messages.done(row->opcode) + user_.messages.failed(row->opcode)) % kOneOf == 0;
}

// receive gives the size that the next datagram had when it was sent, or nothing when there will be none. Descriptors
// sent along are dropped by the kernel, since no room is offered for them.
std::optional<size_t> Connection::receive() {
  return waits_at_channel_ ? receive_by_channel() : receive_by_socket();
}

std::optional<size_t> Connection::receive_by_socket() {
  while (true) {
    const ssize_t size = host::receive_datagram(socket_, buffer_, HOST_WIRE_MAX_DATAGRAM, MSG_TRUNC);
    if (size > 0 || (size == 0 && !peer_left())) {
      if (silent_so_far_) set_timeout(socket_, SO_RCVTIMEO, 0);
      silent_so_far_ = false;
      return static_cast<size_t>(size);
    }
    if (size < 0 && errno == EINTR) continue;
    if (size < 0 && errno == EAGAIN && sessions_.are_open()) {
      end_sessions();
      continue;
    }
    if (size < 0 && errno == EAGAIN) complain(LogLimiter::Kind::kSilent, "connected and said nothing");
    return std::nullopt;
  }
}

std::optional<size_t> Connection::receive_by_channel() {
  while (true) {
    const Channel::Arrival arrival = channel_->wait({buffer_, HOST_WIRE_MAX_DATAGRAM}, wait_limit());
    came_by_channel_ = arrival.came == Channel::Came::kRequest;
    if (came_by_channel_) return arrival.sent_size;
    if (arrival.came == Channel::Came::kEnd) return std::nullopt;
    if (arrival.came == Channel::Came::kNothing) {
      end_sessions();
      continue;
    }
    if (arrival.came == Channel::Came::kOnSocket) {
      // It was sent before it was told of here.
      const ssize_t size = host::receive_datagram(socket_, buffer_, HOST_WIRE_MAX_DATAGRAM, MSG_TRUNC | MSG_DONTWAIT);
      if (size > 0) return static_cast<size_t>(size);
    }
    service_.counters.add(Event::kMalformed);
    complain(LogLimiter::Kind::kMalformed, "plays with the memory of its channel; closing its connection");
    return std::nullopt;
  }
}

// How long may be waited for a request while something is kept for the client.
std::optional<std::chrono::milliseconds> Connection::wait_limit() const {
  if (!sessions_are_awaited_) return std::nullopt;
  return std::chrono::milliseconds(config_->receive_limit_ms);
}

void Connection::end_sessions() {
  const char *what = sessions_.backup.is_open() ? "left its backup unread; it was ended"
                                                : "didn't go on with what it had begun for the fleet; it was ended";
  sessions_.backup.end();
  sessions_.fleet.end();
  wait_for_sessions();
  complain(LogLimiter::Kind::kBackups, what);
}

// An empty datagram and the end of the connection both read as 0 bytes.
bool Connection::peer_left() const {
  pollfd state{.fd = socket_, .events = POLLRDHUP, .revents = 0};
  return poll(&state, 1, 0) != 0;
}

Connection::Next Connection::answer(const Frame &frame) {
  switch (frame.verdict) {
    case Verdict::kGood:
      break;
    case Verdict::kMalformed:
      service_.counters.add(Event::kMalformed);
      complain(LogLimiter::Kind::kMalformed, "sent a malformed datagram");
      reply_.result(KS_INVALID_ARGS);
      return Next::kAnswer;
    case Verdict::kTooLarge:
      service_.counters.add(Event::kTooLarge);
      complain(LogLimiter::Kind::kTooLarge, "sent a datagram above the largest size");
      reply_.result(KS_RPC_TOO_LARGE);
      return Next::kAnswer;
    case Verdict::kWrongVersion:
      service_.counters.add(Event::kMalformed);
      complain(LogLimiter::Kind::kMalformed, "speaks another version of the protocol");
      reply_.result(KS_VERSION_MISMATCH);
      return Next::kAnswer;
    case Verdict::kForeign:
      service_.counters.add(Event::kForeignDatagram);
      complain(LogLimiter::Kind::kForeignDatagram, "speaks another protocol; closing its connection");
      return Next::kHangUp;
  }

  try {
    answer_request(frame);
  } catch (const std::bad_alloc &) {
    reply_.result(KS_NO_MEMORY);
  }
  return Next::kAnswer;
}

void Connection::answer_request(const Frame &frame) {
  follow_configuration();
  if (frame.header.opcode == HOST_OP_HELLO) return answer_hello(frame);
  if (frame.header.opcode == HOST_OP_CHANNEL) return answer_channel(frame);
  if (!seat_) channel_.reset();  // the client goes on without it
  const handlers::Request request{frame.header.opcode, frame.message, frame.header.descriptor_size, caller_};
  if (frame.header.opcode < kFirstOpcode && desk_.answer(request, sessions_, reply_)) return wait_for_sessions();
  if (!dispatcher_.answer(service_, request, reply_)) {
    return complain(LogLimiter::Kind::kUnknownOpcode, "sent an unknown opcode");
  }
  user_.messages.add(frame.header.opcode, reply_.code() == KS_SUCCESS);
}

// wait_for_sessions bounds how long what an administrator has begun is kept for a client that doesn't go on: as long as
// clients wait.
void Connection::wait_for_sessions() {
  if (sessions_.are_open() == sessions_are_awaited_) return;
  sessions_are_awaited_ = sessions_.are_open();
  set_timeout(socket_, SO_RCVTIMEO, sessions_are_awaited_ ? config_->receive_limit_ms : 0);
}

void Connection::answer_hello(const Frame &frame) {
  if (!frame.message.empty()) return reply_.result(KS_INVALID_ARGS);
  HostHelloReply hello{};
  hello.result = KS_SUCCESS;
  hello.vdc_id = caller_.vdc_id.value_or(HOST_NO_VDC);
  hello.receive_limit_ms = config_->receive_limit_ms;
  hello.service_version = KSD_VERSION_MAJOR * 256 + KSD_VERSION_MINOR;
  if (config_->limits.channels > 0) hello.offers |= HOST_OFFERS_CHANNEL;
  const std::string uri = config_->cache_uri_of(caller_);
  std::snprintf(hello.running_cfg_uri, sizeof hello.running_cfg_uri, "%s", uri.c_str());
  reply_.record(hello);
}

// Two steps, so that all goes on by the socket when the client can't have the memory, and both ends know it.
void Connection::answer_channel(const Frame &frame) {
  HostChannelDescriptor wanted{};
  if (frame.message.size() != sizeof wanted || seat_) return reply_.result(KS_INVALID_ARGS);
  std::memcpy(&wanted, frame.message.data(), sizeof wanted);
  const uint32_t limit = config_->limits.channels;
  if (wanted.step == HOST_CHANNEL_MAKE && !channel_) {
    if (channels_.count() < limit) channel_ = Channel::make(file_to_pass_);
    if (!channel_) return reply_.result(KS_NO_MEMORY);
  } else if (wanted.step == HOST_CHANNEL_USE && channel_) {
    channels_.enter(socket_, *channel_, limit, seat_);
    if (!seat_) return reply_.result(KS_NO_MEMORY);
  } else {
    return reply_.result(KS_INVALID_ARGS);
  }
  reply_.record(HostChannelReply{.result = KS_SUCCESS, .size = sizeof(HostChannel)});
}

// send sends the reply that has been made.
bool Connection::send(const HostWireHeader &request, Share::Pass &pass) {
  HostWireHeader header = request;
  header.magic = HOST_WIRE_MAGIC;
  header.version = HOST_WIRE_VERSION;
  header.descriptor_size = 0;
  header.payload_size = static_cast<uint32_t>(reply_.payload().size());
  reply_.header(header);
  const std::span<uint8_t> datagram = reply_.datagram();
  // What came by the socket is answered there, where the client waits.
  if (!came_by_channel_) return send_by_socket(datagram, pass);
  if (Channel::has_room_for(datagram.size())) return channel_->reply(datagram);
  return send_by_socket(datagram, pass) && channel_->reply_on_socket();
}

// It may wait for a client that is slow to read, but not for ever, and not at the cost of the user's other work.
bool Connection::send_by_socket(std::span<const uint8_t> datagram, Share::Pass &pass) {
  int flags = MSG_NOSIGNAL | MSG_DONTWAIT;
  while (!send_once(datagram, flags)) {
    if (errno == EINTR) continue;
    if (errno != EAGAIN) return false;
    if ((flags & MSG_DONTWAIT) == 0) {
      service_.counters.add(Event::kUnread);
      complain(LogLimiter::Kind::kUnread, "doesn't read its replies; closing its connection");
      return false;
    }
    pass.give_back();
    flags = MSG_NOSIGNAL;
  }
  return true;
}

// Sends the datagram with the file that is to be passed, if there is one.
bool Connection::send_once(std::span<const uint8_t> datagram, int flags) {
  if (!file_to_pass_) return host::send_datagram(socket_, datagram.data(), datagram.size(), flags) >= 0;
  const bool sent = send_with_file(socket_, datagram, file_to_pass_.get(), flags) >= 0;
  if (!sent && errno != ETOOMANYREFS) return false;
  file_to_pass_ = UniqueFd();
  return sent || send_once(datagram, flags);  // too many files are on their way: the reply goes alone
}

// Requests and replies carry secrets; none outlives its exchange.
void Connection::cleanse(size_t received) {
  explicit_bzero(buffer_, received);
  const std::span<uint8_t> datagram = reply_.datagram();
  explicit_bzero(datagram.data(), datagram.size());
  reply_.reset();
}

// A reload counts for connections that are open already: a user who lost a VDC loses it now.
void Connection::follow_configuration() {
  const uint64_t generation = current_config_.generation();
  if (generation == config_generation_) return;
  config_generation_ = generation;
  config_ = current_config_.snapshot();
  caller_ = config_->identify(peer_.uid, peer_.gid, peer_.pid, peer_.further_groups);
}

void Connection::complain(LogLimiter::Kind kind, const char *what) {
  service_.log_limiter.warn(kind, peer_.uid, "user {} (pid {}) {}", peer_.uid, peer_.pid, what);
}

}  // namespace ksd::server
