// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "server/backup_session.h"

namespace ksd::server {

bool BackupSession::begin(std::atomic<int> &open) {
  end();
  if (open.fetch_add(1) >= kBackupsAtOnce) {
    open.fetch_sub(1);
    return false;
  }
  open_ = &open;
  return true;
}

void BackupSession::end() {
  writer_.reset();
  if (open_ != nullptr) open_->fetch_sub(1);
  open_ = nullptr;
}

}  // namespace ksd::server
