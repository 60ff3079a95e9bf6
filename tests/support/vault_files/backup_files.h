// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// backup_files.h: backups in a test's hands, made and restored at the least cost that a passphrase can have.
#ifndef TESTS_SUPPORT_VAULT_FILES_BACKUP_FILES_H
#define TESTS_SUPPORT_VAULT_FILES_BACKUP_FILES_H

#include <string>
#include <string_view>

#include "base/fd.h"
#include "vault/restore.h"
#include "vault_files/vault_files.h"

namespace ksd::vault {

inline constexpr std::string_view kPassphrase = "passphrase";
inline constexpr PassphraseCost kLeastCost{.passes = 1, .kibibytes = 8};
inline const Progress kNoProgress = [](uint64_t, uint64_t) {};

// backup_of gives the file that a backup of the vault is, made at `time`.
std::string backup_of(Vault &vault, uint64_t time = 0);

// file_of gives a descriptor of a file with that content, which has no name.
UniqueFd file_of(const std::string &content);

// restore_options has a vault restored in the folder, with its key there too.
RestoreOptions restore_options(const Folder &folder);
Restored restore(const std::string &backup, const Folder &folder, std::string_view passphrase = kPassphrase);

}  // namespace ksd::vault

#endif
