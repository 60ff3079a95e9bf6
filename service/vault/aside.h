// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// aside.h: copies of files as they were found, before anything is done to them.
#ifndef SERVICE_VAULT_ASIDE_H
#define SERVICE_VAULT_ASIDE_H

#include <string>
#include <vector>

namespace ksd::vault {

// put_aside copies those of `files` that are there into a new folder beside `path`, on disk when it returns, and gives
// the folder's name. Throws std::runtime_error when it can't.
std::string put_aside(const std::string &path, const std::vector<std::string> &files);

}  // namespace ksd::vault

#endif
