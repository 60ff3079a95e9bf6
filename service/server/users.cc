// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "server/users.h"

#include <algorithm>
#include <thread>

namespace ksd::server {
namespace {

constexpr uid_t kAllUnmapped = HOST_ALL_UNMAPPED;  // nobody's number

// How much of one user's work is done at once when there is nobody to leave room for. A user who comes finds no more
// than this ahead, and what one request costs is bounded.
constexpr uint32_t kRequestsPerProcessor = 4;
constexpr uint32_t kChangesAlone = 64;
constexpr uint32_t kLargeForSmall = 8;  // a large change takes as long to write as so many small ones

// How long several users count as connected after all but one have gone: those who come and go, such as programs that
// run for a moment, find room from the beginning.
constexpr std::chrono::seconds kRoomIsKept{10};

// The last eighth of the places goes to users who have fewer connections than this.
constexpr uint32_t kFew = 8;
constexpr uint32_t kPartForThem = 8;

uint32_t processors() {
  return std::max(1u, std::thread::hardware_concurrency());
}

uint32_t limit_of_one(Rank rank, const config::Limits &limits) {
  if (rank != Rank::kUnmapped) return limits.connections_per_user;
  return std::min(limits.connections_unmapped, limits.connections_per_user);
}

double most_at_once(uint32_t per_second) {
  return std::max(1.0, per_second / 10.0);
}

}  // namespace

uint32_t shared_requests(const config::Limits &limits) {
  return limits.requests_per_user != 0 ? limits.requests_per_user : std::max(1u, processors() - 1);
}

MessageCountList list_of(const MessageCounts &counts) {
  MessageCountList list(kOpcodeCount);
  for (uint32_t i = 0; i < kOpcodeCount; ++i) {
    list[i] = {.done = counts.done(kFirstOpcode + i), .failed = counts.failed(kFirstOpcode + i)};
  }
  return list;
}

bool Allowance::take(uint32_t per_second, Clock::time_point now) {
  fill(per_second, now);
  if (left_ < 1) return false;
  left_ -= 1;
  return true;
}

std::chrono::nanoseconds Allowance::wait_for_one(uint32_t per_second) const {
  return std::chrono::nanoseconds(static_cast<int64_t>((1 - left_) * 1e9 / per_second) + 1);
}

bool Allowance::is_untouched(uint32_t per_second, Clock::time_point now) {
  fill(per_second, now);
  return left_ >= most_at_once(per_second);
}

void Allowance::fill(uint32_t per_second, Clock::time_point now) {
  const std::chrono::duration<double> passed = now - filled_at_;
  filled_at_ = now;
  left_ = std::min(most_at_once(per_second), left_ + passed.count() * per_second);
}

Rank rank_of(const Caller &caller) {
  if (caller.administrator) return Rank::kAdministrator;
  return caller.vdc_id ? Rank::kMapped : Rank::kUnmapped;
}

User::User(uint32_t requests_shared, uint32_t changes_shared, const std::atomic<bool> &crowded)
    : requests(std::max(requests_shared, kRequestsPerProcessor * processors()), requests_shared, crowded),
      changes(std::max(changes_shared, kChangesAlone), changes_shared, crowded),
      large_changes(std::max(changes_shared, kChangesAlone), std::max(1u, changes_shared / kLargeForSmall), crowded) {}

Users::Place Users::take(const Caller &caller, const config::Limits &limits, Clock::time_point now) {
  const Rank rank = rank_of(caller);
  User &user = user_of(caller, limits, now);
  if (const char *why = why_not(rank, user, limits)) return {.why = why};

  ++taken(rank);
  user.last = caller;
  if (user.connections++ == 0 && ++connected_ > 1) {
    crowded_until_ = now + kRoomIsKept;
    crowded_.store(true, std::memory_order_relaxed);
  }
  const uint32_t own_limit = limit_of_one(rank, limits);
  const bool own_is_fuller = uint64_t{user.connections} * limits.connections >= uint64_t{all()} * own_limit;
  if (!own_is_fuller) {
    return {.user = &user, .whose = "of all users", .key = "connections", .used = all(), .limit = limits.connections};
  }
  return {.user = &user,
          .whose = rank == Rank::kUnmapped ? "of users without a VDC" : "of this user",
          .key = rank == Rank::kUnmapped ? "connections_unmapped" : "connections_per_user",
          .used = user.connections,
          .limit = own_limit};
}

void Users::give_back(User &user, Rank rank) {
  --taken(rank);
  if (--user.connections == 0) --connected_;
}

bool Users::check_crowd(Clock::time_point now) {
  if (!crowded_.load(std::memory_order_relaxed)) return false;
  if (connected_ > 1) crowded_until_ = now + kRoomIsKept;
  if (now >= crowded_until_) crowded_.store(false, std::memory_order_relaxed);
  return now < crowded_until_;
}

Places Users::places() const {
  return {.connections = all(),
          .of_unmapped = taken(Rank::kUnmapped),
          .of_administrators = taken(Rank::kAdministrator),
          .users = static_cast<uint32_t>(users_.size())};
}

std::vector<Visitor> Users::visitors(uid_t from, size_t most) const {
  std::vector<Visitor> visitors;
  for (auto found = users_.lower_bound(from); found != users_.end() && visitors.size() < most; ++found) {
    const User &user = *found->second;
    Visitor &visitor = visitors.emplace_back();
    visitor.uid = found->first;
    visitor.vdc_id = user.last.vdc_id;
    visitor.administrator = user.last.administrator;
    visitor.connections = user.connections;
    for (const MessageCount &count : list_of(user.messages)) {
      visitor.done += count.done;
      visitor.failed += count.failed;
    }
  }
  return visitors;
}

const User *Users::find(uid_t uid) const {
  const auto found = users_.find(uid);
  return found == users_.end() ? nullptr : found->second.get();
}

const char *Users::why_not(Rank rank, const User &user, const config::Limits &limits) const {
  if (all() >= limits.connections) return "all together have too many (connections under [limits])";
  if (user.connections >= limit_of_one(rank, limits)) {
    return rank == Rank::kUnmapped ? "users without a VDC have too many (connections_unmapped under [limits])"
                                   : "the user has too many (connections_per_user under [limits])";
  }
  if (rank == Rank::kAdministrator) return nullptr;

  const uint32_t places = limits.connections - std::min(limits.connections, limits.connections_administrators);
  const uint32_t used = taken(Rank::kUnmapped) + taken(Rank::kMapped);
  if (used >= places) return "what is left is kept for administrators (connections_administrators under [limits])";
  if (rank == Rank::kMapped && user.connections >= kFew && used >= places - places / kPartForThem) {
    return "what is left is kept for users with fewer (an eighth of connections under [limits])";
  }
  return nullptr;
}

User &Users::user_of(const Caller &caller, const config::Limits &limits, Clock::time_point now) {
  const uid_t key = rank_of(caller) == Rank::kUnmapped ? kAllUnmapped : caller.counted_as;
  if (const auto found = users_.find(key); found != users_.end()) return *found->second;
  if (users_.size() >= forget_above_) forget_the_gone(limits, now);
  auto user = std::make_unique<User>(shared_requests(limits), limits.changes_per_user, crowded_);
  return *users_.emplace(key, std::move(user)).first->second;
}

// Who has gone is kept until nothing is left to be held against a return. What is left is looked through again when it
// has doubled, so that this costs each newcomer a fixed time.
void Users::forget_the_gone(const config::Limits &limits, Clock::time_point now) {
  std::erase_if(users_, [&](const auto &entry) {
    User &user = *entry.second;
    return user.connections == 0 && user.connects.is_untouched(limits.connects_per_second, now);
  });
  forget_above_ = std::max<size_t>(64, 2 * users_.size());
}

}  // namespace ksd::server
