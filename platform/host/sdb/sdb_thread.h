// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// sdb_thread.h: what libsdb keeps for a thread.
//
// A thread has a seat at each database it uses. Everything here is touched by its own thread only and given back when
// the thread ends, reader slots included. A child of fork finds the forking thread's, made in another generation, and
// drops what stands for the parent in files that both share.
#ifndef SDB_THREAD_H
#define SDB_THREAD_H

#include <setjmp.h>

#include <cstddef>
#include <cstdint>

#include "sdb.h"

struct MDB_txn;

namespace sdb {

struct Database;

constexpr size_t kMaxKeySize = 511;  // LMDB's own limit
constexpr size_t kMaxValueSize = size_t{1024} * 1024;

// Buffer is memory that is kept from call to call and only ever grows.
struct Buffer {
  uint8_t *data;
  size_t capacity;

  bool reserve(size_t size);
};

// Change is a staged write, or a delete when `removes`. The bytes of key and value follow it.
struct Change {
  Change *next;
  bool removes;
  uint32_t key_size;
  uint32_t value_size;  // with the check in front; 0 for a delete

  uint8_t *key() { return reinterpret_cast<uint8_t *>(this + 1); }
  uint8_t *value() { return key() + key_size; }
};

struct Changes {
  Change *first;
  Change **end;  // null while empty

  void add(Change *change);
  void drop_all();
};

// Iteration stands at a key, not at a place in the file: no transaction stays open between two moves, and whatever is
// written or deleted meanwhile, the next key is the next larger one.
struct Iteration {
  bool set_up;
  bool at_key;
  uint8_t key_bytes[kMaxKeySize];
  KsSdbDatum key;
  KsSdbDatum value;
};

// Copy is an entry as it was read last: it is handed out again, without a look at the files, as long as nobody has
// committed and the clock hasn't ticked. That spares a warm read the two looks, of 350 ns each where all of it takes
// 260.
struct Copy {
  int64_t tick;
  uint32_t changes;  // of the gate's page
  uint32_t key_size;
  uint32_t stored_size;            // 0: there is no such entry
  alignas(8) uint8_t bytes[1000];  // what is stored, check in front, and the key behind it
};
constexpr size_t kCopies = 8;

struct Seat {
  Seat *next;
  Database *database;
  MDB_txn *reader;  // between reads it is reset, so that it holds a slot but no pages; null before the first
  Changes changes;
  Iteration iteration;
  uint32_t changes_seen;  // before the last read
  Copy copies[kCopies];
};

struct Thread {
  uint32_t generation;
  Seat *seats;
  Buffer value_buffer;
  KsSdbDatum value;

  // Where to go on when LMDB finds an assumption about its pages broken, instead of ending the process.
  jmp_buf escape;
  bool escape_set;

  uint32_t failure_code;  // of the latest call, when `failure` tells more about it
  char failure[400];
  char text[512];
};

// this_thread returns the calling thread's record, made at its first call, or null without memory.
Thread *this_thread();

// seat_at returns the thread's seat at the database, or null without memory.
Seat *seat_at(Thread *thread, Database *database);

// fail_with notes what is to be told about the code when the thread asks for its text next, and returns the code.
[[gnu::format(printf, 3, 4)]] uint32_t fail_with(Thread *thread, uint32_t code, const char *format, ...);

}  // namespace sdb

#endif
