// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// owners.h: in whose limits entries count, by a name that is the same on all machines.
#ifndef SERVICE_FLEET_OWNERS_H
#define SERVICE_FLEET_OWNERS_H

#include <sys/types.h>

#include <map>
#include <mutex>
#include <string>
#include <string_view>

#include "vault/record.h"

namespace ksd::fleet {

// Users that the configuration gives no name count as this one.
inline constexpr char kUnnamedOwner[] = "others";

// Owners knows the owners of a fleet by numbers: those whom the configuration names by the numbers that they have on
// this machine, all others by one far above. Any thread may ask.
class Owners {
 public:
  explicit Owners(std::map<uid_t, std::string> names = {});

  // of_user gives the owner in whose limits a user of this machine counts.
  uid_t of_user(uid_t user) {
    const auto named = names_.find(user);
    return number_of(named == names_.end() ? kUnnamedOwner : named->second);
  }

  bool is_named(uid_t user) const { return names_.contains(user); }

  uid_t number_of(const std::string &name);
  std::string name_of(uid_t owner) const;

  // is_user tells whether the number is that of a user of this machine whom the configuration names.
  bool is_user(uid_t owner) const { return names_.contains(owner); }
  // all gives the names of those that have had one so far.
  std::map<uid_t, std::string> all() const;

 private:
  static constexpr uid_t kFirstForeign = vault::kFirstUnknownOwner;

  const std::map<uid_t, std::string> names_;  // of the configuration
  mutable std::mutex mutex_;
  std::map<std::string, uid_t> numbers_;
  std::map<uid_t, std::string> foreign_;
};

}  // namespace ksd::fleet

#endif
