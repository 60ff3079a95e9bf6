// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// decide.h: what each kind of change makes of the table. The same wherever the table is kept.
#ifndef SERVICE_VAULT_DECIDE_H
#define SERVICE_VAULT_DECIDE_H

#include <functional>

#include "base/bytes.h"
#include "vault/group.h"

namespace ksd::vault {

// Decide puts a change into the group that it fell into, or gives the code of what prevents it. It may be asked again,
// for another group, when the one before came to nothing.
using Decide = std::function<KsResult(Group &)>;

// The changes of Store, which says what they do and give.
Decide decide_put(const EntryName &name, const std::optional<EntryName> &alias, Bytes secret, Bytes metadata,
                  uid_t owner);
Decide decide_metadata(const EntryName &name, Bytes metadata);
Decide decide_remove(const EntryName &name);
Decide decide_rename(const EntryName &from, const EntryName &to);

}  // namespace ksd::vault

#endif
