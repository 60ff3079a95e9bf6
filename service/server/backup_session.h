// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// backup_session.h: the backup that an administrator reads over a connection.
#ifndef SERVICE_SERVER_BACKUP_SESSION_H
#define SERVICE_SERVER_BACKUP_SESSION_H

#include <atomic>
#include <memory>
#include <utility>

#include "vault/backup.h"

namespace ksd::server {

// kBackupsAtOnce bounds how many backups are read at a time: each holds what the vault was when it began.
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

}  // namespace ksd::server

#endif
