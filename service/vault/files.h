// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// files.h: small steps with files that the vault and its key share.
#ifndef SERVICE_VAULT_FILES_H
#define SERVICE_VAULT_FILES_H

#include <string>

#include "base/fd.h"

namespace ksd::vault {

bool file_exists(const std::string &path);

// is_same_file tells whether both names lead to one file.
bool is_same_file(const std::string &path, const std::string &other);

// make_file makes an empty file of mode 0600, or gives nothing, with errno, also when there is one already.
UniqueFd make_file(const std::string &path);

// sync_folder makes new and removed names in a folder durable.
bool sync_folder(const std::string &folder);

// refuse_what_others_may_write throws std::runtime_error where somebody else could change or replace what decides over
// keys, with what to run against it.
void refuse_what_others_may_write(const std::string &path);

// errno_text words an error number.
std::string errno_text(int error);

}  // namespace ksd::vault

#endif
