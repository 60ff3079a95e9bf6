// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// connection.h: one client's connection, served by one thread with blocking calls.
#ifndef SERVICE_SERVER_CONNECTION_H
#define SERVICE_SERVER_CONNECTION_H

#include <optional>
#include <vector>

#include "base/fd.h"
#include "base/log.h"
#include "handlers/dispatch.h"
#include "handlers/service.h"
#include "server/administration.h"
#include "server/channel.h"
#include "server/channels.h"
#include "server/current_config.h"
#include "server/frame.h"
#include "server/users.h"

namespace ksd::server {

// Peer is the opener of a connection, by the kernel's word.
struct Peer {
  uid_t uid = 0;
  gid_t gid = 0;
  pid_t pid = 0;
  std::vector<gid_t> further_groups;
};

// peer_of asks the kernel who opened the connection; nothing when it can't tell.
std::optional<Peer> peer_of(int socket);

// Connection serves one connection. All that it is given outlives it.
class Connection {
 public:
  Connection(handlers::Service &service, const handlers::Dispatcher &dispatcher, const Desk &desk,
             const CurrentConfig &current_config, Channels &channels, int socket, User &user, const Peer &peer);
  ~Connection();

  // serve answers requests until the client leaves, misbehaves beyond repair, or the socket is shut down for reading.
  void serve();

 private:
  // What the thread does after a datagram.
  enum class Next { kAnswer, kHangUp };

  std::optional<size_t> receive();
  std::optional<size_t> receive_by_socket();
  std::optional<size_t> receive_by_channel();
  std::optional<std::chrono::milliseconds> wait_limit() const;
  void end_sessions();
  bool peer_left() const;
  Share *share_for(const Frame &frame, const handlers::Row *row);
  bool is_timed(const handlers::Row *row) const;
  Next answer(const Frame &frame);
  void answer_request(const Frame &frame);
  void wait_for_sessions();
  void answer_hello(const Frame &frame);
  void answer_channel(const Frame &frame);
  bool send(const HostWireHeader &request, Share::Pass &pass);
  bool send_by_socket(std::span<const uint8_t> datagram, Share::Pass &pass);
  bool send_once(std::span<const uint8_t> datagram, int flags);
  void cleanse(size_t received);
  void follow_configuration();
  void complain(LogLimiter::Kind kind, const char *what);

  handlers::Service &service_;
  const handlers::Dispatcher &dispatcher_;
  const Desk &desk_;
  const CurrentConfig &current_config_;
  Channels &channels_;
  User &user_;

  const int socket_;
  const Peer &peer_;
  bool silent_so_far_ = true;

  uint64_t config_generation_ = 0;  // of the two below
  std::shared_ptr<const config::Config> config_;
  Caller caller_;

  uint8_t *const buffer_;  // of the request that is being answered
  handlers::Reply reply_;
  Sessions sessions_;
  bool sessions_are_awaited_ = false;

  // A channel that was made is the client's to use, which takes a seat; from the next request on, it is waited there.
  std::unique_ptr<Channel> channel_;
  std::optional<Channels::Seat> seat_;
  bool waits_at_channel_ = false;
  bool came_by_channel_ = false;  // the request that is being answered
  UniqueFd file_to_pass_;         // with the next reply
};

}  // namespace ksd::server

#endif
