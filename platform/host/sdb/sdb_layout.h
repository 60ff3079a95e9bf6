// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// sdb_layout.h: looks at a database file before LMDB does.
//
// LMDB follows what its pages say: with damaged ones it reads beyond them, divides by zero or ends the process. A cache
// must never keep the programs that use it from starting, so the whole structure is gone through once, when a database
// is opened, with reads that cannot fault. Values aren't looked at: each has a check of its own.
#ifndef SDB_LAYOUT_H
#define SDB_LAYOUT_H

#include <cstddef>
#include <cstdint>

namespace sdb {

// check_heads examines the file's two heads and its size. Returns what is wrong, or null; an empty file is right.
const char *check_heads(int fd);

enum class PagesResult { kGood, kBad, kMovedOn };

// check_pages examines all pages that the transaction `txn_id` can reach. kMovedOn: writers have replaced that
// transaction's head already, so that it has to be tried with a newer one. kBad: `out_fault` is what is wrong.
PagesResult check_pages(int fd, size_t txn_id, const char **out_fault);

}  // namespace sdb

#endif
