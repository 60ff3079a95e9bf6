// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// placing.h: a whole new vault in the place of the old one. A vault is several files, and no rename moves them all, so
// the new ones stand ready in a folder beside the vault. From the instant in which that folder bears its name, the new
// vault is the vault: whoever opens it next moves the files to their places first, as often as that is interrupted.
#ifndef SERVICE_VAULT_PLACING_H
#define SERVICE_VAULT_PLACING_H

#include <string>

namespace ksd::vault {

// NewVault is a folder in which a vault is made. What isn't placed goes with the object, and with the next draft.
class NewVault {
 public:
  // `path` is where the vault is to stand. Throws std::runtime_error when the folder can't be made.
  explicit NewVault(const std::string &path);
  ~NewVault();
  NewVault(const NewVault &) = delete;
  NewVault &operator=(const NewVault &) = delete;

  // vault is the new vault's path in the draft; its witness lies beside it.
  const std::string &vault() const { return vault_; }

  // place puts the new vault, closed in order and on disk, in the place of the old one. Gives the folder that the old
  // one's files are in now, empty where there were none. Throws std::runtime_error: before it is placed, the old one is
  // there as it was.
  std::string place();

 private:
  const std::string path_, folder_, vault_;
};

// finish_placing does what is left of a placing that was interrupted. Gives the folder of the old files, like place.
// Its caller holds the lock of the vault.
std::string finish_placing(const std::string &path);

}  // namespace ksd::vault

#endif
