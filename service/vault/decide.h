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

// Taken says what becomes of an entry that is taken in from another table, when one is there that has a name of its,
// and isn't the same.
enum class Taken : uint8_t { kRefuse, kSkip, kReplace };

// Import is what has become of it.
enum class Import : uint8_t { kAdded, kSame, kReplaced, kSkipped, kRefused };

// import_entry takes `row` into the group, names, alias, secret, metadata and owner, unless just that is there already.
// KS_INVALID_ARGS: refused, also where it would take the places of two entries; KS_STORE_FULL: limits forbid it.
KsResult import_entry(Group &group, const EntryRow &row, Taken taken, Import &became);

// decide_import is that as a change; what `became` names outlives it.
Decide decide_import(RowPtr row, Taken taken, Import &became);

}  // namespace ksd::vault

#endif
