// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// sdb_database.h: the databases that are open in this process.
#ifndef SDB_DATABASE_H
#define SDB_DATABASE_H

#include <lmdb.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#include "host_database.h"
#include "sdb_gate.h"
#include "sdb_thread.h"

namespace sdb {

// The whole of the map is reserved when a database is opened, and its file has the map's size from the start, with
// holes where nothing has been written. So the file grows by itself, no map ever has to move under a reader, no access
// through the map meets the end of the file, and a file that is shorter has been damaged. Writes are refused when the
// entries fill the limit. What lies above it serves deletes, which LMDB does by copying pages, and the pages that
// readers hold up. A process of 32 bits has less room to reserve, and a child of fork keeps its parent's map besides.
constexpr size_t kMapSize = host::kOwnDatabase.map_size;
constexpr size_t kFullSize = kMapSize / 4;
constexpr unsigned kReaderSlots = 1022;

// An opening is repeated by callers, so each attempt is short. A first read of a thread waits as long at most.
constexpr long kOpenDeadlineMs = 250;
constexpr long kCommitDeadlineMs = 2000;

// GatePage is the first page of the gate's file, which all processes map. `changes` is odd while a commit is made, and
// another number after it: what was read under an even one holds for as long as it stays. (A writer that dies leaves it
// odd until the next commit.)
struct GatePage {
  host::DatabaseMark mark;
  alignas(64) uint32_t changes;
  alignas(64) CommitGate commit_gate;
};
constexpr size_t kGatePageSize = 4096;
static_assert(sizeof(GatePage) <= kGatePageSize);

// Database is one open environment. It stays for the life of the process.
//
// LMDB's own locks have no limit of time, so each is taken behind a gate: its lock of the reader table (when a thread
// takes a slot, the dead are cleared or the environment is opened) behind `table_gate`, its writer lock behind the
// page's `commit_gate`. They are two, so that a writer that is stopped keeps nobody from reading.
struct Database {
  Database *next;
  char *uri;
  // Where it lies: the same folder and name under another URI are the same database.
  dev_t folder_device;
  ino_t folder_inode;
  MDB_env *environment;
  MDB_dbi entries;
  Gate table_gate;
  dev_t file_device;
  ino_t file_inode;
  const uint8_t *map;  // of the file, for reading; LMDB's own isn't told
  GatePage *gate_page;
  int gate_fd;
  ino_t gate_inode;
};

// open_database opens the database at the URI, or finds it open.
uint32_t open_database(Thread *thread, const char *uri);

// find_database returns the open database at the URI, opening again after fork what the parent had open; or null and
// a code.
Database *find_database(Thread *thread, const char *uri, uint32_t *out_code);

}  // namespace sdb

#endif
