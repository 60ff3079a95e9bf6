#include "server/server.h"

#include <sys/socket.h>

#include <chrono>
#include <system_error>
#include <thread>

namespace ksd::server {

void Server::admit(UniqueFd socket) {
  std::optional<Peer> peer = peer_of(socket.get());
  if (!peer) return;
  const uid_t uid = peer->uid;
  const int number = socket.get();
  if (!take_place(uid, number)) return;
  try {
    std::thread(&Server::serve, this, std::move(socket), std::move(*peer)).detach();
  } catch (const std::system_error &) {
    give_place_back(uid, number);
    refuse(uid, "there are no more threads");
  }
}

void Server::finish() {
  std::unique_lock lock(mutex_);
  finishing_ = true;
  // What has arrived is still read and answered; the clients' next sends fail without having been delivered.
  for (const int socket : sockets_) shutdown(socket, SHUT_RD);
  const auto all_ended = [this] { return sockets_.empty(); };
  if (ended_.wait_for(lock, std::chrono::milliseconds(current_config_.snapshot()->stop_limit_ms), all_ended)) return;
  // A client that reads slowly, or not at all, could keep the service for as long as it likes. What it hasn't read by
  // now it doesn't get; what it asked to be stored is stored.
  spdlog::warn("{} connections didn't take their replies in time; closing them", sockets_.size());
  for (const int socket : sockets_) shutdown(socket, SHUT_RDWR);
  ended_.wait(lock, all_ended);
}

bool Server::take_place(uid_t uid, int socket) {
  const config::Limits limits = current_config_.snapshot()->limits;
  const std::lock_guard lock(mutex_);
  if (finishing_) return false;
  if (sockets_.size() >= limits.connections) {
    refuse(uid, "all together have too many");
    return false;
  }
  uint32_t &of_user = connections_of_[uid];
  if (of_user >= limits.connections_per_user) {
    refuse(uid, "the user has too many");
    return false;
  }
  ++of_user;
  sockets_.insert(socket);
  service_.counters.add(Event::kConnected);
  note_use(uid, "of this user", of_user, limits.connections_per_user);
  note_use(uid, "of all users", static_cast<uint32_t>(sockets_.size()), limits.connections);
  return true;
}

void Server::give_place_back(uid_t uid, int socket) {
  const std::lock_guard lock(mutex_);
  sockets_.erase(socket);
  if (const auto found = connections_of_.find(uid); --found->second == 0) connections_of_.erase(found);
  ended_.notify_all();  // under the lock: the server may be gone as soon as it is free
}

void Server::refuse(uid_t uid, const char *why) {
  service_.counters.add(Event::kRefusedConnection);
  if (const auto held_back = service_.log_limiter.pass(LogLimiter::Kind::kRefused, uid)) {
    spdlog::warn("refused a connection of user {}: {}{}", uid, why, since_last(*held_back));
  }
}

void Server::note_use(uid_t uid, const char *whose, uint32_t used, uint32_t limit) {
  if (uint64_t{used} * 5 < uint64_t{limit} * 4) return;
  if (const auto held_back = service_.log_limiter.pass(LogLimiter::Kind::kNearLimit, uid)) {
    spdlog::warn("user {} connects: {} of {} connections {} are in use{}", uid, used, limit, whose,
                 since_last(*held_back));
  }
}

void Server::serve(UniqueFd socket, Peer peer) {
  const uid_t uid = peer.uid;
  const int number = socket.get();
  try {
    Connection(service_, dispatcher_, current_config_, number, std::move(peer)).serve();
  } catch (const std::bad_alloc &) {
    refuse(uid, "there is no memory");
  }
  // First out of the set, then closed: finish must not meet another's socket under the same number.
  give_place_back(uid, number);
}

}  // namespace ksd::server
