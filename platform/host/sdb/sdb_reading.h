// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// sdb_reading.h: a thread's reads, and whether there is still what it reads.
#ifndef SDB_READING_H
#define SDB_READING_H

#include <lmdb.h>

#include "sdb_codes.h"
#include "sdb_database.h"
#include "sdb_lookup.h"
#include "sdb_thread.h"

namespace sdb {

// begin_read starts to read in the thread's seat, after a look at the files: without a lock unless it is the first
// time.
uint32_t begin_read(Thread *thread, Seat *seat);
void end_read(Seat *seat);

// changes_now tells how often the database was changed. Its page is there as far as the gate's file goes.
inline uint32_t changes_now(const Database &database) {
  return __atomic_load_n(&database.gate_page->changes, __ATOMIC_ACQUIRE);
}

// read_in reads in the thread's seat: `find` gets the transaction's number and finds something, `copy` copies it out
// while it is there.
template <typename Find, typename CopyOut>
uint32_t read_in(Thread *thread, Seat *seat, const Find &find, const CopyOut &copy) {
  // Writers replace a transaction's head with the second commit after it.
  constexpr int kAttempts = 100;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    if (const uint32_t code = begin_read(thread, seat); code != kOk) return code;
    const Found found = find(mdb_txn_id(seat->reader));
    const uint32_t code = found == Found::kEntry ? copy() : found == Found::kNothing ? kNoKey : kDamaged;
    end_read(seat);
    if (found != Found::kMovedOn) return code;
  }
  return fail_with(thread, kRetry, "%s changes too fast to be read", seat->database->uri);
}

// check_file_in_place tells whether the file is still the one that was opened, and whole; check_file_whole leaves it at
// the latter, since what was deleted can be read still.
uint32_t check_file_in_place(Thread *thread, const Database &database);
uint32_t check_file_whole(Thread *thread, const Database &database);

// fail_with_lmdb is fail_with for a result of LMDB.
uint32_t fail_with_lmdb(Thread *thread, const char *doing, int result);

}  // namespace sdb

#endif
