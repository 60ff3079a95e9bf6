// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// restore.h: a vault out of a backup.
#ifndef SERVICE_VAULT_RESTORE_H
#define SERVICE_VAULT_RESTORE_H

#include <functional>
#include <string>

#include "vault/backup.h"
#include "vault/master_key.h"

namespace ksd::vault {

// Progress is told how many entries of how many are through, every now and then.
using Progress = std::function<void(uint64_t done, uint64_t all)>;

// verify_backup reads a backup to its end and writes nothing. Throws std::runtime_error, one line with the file's name,
// for what isn't as it was written.
BackupContents verify_backup(int file, const std::string &name, Bytes passphrase, const Progress &progress);

struct RestoreOptions {
  std::string vault;
  KeySource master_key;  // in a file; drawn when there is none
  std::string witness;   // empty: beside the vault
};

struct Restored {
  BackupContents contents;
  bool made_key = false;
  std::string kept;  // the folder of the vault that stood there before; empty for none
};

// restore_backup makes a new vault of a backup and puts it in the place of the one that is there, which is kept under
// another name. Nothing is changed before the backup has been read and the new vault checked, whole. Throws like
// verify_backup, and while a service has the vault open.
Restored restore_backup(int file, const std::string &name, Bytes passphrase, const RestoreOptions &options,
                        const Progress &progress);

}  // namespace ksd::vault

#endif
