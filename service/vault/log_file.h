// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// log_file.h: what the vault's write-ahead log looks like before SQLite reads it. SQLite takes what is whole at its
// beginning and never says that there was more.
#ifndef SERVICE_VAULT_LOG_FILE_H
#define SERVICE_VAULT_LOG_FILE_H

#include <cstdint>
#include <optional>
#include <string>

namespace ksd::vault {

struct LogFile {
  bool is_there = false;
  bool holds_frames = false;  // is long enough for one; a log in use always is

  // Set when something that was on disk and acknowledged can't be read any more: the words for it.
  std::optional<std::string> damage;
};

// examine_log reads the log without changing it. Frames behind the last good one are no damage as such: a transaction
// that failed or was rolled back leaves some, and so does a power failure. But a frame that goes on from the end of a
// transaction was written when that transaction was on disk and counted, so both must be within what is good.
LogFile examine_log(const std::string &path);

}  // namespace ksd::vault

#endif
