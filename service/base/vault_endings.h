// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// vault_endings.h: the names of a vault's files, which its configuration must not give to others.
#ifndef SERVICE_BASE_VAULT_ENDINGS_H
#define SERVICE_BASE_VAULT_ENDINGS_H

#include <string_view>

namespace ksd {

// A vault's own files lie beside each other, under its name and these endings.
inline constexpr std::string_view kVaultEndings[] = {"", "-wal", "-journal", "-lock", "-reserve"};

}  // namespace ksd

#endif
