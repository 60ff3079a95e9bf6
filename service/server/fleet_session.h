// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// fleet_session.h: what an administrator has a fleet do step by step, over one connection.
#ifndef SERVICE_SERVER_FLEET_SESSION_H
#define SERVICE_SERVER_FLEET_SESSION_H

#include <atomic>
#include <optional>
#include <vector>

#include "base/fd.h"
#include "fleet/shared_vault.h"

namespace ksd::server {

// FleetSession is an import or a restore that a connection has prepared, of which there is one at a time. It ends with
// the connection at the latest.
class FleetSession {
 public:
  struct Import {
    std::vector<vault::RowPtr> rows;
    vault::Taken taken{};
    size_t done = 0;
    fleet::ImportCounts counts{};
  };

  struct Restore {
    UniqueFd file;  // of the backup, in memory
    std::shared_ptr<const SecretBytes> key;
    uint64_t size = 0, received = 0;
    fleet::Restore::Wanted wanted{};
    bool is_whole = false, has_begun = false;
  };

  FleetSession() = default;
  ~FleetSession() { end(); }
  FleetSession(const FleetSession &) = delete;
  FleetSession &operator=(const FleetSession &) = delete;

  bool is_open() const { return place_ != nullptr; }

  // begin takes the one place, if nobody else has it.
  bool begin(std::atomic<bool> &taken) {
    end();
    if (taken.exchange(true)) return false;
    place_ = &taken;
    return true;
  }
  void end() {
    import.reset();
    if (restore && restore->has_begun) restored_by->give_up_restore();
    restore.reset();
    if (place_ != nullptr) *place_ = false;
    place_ = nullptr;
  }

  std::optional<Import> import;
  std::optional<Restore> restore;
  fleet::SharedVault *restored_by = nullptr;

 private:
  std::atomic<bool> *place_ = nullptr;
};

}  // namespace ksd::server

#endif
