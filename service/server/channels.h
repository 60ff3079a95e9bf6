// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// channels.h: the channels that are in use. Their threads don't wait at the socket, so somebody has to tell them when
// it ends.
#ifndef SERVICE_SERVER_CHANNELS_H
#define SERVICE_SERVER_CHANNELS_H

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>

#include "base/fd.h"
#include "server/channel.h"

namespace ksd::server {

// Channels counts the channels and ends those whose client has gone. watched, end_those_left and end_all are for one
// thread, all else is for any.
class Channels {
 public:
  // Throws std::runtime_error when the system has no way of watching.
  Channels();

  // Seat is a channel's place, until it goes.
  class Seat {
   public:
    Seat(Channels &channels, int socket, uint64_t id) : channels_(channels), socket_(socket), id_(id) {}
    ~Seat() { channels_.leave(socket_, id_); }
    Seat(const Seat &) = delete;
    Seat &operator=(const Seat &) = delete;

   private:
    Channels &channels_;
    const int socket_;
    const uint64_t id_;
  };

  // enter gives the channel of that connection a seat, which goes before channel and socket do; none when `limit` are
  // taken or the service ends.
  void enter(int socket, Channel &channel, uint32_t limit, std::optional<Seat> &out_seat) noexcept;

  uint32_t count();

  // watched becomes readable when there is something for end_those_left to do, which gives whether it is to be called
  // again soon, because some that were to end haven't yet.
  int watched() const { return watched_.get(); }
  bool end_those_left() noexcept;

  // end_all ends all of them, and lets no further ones in. To be called again until all have ended.
  void end_all() noexcept;

 private:
  struct Entry {
    Channel *channel;
    bool ending = false;
  };

  void leave(int socket, uint64_t id) noexcept;

  const UniqueFd watched_;
  std::mutex mutex_;
  std::map<uint64_t, Entry> entries_;  // by a number that is never given again, unlike a socket's
  uint64_t next_id_ = 0;
  size_t ending_ = 0;  // entries that are
  bool closed_ = false;
};

}  // namespace ksd::server

#endif
