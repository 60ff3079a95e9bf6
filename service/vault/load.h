// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// load.h: what a vault's file says, opened and checked against its header.
#ifndef SERVICE_VAULT_LOAD_H
#define SERVICE_VAULT_LOAD_H

#include <functional>

#include "vault/database.h"
#include "vault/keys.h"
#include "vault/master_key.h"
#include "vault/record.h"
#include "vault/state.h"

namespace ksd::vault {

// keys_of gives the keys that a vault is sealed with by the one that is at hand. All below throw std::runtime_error,
// one line with the file's name, for what isn't as a daemon wrote it.
Keys keys_of(const std::string &path, const VaultIdentity &identity, const MasterKey &master);

// create_vault makes an empty vault with an id of its own, like Database::create.
void create_vault(const std::string &path, const SecretBytes &master_key);

Header open_header(const std::string &path, const VaultIdentity &identity, const Keys &keys);

// for_each_row opens all entries in their order, in constant memory, and has another thread open some while it reads
// and `visit` sees others. The digest in the header tells whether they are the ones that belong together; that is known
// when the call returns.
void for_each_row(Database &database, const Keys &keys, const Header &header,
                  const std::function<void(const RowPtr &row)> &visit);

// load reads all entries into memory.
State load(Database &database, const Keys &keys, const Header &header);

}  // namespace ksd::vault

#endif
