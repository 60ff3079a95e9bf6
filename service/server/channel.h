// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// channel.h: the service's end of a channel: memory that is shared with one client, through which the exchanges of its
// connection go.
#ifndef SERVICE_SERVER_CHANNEL_H
#define SERVICE_SERVER_CHANNEL_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>

#include "base/bytes.h"
#include "base/fd.h"
#include "host_wire.h"

namespace ksd::server {

// Channel believes nothing that the client may write: each number is read once and checked, a request is copied before
// it is looked at, and what the service writes it never reads back. A client that takes pages out of the memory where
// the machine has none for new ones ends its own connection (SIGBUS is caught). All but `end` is for the thread of the
// connection.
class Channel {
 public:
  // make gives a channel and, in `out_file`, what the client maps; none when the system has no room for one.
  static std::unique_ptr<Channel> make(UniqueFd &out_file) noexcept;

  // Of memory that is mapped, and of this size, for as long as the object lives.
  explicit Channel(HostChannel *memory) : memory_(memory) {}
  // ~Channel tells the client that nobody looks any more, and gives the memory back.
  ~Channel();
  Channel(const Channel &) = delete;
  Channel &operator=(const Channel &) = delete;

  // Came is what a wait ended with.
  enum class Came {
    kRequest,   // it is in the buffer, as far as that has room
    kOnSocket,  // it was sent on the socket
    kNothing,   // the limit has passed
    kEnd,       // the connection is over
    kNonsense,  // the client plays with the memory
  };
  struct Arrival {
    Came came;
    size_t sent_size = 0;  // of a request, as the client tells it; of one that the area has no room for, too much
  };
  Arrival wait(std::span<uint8_t> buffer, std::optional<std::chrono::milliseconds> limit) noexcept;

  // reply hands over the reply to the request that came last, if the area has room for it. reply_on_socket is for one
  // that was sent on the socket. Both give false when the memory can't be used.
  static bool has_room_for(size_t size) { return size <= sizeof(HostChannel::reply_area); }
  bool reply(Bytes datagram) noexcept;
  bool reply_on_socket() noexcept { return announce(HOST_CHANNEL_ON_SOCKET); }

  // end has the connection end, from another thread: what the client has asked before is answered still. It may have to
  // be called again until the connection has ended: a client can undo what it does once.
  void end() noexcept;

 private:
  Arrival take(uint32_t word, std::span<uint8_t> buffer) noexcept;
  bool announce(uint32_t size) noexcept;

  HostChannel *const memory_;
  uint32_t answered_ = 0;  // the serial number of the request that came last
  std::atomic<bool> ending_{false};
};

}  // namespace ksd::server

#endif
