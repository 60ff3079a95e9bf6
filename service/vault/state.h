// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// state.h: the vault in memory.
#ifndef SERVICE_VAULT_STATE_H
#define SERVICE_VAULT_STATE_H

#include "vault/ledger.h"
#include "vault/record.h"
#include "vault/table.h"

namespace ksd::vault {

// State is all that the sealed file says: what is on disk, and what readers see.
struct State {
  Table table;
  Header header;
  Ledger ledger;
};

}  // namespace ksd::vault

#endif
