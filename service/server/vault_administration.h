// vault_administration.h: the messages for administrators that are about the vault: backups, and its master key.
#ifndef SERVICE_SERVER_VAULT_ADMINISTRATION_H
#define SERVICE_SERVER_VAULT_ADMINISTRATION_H

#include <atomic>
#include <memory>
#include <utility>

#include "base/log.h"
#include "handlers/reply.h"
#include "handlers/request.h"
#include "vault/vault.h"

namespace ksd::server {

// BackupsAtOnce bounds how many backups are read at a time: each holds what the vault was when it began.
inline constexpr int kBackupsAtOnce = 4;

// BackupSession is the backup that a connection reads, if it does. It ends with the connection at the latest.
class BackupSession {
 public:
  BackupSession() = default;
  ~BackupSession() { end(); }
  BackupSession(const BackupSession &) = delete;
  BackupSession &operator=(const BackupSession &) = delete;

  bool is_open() const { return writer_ != nullptr; }
  vault::BackupWriter &writer() { return *writer_; }

  // begin takes one of the places that `open` counts; false when there is none.
  bool begin(std::atomic<int> &open);
  void use(std::unique_ptr<vault::BackupWriter> writer) { writer_ = std::move(writer); }
  void end();

 private:
  std::unique_ptr<vault::BackupWriter> writer_;
  std::atomic<int> *open_ = nullptr;
};

class VaultAdministration {
 public:
  // Both outlive it.
  VaultAdministration(vault::Vault &vault, LogLimiter &log_limiter) : vault_(vault), log_limiter_(log_limiter) {}

  // answer leaves a reply to a message about the vault, and gives false for all others. `session` is the connection's.
  bool answer(const handlers::Request &request, handlers::Reply &reply, BackupSession &session);

 private:
  using Handler = void (VaultAdministration::*)(const handlers::Request &, handlers::Reply &, BackupSession &);
  struct Row {
    uint32_t opcode;
    Handler handler;
  };
  static const Row kRows[];

  void begin_backup(const handlers::Request &request, handlers::Reply &reply, BackupSession &session);
  void open_backup(const handlers::Request &request, handlers::Reply &reply, BackupSession &session);
  void next_part(const handlers::Request &request, handlers::Reply &reply, BackupSession &session);
  void change_key(const handlers::Request &request, handlers::Reply &reply, BackupSession &session);
  void key_change(const handlers::Request &request, handlers::Reply &reply, BackupSession &session);

  vault::Vault &vault_;
  LogLimiter &log_limiter_;
  std::atomic<int> backups_{0};
};

}  // namespace ksd::server

#endif
