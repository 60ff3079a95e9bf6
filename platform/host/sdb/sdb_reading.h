// sdb_reading.h: a thread's reads, and whether there is still what it reads.
#ifndef SDB_READING_H
#define SDB_READING_H

#include "sdb_database.h"
#include "sdb_thread.h"

namespace sdb {

// begin_read starts to read in the thread's seat: with no system call and no lock unless it is the first time.
uint32_t begin_read(Thread *thread, Seat *seat);
void end_read(Seat *seat);

// check_file_in_place tells whether the file is still the one that was opened, and whole.
uint32_t check_file_in_place(Thread *thread, const Database &database);

// fail_with_lmdb is fail_with for a result of LMDB.
uint32_t fail_with_lmdb(Thread *thread, const char *doing, int result);

}  // namespace sdb

#endif
