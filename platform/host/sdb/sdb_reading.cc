// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "sdb_reading.h"

#include <fcntl.h>
#include <lmdb.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cstring>

#include "sdb_codes.h"

namespace sdb {

namespace {

int claim_slot(MDB_env *environment, MDB_txn **out_reader) {
  const int result = mdb_txn_begin(environment, nullptr, MDB_RDONLY, out_reader);
  if (result != MDB_READERS_FULL) return result;
  int dead = 0;
  if (mdb_reader_check(environment, &dead) != 0 || dead == 0) return result;
  return mdb_txn_begin(environment, nullptr, MDB_RDONLY, out_reader);
}

uint32_t begin_first_read(Thread *thread, Seat *seat) {
  Database &database = *seat->database;
  const NoCancellation no_cancellation;
  if (database.table_gate.enter(Deadline::in_ms(kOpenDeadlineMs)) != GateResult::kEntered) {
    return fail_with(thread, kRetry, "another process holds up the table of readers");
  }
  const int result = claim_slot(database.environment, &seat->reader);
  database.table_gate.leave();
  if (result == MDB_READERS_FULL) return fail_with(thread, kRetry, "all %u reader slots are taken", kReaderSlots);
  return result == 0 ? kOk : fail_with_lmdb(thread, "cannot begin to read", result);
}

// Whether the file is shorter than it was made. One that this process closed can't be asked any more: then no.
bool is_truncated(int fd, dev_t device, ino_t inode, size_t size) {
  struct stat status;
  return fstat(fd, &status) == 0 && status.st_dev == device && status.st_ino == inode &&
         status.st_size < static_cast<off_t>(size);
}

// examine_before_writing is fstat without a look at the file's times, behind which the kernel notes new ones with the
// next write: a commit would take half as long again. It takes 40 ns longer itself.
bool examine_before_writing(int fd, struct stat *out_status) {
  struct statx status;
  if (statx(fd, "", AT_EMPTY_PATH, STATX_INO | STATX_NLINK | STATX_SIZE, &status) != 0) {
    return fstat(fd, out_status) == 0;  // in a sandbox that doesn't know it
  }
  out_status->st_dev = makedev(status.stx_dev_major, status.stx_dev_minor);
  out_status->st_ino = status.stx_ino;
  out_status->st_nlink = status.stx_nlink;
  out_status->st_size = static_cast<off_t>(status.stx_size);
  return true;
}

uint32_t truncated(Thread *thread, const Database &database) {
  return fail_with(thread, kDamaged, "%s: its file was truncated; delete it and start its users anew", database.uri);
}

bool is_gate_truncated(const Database &database) {
  return is_truncated(database.gate_fd, database.file_device, database.gate_inode, kGatePageSize);
}

}  // namespace

uint32_t begin_read(Thread *thread, Seat *seat) {
  // What isn't there any more must not be touched, LMDB's heads included.
  if (const uint32_t code = check_file_whole(thread, *seat->database); code != kOk) return code;
  seat->changes_seen = changes_now(*seat->database);
  if (seat->reader == nullptr) return begin_first_read(thread, seat);
  const int result = mdb_txn_renew(seat->reader);
  if (result == 0) return kOk;
  if (result != MDB_BAD_RSLOT) return fail_with_lmdb(thread, "cannot begin to read", result);
  // The slot went to somebody else, who took this process for dead: what belongs to it must not be touched again.
  seat->reader = nullptr;
  return begin_first_read(thread, seat);
}

void end_read(Seat *seat) {
  mdb_txn_reset(seat->reader);
}

uint32_t check_file_in_place(Thread *thread, const Database &database) {
  int fd = -1;
  struct stat status;
  if (mdb_env_get_fd(database.environment, &fd) != 0 || !examine_before_writing(fd, &status) ||
      status.st_dev != database.file_device || status.st_ino != database.file_inode || status.st_nlink == 0) {
    return fail_with(thread, kUnsafe, "%s: its file was deleted or closed under the process; start it anew",
                     database.uri);
  }
  const bool whole = status.st_size >= static_cast<off_t>(kMapSize) && !is_gate_truncated(database);
  return whole ? kOk : truncated(thread, database);
}

uint32_t check_file_whole(Thread *thread, const Database &database) {
  int fd = -1;
  const bool whole =
      mdb_env_get_fd(database.environment, &fd) != 0 ||
      (!is_truncated(fd, database.file_device, database.file_inode, kMapSize) && !is_gate_truncated(database));
  return whole ? kOk : truncated(thread, database);
}

uint32_t fail_with_lmdb(Thread *thread, const char *doing, int result) {
  return fail_with(thread, code_of_lmdb(result), "%s: %s", doing,
                   result < 0 ? mdb_strerror(result) : strerrordesc_np(result));
}

}  // namespace sdb
