// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// sdb_lookup.h: finds entries in the map without believing the pages.
//
// LMDB's own search follows what its pages say, and a file that somebody has altered since it was opened leads it out
// of the map. Here every number of a page is taken once and checked before it is used, so that an altered page is an
// error. (Pages are there as far as the file goes: whoever looks has just looked at its size.)
#ifndef SDB_LOOKUP_H
#define SDB_LOOKUP_H

#include <lmdb.h>

#include <cstddef>

namespace sdb {

struct Database;

enum class Found {
  kEntry,
  kNothing,
  kDamage,
  kMovedOn,  // writers have replaced the transaction's head: try again with a newer one
};

// find_entry finds the entry of `key` in the snapshot of the transaction, which has to be open. `out_value` points into
// the map.
Found find_entry(const Database &database, size_t txn_id, const MDB_val &key, MDB_val *out_value);

// find_behind finds the first entry whose key comes after `key`, or the very first when `key` is null.
Found find_behind(const Database &database, size_t txn_id, const MDB_val *key, MDB_val *out_key, MDB_val *out_value);

}  // namespace sdb

#endif
