// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// use_watch.h: says in the log when the vault fills.
#ifndef SERVICE_VAULT_USE_WATCH_H
#define SERVICE_VAULT_USE_WATCH_H

#include <cstdint>
#include <set>
#include <string>

#include "vault/ledger.h"
#include "vault/limits.h"

namespace ksd::vault {

// UseWatch logs once when most of the room is used, and again only after it was well below.
class UseWatch {
 public:
  void look_at(const std::string &path, const Ledger &ledger, const Limits &limits);

 private:
  void watch(const std::string &path, int64_t user, const Use &use, const Use &limit);

  std::set<int64_t> said_;
};

}  // namespace ksd::vault

#endif
