// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// server.h: the connections that are open, who holds them, and the threads that serve them.
#ifndef SERVICE_SERVER_SERVER_H
#define SERVICE_SERVER_SERVER_H

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <set>

#include "base/fd.h"
#include "handlers/dispatch.h"
#include "handlers/service.h"
#include "server/administration.h"
#include "server/channels.h"
#include "server/connection.h"
#include "server/users.h"

namespace ksd::server {

// Session is a connection from its acceptance to its end.
struct Session {
  UniqueFd socket;
  Peer peer;
  Rank rank = Rank::kUnmapped;
  User *user = nullptr;
  Session *next = nullptr;  // in the queue of its user
};

// Server gives each connection a thread of its own: one whose last connection has ended, where there is one. A thread
// that has just begun comes to a processor after all that want one already; one that has waited comes before them. On
// a machine with hundreds of busy threads that is the difference between half a second and half a millisecond. admit,
// start_next and finish are for one thread, which accepts.
class Server : private Crowd {
 public:
  // All of them outlive it. Without an administration there are no messages for administrators.
  Server(handlers::Service &service, const CurrentConfig &current_config, Administration *administration = nullptr)
      : service_(service), current_config_(current_config), desk_{administration, *this} {}
  ~Server() override { finish(); }
  Server(const Server &) = delete;
  Server &operator=(const Server &) = delete;

  // admit takes in a new connection, or closes it when its opener or all together have too many. It does nothing that
  // takes long, so that whoever connects often keeps nobody else from being accepted.
  void admit(UniqueFd socket) noexcept;

  // start_next gives a thread to one connection that was taken in: the users take turns, and none has more of them in a
  // second than the configuration allows. Gives the time after which it is to be called again, if not at the next
  // admission.
  std::optional<std::chrono::nanoseconds> start_next() noexcept;

  // channels_watched becomes readable when a client with a channel has gone, which end_channels then looks after. It
  // gives the time after which it is to be called again, if not then.
  int channels_watched() const { return channels_.watched(); }
  std::optional<std::chrono::nanoseconds> end_channels() noexcept;

  // finish lets every connection answer what it has received, then ends it, and returns when the last has ended.
  // Connections that aren't through within the configuration's stop_limit_ms are closed as they are.
  void finish();

 private:
  // Idle is a thread that waits for another connection.
  struct Idle {
    std::condition_variable called;
    Session *session = nullptr;
    Idle *next = nullptr;
  };

  Users::Place take_place(const Caller &caller, int socket);
  void give_place_back(const Session &session);
  void start(std::unique_ptr<Session> session) noexcept;
  void refuse(const Caller &caller, const char *why) noexcept;
  void note_use(const Caller &caller, const Users::Place &place) noexcept;
  bool give_to_idle(std::unique_ptr<Session> &session) noexcept;
  void work(Session *session) noexcept;
  void note_unmapped(const Caller &caller, const config::Config &config) noexcept;
  void serve(Session *session) noexcept;
  Session *wait_for_another() noexcept;

  Places places() override;
  std::vector<Visitor> visitors(uid_t from, size_t most) override;
  std::optional<MessageCountList> messages_of(uid_t uid) override;

  handlers::Service &service_;
  const CurrentConfig &current_config_;
  const handlers::Dispatcher dispatcher_;
  const Desk desk_;
  LogLimiter unmapped_log_{16};  // a small one of its own: their numbers cost nothing
  Channels channels_;
  Queue<User> turns_;  // those who have connections waiting; of the thread that accepts
  std::mutex mutex_;
  std::condition_variable ended_;
  std::set<int> sockets_;
  uint32_t threads_ = 0;
  Queue<Idle> idle_;
  uint32_t idle_count_ = 0;
  Users users_;
  bool finishing_ = false;
};

}  // namespace ksd::server

#endif
