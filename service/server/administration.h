// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// administration.h: the messages for administrators: what the daemon tells about itself, and what it does on request.
#ifndef SERVICE_SERVER_ADMINISTRATION_H
#define SERVICE_SERVER_ADMINISTRATION_H

#include <vector>

#include "fleet/shared_vault.h"
#include "handlers/dispatch.h"
#include "handlers/service.h"
#include "host_wire.h"
#include "server/backup_session.h"
#include "server/crowd.h"
#include "server/current_config.h"
#include "server/fleet_session.h"
#include "server/reloader.h"
#include "server/users.h"
#include "vault/vault.h"

namespace ksd::server {

// Sessions is what a connection has begun with the administration, and goes on with.
struct Sessions {
  BackupSession backup;
  FleetSession fleet;

  bool are_open() const { return backup.is_open() || fleet.is_open(); }
};

// Administration answers on the threads of the connections. Whatever it reads of others it reads in pages, so that
// nobody waits for it.
class Administration {
 public:
  // All of them outlive it. `vault` is the service's store; `fleet` is that, too, where it is one of a fleet, else
  // null.
  Administration(handlers::Service &service, vault::Vault &vault, fleet::SharedVault *fleet,
                 const CurrentConfig &current_config, Reloader &reloader)
      : service_(service), vault_(vault), fleet_(fleet), current_config_(current_config), reloader_(reloader) {}

  // answer leaves a reply to an administration message of an administrator, and gives false for all others: to those
  // who aren't administrators there are no such messages.
  bool answer(const handlers::Request &request, Crowd &crowd, Sessions &sessions, handlers::Reply &reply);

 private:
  // Asked is a request, with whom it may ask about.
  struct Asked {
    const handlers::Request &request;
    Crowd &crowd;
    Sessions &sessions;
    handlers::Reply &reply;
  };
  struct Row;
  static const Row kRows[];

  void status(const Asked &asked);
  void counters(const Asked &asked);
  void latencies(const Asked &asked);
  void users(const Asked &asked);
  void owners(const Asked &asked);
  void limits(const Asked &asked);
  void reload(const Asked &asked);
  void checkpoint(const Asked &asked);
  void begin_backup(const Asked &asked);
  void open_backup(const Asked &asked);
  void next_backup_part(const Asked &asked);
  void change_master_key(const Asked &asked);
  void master_key_change(const Asked &asked);
  void fleet(const Asked &asked);
  void fleet_machines(const Asked &asked);
  void leave_fleet(const Asked &asked);
  void change_fleet_key(const Asked &asked);
  void fleet_keys(const Asked &asked);
  void fleet_owners(const Asked &asked);
  void fleet_import(const Asked &asked);
  void fleet_go_on(const Asked &asked);
  void go_on_with_import(const Asked &asked);
  void fleet_restore(const Asked &asked);
  void read_backup(FleetSession::Restore &restore, HostFleetRestoreReply &told);
  void go_on_with_restore(const Asked &asked);
  void fleet_accept(const Asked &asked);

  vault::Owner fullest_owner(uint64_t vault::Owner::*what) const;
  uint64_t up_ms() const;

  handlers::Service &service_;
  vault::Vault &vault_;
  fleet::SharedVault *const fleet_;
  std::atomic<int> backups_{0};          // that are being read
  std::atomic<bool> fleet_work_{false};  // whether a connection imports or restores
  const CurrentConfig &current_config_;
  Reloader &reloader_;
  const handlers::Dispatcher dispatcher_;  // for the messages' names
  const std::time_t started_at_ = std::time(nullptr);
  const Clock::time_point started_ = Clock::now();
};

// Desk is where a connection brings messages for the administration. Without one, nobody has such messages.
struct Desk {
  Administration *administration;
  Crowd &crowd;

  bool answer(const handlers::Request &request, Sessions &sessions, handlers::Reply &reply) const {
    return administration != nullptr && administration->answer(request, crowd, sessions, reply);
  }
};

}  // namespace ksd::server

#endif
