// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// vault_lock.h: one process for a vault at a time.
#ifndef SERVICE_VAULT_VAULT_LOCK_H
#define SERVICE_VAULT_VAULT_LOCK_H

#include <string>

#include "base/fd.h"

namespace ksd::vault {

// VaultLock holds the lock of a vault for as long as it lives, from before the vault is made or looked at. The lock is
// on a file of its own beside the vault, which nobody but the service's user can open: whoever can open a file can lock
// it. Throws std::runtime_error when another process still holds it after wait_ms, or when it can't be had.
class VaultLock {
 public:
  explicit VaultLock(const std::string &vault_path, int wait_ms = 2000);

 private:
  UniqueFd file_;
};

}  // namespace ksd::vault

#endif
