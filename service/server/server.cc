// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "server/server.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <system_error>
#include <thread>

namespace ksd::server {
namespace {

// Nothing tells when the last of several users has been gone for long enough, so it is looked for in between.
constexpr std::chrono::seconds kLookForCrowd{5};

// How soon a channel whose client undoes what is to end it is ended again.
constexpr std::chrono::milliseconds kEndAgain{10};

// How many threads wait for a connection, at most.
constexpr uint32_t kMostIdle = 16;

// Whether the other end has closed and left nothing to be read. Such a connection needs no thread.
bool has_gone(int socket) {
  pollfd state{.fd = socket, .events = POLLIN | POLLRDHUP, .revents = 0};
  char byte;
  return poll(&state, 1, 0) == 1 && (state.revents & (POLLRDHUP | POLLHUP)) != 0 &&
         recv(socket, &byte, sizeof byte, MSG_PEEK | MSG_DONTWAIT) <= 0;
}

// What is logged of users without a VDC counts for all of them together, as they themselves do.
uid_t logged_as(const Caller &caller) {
  return rank_of(caller) == Rank::kUnmapped ? static_cast<uid_t>(-1) : caller.counted_as;
}

}  // namespace

void Server::admit(UniqueFd socket) noexcept {
  Caller caller;
  try {
    std::optional<Peer> peer = peer_of(socket.get());
    if (!peer) return;
    caller.uid = peer->uid;
    const std::shared_ptr<const config::Config> config = current_config_.snapshot();
    caller = config->identify(peer->uid, peer->gid, peer->pid, peer->further_groups);
    // All memory is taken before the place is.
    std::unique_ptr<Session> session(new Session{std::move(socket), std::move(*peer), rank_of(caller)});
    const Users::Place place = take_place(caller, session->socket.get());
    if (place.user == nullptr) return refuse(caller, place.why);
    note_use(caller, place);
    if (rank_of(caller) == Rank::kUnmapped) note_unmapped(caller, *config);

    session->user = place.user;
    if (place.user->waiting.empty()) turns_.push(*place.user);
    place.user->waiting.push(*session.release());
  } catch (const std::bad_alloc &) {
    refuse(caller, "there is no memory");
  }
}

std::optional<std::chrono::nanoseconds> Server::start_next() noexcept {
  const uint32_t per_second = current_config_.snapshot()->limits.connects_per_second;
  const Clock::time_point now = Clock::now();
  std::optional<std::chrono::nanoseconds> wait;
  {
    const std::lock_guard lock(mutex_);
    if (users_.check_crowd(now)) wait = kLookForCrowd;
  }
  Queue<User> without_allowance;
  bool did_one = false;
  while (!did_one && !turns_.empty()) {
    User &user = turns_.pop();
    const bool gone = has_gone(user.waiting.first()->socket.get());
    if (!gone && !user.connects.take(per_second, now)) {
      wait = std::min(wait.value_or(kLookForCrowd), user.connects.wait_for_one(per_second));
      without_allowance.push(user);
      continue;
    }
    did_one = true;
    std::unique_ptr<Session> session(&user.waiting.pop());
    if (!user.waiting.empty()) turns_.push(user);  // the user's next turn is after those of all others
    if (gone) {
      give_place_back(*session);
    } else {
      start(std::move(session));
    }
  }
  if (did_one && !turns_.empty()) wait = std::chrono::nanoseconds(0);
  while (!without_allowance.empty()) turns_.push(without_allowance.pop());
  return wait;
}

void Server::finish() {
  while (!turns_.empty()) {
    User &user = turns_.pop();
    while (!user.waiting.empty()) start(std::unique_ptr<Session>(&user.waiting.pop()));
  }
  std::unique_lock lock(mutex_);
  finishing_ = true;
  while (!idle_.empty()) idle_.pop().called.notify_one();
  // What has arrived is still read and answered; the clients' next sends fail without having been delivered.
  for (const int socket : sockets_) shutdown(socket, SHUT_RD);
  const auto all_ended = [this] { return sockets_.empty() && threads_ == 0; };
  const auto until = Clock::now() + std::chrono::milliseconds(current_config_.snapshot()->stop_limit_ms);
  while (Clock::now() < until) {
    channels_.end_all();
    if (ended_.wait_until(lock, std::min(until, Clock::now() + kEndAgain), all_ended)) return;
  }
  // A client that reads slowly, or not at all, could keep the service for as long as it likes. What it hasn't read by
  // now it doesn't get; what it asked to be stored is stored.
  tell(event::kRepliesNotTaken, "{} connections didn't take their replies in time; closing them", sockets_.size());
  for (const int socket : sockets_) shutdown(socket, SHUT_RDWR);
  while (!ended_.wait_for(lock, kEndAgain, all_ended)) channels_.end_all();
}

std::optional<std::chrono::nanoseconds> Server::end_channels() noexcept {
  if (channels_.end_those_left()) return kEndAgain;
  return std::nullopt;
}

Users::Place Server::take_place(const Caller &caller, int socket) {
  const config::Limits limits = current_config_.snapshot()->limits;
  const Clock::time_point now = Clock::now();
  const std::lock_guard lock(mutex_);
  sockets_.insert(socket);
  try {
    // Made here, and not given another value: GCC 12 leaves out what it began with, and an exception would show that.
    const Users::Place place = users_.take(caller, limits, now);
    if (place.user == nullptr) sockets_.erase(socket);
    return place;
  } catch (const std::bad_alloc &) {
    sockets_.erase(socket);
    return {.why = "there is no memory"};
  }
}

void Server::give_place_back(const Session &session) {
  const std::lock_guard lock(mutex_);
  sockets_.erase(session.socket.get());
  users_.give_back(*session.user, session.rank);
  ended_.notify_all();  // under the lock: the server may be gone as soon as it is free
}

void Server::start(std::unique_ptr<Session> session) noexcept {
  if (give_to_idle(session)) return;
  try {
    std::thread(&Server::work, this, session.get()).detach();
    static_cast<void>(session.release());  // the thread's now
  } catch (const std::exception &) {
    {
      const std::lock_guard lock(mutex_);
      --threads_;
    }
    Caller caller;
    caller.uid = session->peer.uid;
    give_place_back(*session);
    refuse(caller, "there are no more threads");
  }
}

void Server::refuse(const Caller &caller, const char *why) noexcept {
  service_.counters.add(Event::kRefusedConnection);
  service_.log_limiter.warn(LogLimiter::Kind::kRefused, logged_as(caller), "refused a connection of user {}: {}",
                            caller.uid, why);
}

void Server::note_use(const Caller &caller, const Users::Place &place) noexcept {
  service_.counters.add(Event::kConnected);
  if (uint64_t{place.used} * 5 < uint64_t{place.limit} * 4) return;
  service_.log_limiter.warn(LogLimiter::Kind::kNearLimit, logged_as(caller),
                            "user {} connects: {} of {} connections {} are in use ({} under [limits])", caller.uid,
                            place.used, place.limit, place.whose, place.key);
}

// Such a user is served, but whoever expects to keep something is told nothing that leads here.
void Server::note_unmapped(const Caller &caller, const config::Config &config) noexcept try {
  if (const std::optional<uint16_t> vdc = config.only_vdc()) {
    unmapped_log_.warn(
        LogLimiter::Kind::kUnmapped, caller.uid,
        "user {} has no VDC and can keep nothing; add {} to users of the [[vdc]] with id = {} in {}, and "
        "send the service SIGHUP",
        caller.uid, caller.uid, *vdc, config.file);
  } else {
    unmapped_log_.warn(
        LogLimiter::Kind::kUnmapped, caller.uid,
        "user {} has no VDC and can keep nothing; add {} to users of a [[vdc]] in {}, and send the service SIGHUP",
        caller.uid, caller.uid, config.file);
  }
} catch (const std::bad_alloc &) {  // the next connection finds memory for a line
}

// give_to_idle says whether a thread was there for it. Otherwise it counts the one that is to be made.
bool Server::give_to_idle(std::unique_ptr<Session> &session) noexcept {
  const std::lock_guard lock(mutex_);
  if (idle_.empty()) {
    ++threads_;
    return false;
  }
  Idle &thread = idle_.pop();
  --idle_count_;
  thread.session = session.release();
  thread.called.notify_one();  // under the lock: it may be gone as soon as it is free
  return true;
}

void Server::work(Session *session) noexcept {
  for (; session != nullptr; session = wait_for_another()) serve(session);
  const std::lock_guard lock(mutex_);
  --threads_;
  ended_.notify_all();  // under the lock: the server may be gone as soon as it is free
}

// wait_for_another gives the thread's next connection, or none when it is to end.
Session *Server::wait_for_another() noexcept {
  Idle self;
  std::unique_lock lock(mutex_);
  if (finishing_ || idle_count_ == kMostIdle) return nullptr;
  idle_.push(self);
  ++idle_count_;
  self.called.wait(lock, [&] { return self.session != nullptr || finishing_; });
  return self.session;
}

void Server::serve(Session *started) noexcept {
  const std::unique_ptr<Session> session(started);
  try {
    Connection(service_, dispatcher_, desk_, current_config_, channels_, session->socket.get(), *session->user,
               session->peer)
        .serve();
  } catch (const std::exception &) {
    Caller caller;
    caller.uid = session->peer.uid;
    refuse(caller, "there is no memory");
  }
  // First out of the set, then closed: finish must not meet another's socket under the same number.
  give_place_back(*session);
}

Places Server::places() {
  const std::lock_guard lock(mutex_);
  Places places = users_.places();
  places.channels = channels_.count();
  return places;
}

std::vector<Visitor> Server::visitors(uid_t from, size_t most) {
  const std::lock_guard lock(mutex_);
  return users_.visitors(from, most);
}

std::optional<MessageCountList> Server::messages_of(uid_t uid) {
  const std::lock_guard lock(mutex_);
  const User *user = users_.find(uid);
  if (user == nullptr) return std::nullopt;
  return list_of(user->messages);
}

}  // namespace ksd::server
