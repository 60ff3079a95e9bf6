// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// users.h: who is connected, with how many connections, and how fast new ones come.
#ifndef SERVICE_SERVER_USERS_H
#define SERVICE_SERVER_USERS_H

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>

#include "base/caller.h"
#include "base/counters.h"
#include "config/config.h"
#include "server/crowd.h"
#include "server/gate.h"

namespace ksd::server {

struct Session;  // a connection from its acceptance to its end (server.h)

using Clock = std::chrono::steady_clock;

// Allowance lets so much through in a second, and a tenth of that at once.
class Allowance {
 public:
  // take takes one, if there is one.
  bool take(uint32_t per_second, Clock::time_point now);

  // wait_for_one is how long it takes until there is one. To be asked when take gave none.
  std::chrono::nanoseconds wait_for_one(uint32_t per_second) const;

  bool is_untouched(uint32_t per_second, Clock::time_point now);

 private:
  void fill(uint32_t per_second, Clock::time_point now);

  Clock::time_point filled_at_{};
  double left_ = 0;
};

// shared_requests is how many requests of one user are computed at once while others are connected.
uint32_t shared_requests(const config::Limits &limits);

// Rank decides which places a connection may take.
enum class Rank { kUnmapped, kMapped, kAdministrator };
Rank rank_of(const Caller &caller);

// User is what is counted for one user, or for all users without a VDC together: their numbers cost nothing, since
// whoever may make containers has thousands of them.
struct User {
  User(uint32_t requests_shared, uint32_t changes_shared, const std::atomic<bool> &crowded);

  // changes_of gives the share that a change of so many bytes counts for.
  Share &changes_of(size_t size) { return size > kLargeChange ? large_changes : changes; }

  // What the changes of others wait for is how much is written before them, so there are fewer large ones at a time.
  static constexpr size_t kLargeChange = 4096;

  Share requests;
  Share changes;
  Share large_changes;
  Allowance connects;
  uint32_t connections = 0;
  Caller last;             // who connected last
  Queue<Session> waiting;  // for a thread
  User *next = nullptr;    // whose turn is after this one's

  // On lines of its own: the threads of the user's connections write it with each request.
  alignas(64) MessageCounts messages;
};

// Users finds each user, and counts the places that are taken. Callers see to it that one thread is in it at a time.
class Users {
 public:
  // Place is the right to a connection. `user` is there for as long as the place is taken.
  struct Place {
    User *user = nullptr;    // none: refused
    const char *why = "";    // then, for the log
    const char *whose = "";  // of the fuller of the user's and all places, with what is taken and what there is
    const char *key = "";    // and the name of that limit in the configuration
    uint32_t used = 0;
    uint32_t limit = 0;
  };

  // take gives the caller a place, or says why there is none. Throws std::bad_alloc, and has done nothing then.
  Place take(const Caller &caller, const config::Limits &limits, Clock::time_point now);
  void give_back(User &user, Rank rank);

  size_t known() const { return users_.size(); }  // those who have gone lately too
  uint32_t all() const { return taken_[0] + taken_[1] + taken_[2]; }
  Places places() const;
  std::vector<Visitor> visitors(uid_t from, size_t most) const;
  const User *find(uid_t uid) const;

  // check_crowd looks whether one user alone has been connected for a while. While several are, it is to be called from
  // time to time; says whether that is so.
  bool check_crowd(Clock::time_point now);

 private:
  const char *why_not(Rank rank, const User &user, const config::Limits &limits) const;
  User &user_of(const Caller &caller, const config::Limits &limits, Clock::time_point now);
  void forget_the_gone(const config::Limits &limits, Clock::time_point now);
  uint32_t &taken(Rank rank) { return taken_[static_cast<size_t>(rank)]; }
  uint32_t taken(Rank rank) const { return taken_[static_cast<size_t>(rank)]; }

  std::map<uid_t, std::unique_ptr<User>> users_;
  uint32_t taken_[3] = {};
  uint32_t connected_ = 0;  // users, that is
  std::atomic<bool> crowded_{false};
  Clock::time_point crowded_until_{};
  size_t forget_above_ = 64;
};

}  // namespace ksd::server

#endif
