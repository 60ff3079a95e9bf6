// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// sdb_write.cc: staging changes and committing them.
#include <lmdb.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "sdb_codes.h"
#include "sdb_database.h"
#include "sdb_guard.h"
#include "sdb_reading.h"
#include "sdb_thread.h"
#include "sdb_value.h"

namespace sdb {

namespace {

uint32_t stage(const char *uri, const KsSdbDatum *key, const KsSdbDatum *value) {
  Thread *thread = enter();
  if (thread == nullptr) return kNoMemory;
  if (const uint32_t code = check_key(thread, key); code != kOk) return code;
  if (value != nullptr && (value->size > kMaxValueSize || (value->data == nullptr && value->size != 0))) {
    return fail_with(thread, kBadArgument, "a value has at most %zu bytes", kMaxValueSize);
  }
  uint32_t code = kOk;
  Seat *seat = find_seat(thread, uri, &code);
  if (seat == nullptr) return code;

  const auto value_size = static_cast<uint32_t>(value == nullptr ? 0 : value->size + sizeof(Check));
  auto *change = static_cast<Change *>(malloc(sizeof(Change) + key->size + value_size));
  if (change == nullptr) return kNoMemory;
  *change = {nullptr, value == nullptr, key->size, value_size};
  memcpy(change->key(), key->data, key->size);
  if (value != nullptr) {
    const Check check = check_of(key->data, key->size, value->data, value->size);
    memcpy(change->value(), &check, sizeof check);
    if (value->size != 0) memcpy(change->value() + sizeof check, value->data, value->size);
  }
  seat->changes.add(change);
  return kOk;
}

// A cursor on the heap, which LMDB closes with its transaction: its simple calls put theirs on the stack, where ending
// a transaction that was left in the middle would take it for one on the heap.
int apply(MDB_cursor *cursor, Change *change) {
  MDB_val key{change->key_size, change->key()};
  MDB_val value{change->value_size, change->value()};
  if (!change->removes) return mdb_cursor_put(cursor, &key, &value, 0);
  const int found = mdb_cursor_get(cursor, &key, &value, MDB_SET);
  if (found == MDB_NOTFOUND) return 0;  // what is not there need not be removed
  return found == 0 ? mdb_cursor_del(cursor, 0) : found;
}

int check_limit(const Database &database, MDB_txn *txn) {
  MDB_stat stat;
  const int result = mdb_stat(txn, database.entries, &stat);
  if (result != 0) return result;
  const size_t pages = stat.ms_branch_pages + stat.ms_leaf_pages + stat.ms_overflow_pages;
  return pages > kFullSize / stat.ms_psize ? MDB_MAP_FULL : 0;
}

int apply_all(const Database &database, MDB_txn *txn, const Changes &changes) {
  MDB_cursor *cursor = nullptr;
  if (const int result = mdb_cursor_open(txn, database.entries, &cursor); result != 0) return result;
  bool adds = false;
  for (Change *change = changes.first; change != nullptr; change = change->next) {
    if (const int result = apply(cursor, change); result != 0) return result;
    adds = adds || !change->removes;
  }
  return adds ? check_limit(database, txn) : 0;
}

uint32_t busy(Thread *thread, GateResult result, const Database &database) {
  if (result == GateResult::kTimedOut) {
    return fail_with(thread, kBusy, "waited %ld ms at %s", kCommitDeadlineMs, database.uri);
  }
  return fail_with(thread, kSystem, "cannot lock the gate of %s: %s", database.uri, strerrordesc_np(errno));
}

uint32_t write_once(Thread *thread, Database &database, const Changes &changes) {
  MDB_txn *txn = nullptr;
  if (const int result = mdb_txn_begin(database.environment, nullptr, 0, &txn); result != 0) {
    return fail_with_lmdb(thread, "cannot begin to write", result);
  }
  MDB_txn *open = txn;  // what is left to abort, also after LMDB was left in the middle
  const int result = guarded(thread, [&] {
    if (const int applied = apply_all(database, txn, changes); applied != 0) return applied;
    const int committed = mdb_txn_commit(txn);
    open = nullptr;
    return committed;
  });
  if (open != nullptr) mdb_txn_abort(open);
  return result == 0 ? kOk : fail_with_lmdb(thread, database.uri, result);
}

uint32_t write_twice(Thread *thread, Database &database, const Changes &changes, const Deadline &deadline) {
  const uint32_t code = write_once(thread, database, changes);
  if (code != kFull) return code;
  // Readers that died in the middle of a read hold pages up.
  if (database.table_gate.enter(deadline) != GateResult::kEntered) return code;
  int dead = 0;
  mdb_reader_check(database.environment, &dead);
  database.table_gate.leave();
  return dead == 0 ? code : write_once(thread, database, changes);
}

// recover takes LMDB's writer lock from one who died in its possession, which clears LMDB's table of readers too.
uint32_t recover(Thread *thread, Database &database, const Deadline &deadline) {
  const GateResult entered = database.table_gate.enter(deadline);
  if (entered != GateResult::kEntered) return busy(thread, entered, database);
  MDB_txn *txn = nullptr;
  const int result = mdb_txn_begin(database.environment, nullptr, 0, &txn);
  if (result == 0) mdb_txn_abort(txn);
  database.table_gate.leave();
  return result == 0 ? kOk : fail_with_lmdb(thread, "cannot begin to write", result);
}

uint32_t write_inside_gate(Thread *thread, Database &database, const Changes &changes, const Deadline &deadline) {
  uint32_t *number = &database.gate_page->changes;  // written by none but who is inside the gate
  const uint32_t before = __atomic_load_n(number, __ATOMIC_RELAXED);
  if (before % 2 != 0) {
    if (const uint32_t code = recover(thread, database, deadline); code != kOk) return code;
  }
  // From here on nobody takes a copy for what the file holds.
  __atomic_store_n(number, before | 1, __ATOMIC_SEQ_CST);
  const uint32_t code = write_twice(thread, database, changes, deadline);
  __atomic_store_n(number, (before | 1) + 1, __ATOMIC_SEQ_CST);
  return code;
}

uint32_t commit(Thread *thread, Seat *seat) {
  if (seat->changes.first == nullptr) return kOk;
  const NoCancellation no_cancellation;
  Database &database = *seat->database;
  const Deadline deadline = Deadline::in_ms(kCommitDeadlineMs);
  uint32_t code = check_file_in_place(thread, database);
  if (code != kOk) return code;
  CommitGate &gate = database.gate_page->commit_gate;
  const GateResult entered = gate.enter(deadline, [&] {
    code = check_file_in_place(thread, database);
    return code == kOk ? GateResult::kEntered : code == kDamaged ? GateResult::kGone : GateResult::kFailed;
  });
  if (entered != GateResult::kEntered) return code != kOk ? code : busy(thread, entered, database);
  code = write_inside_gate(thread, database, seat->changes, deadline);
  gate.leave();
  return code;
}

}  // namespace

}  // namespace sdb

KS_EXPORT uint32_t sdb_write(const char *uri, const KsSdbDatum *key, const KsSdbDatum *value) {
  static constexpr KsSdbDatum kEmpty{nullptr, 0};
  return sdb::stage(uri, key, value != nullptr ? value : &kEmpty);
}

KS_EXPORT uint32_t sdb_delete(const char *uri, const KsSdbDatum *key) {
  return sdb::stage(uri, key, nullptr);
}

KS_EXPORT uint32_t sdb_write_done(const char *uri) {
  sdb::Thread *thread = sdb::enter();
  if (thread == nullptr) return sdb::kNoMemory;
  uint32_t code = sdb::kOk;
  sdb::Seat *seat = sdb::find_seat(thread, uri, &code);
  if (seat == nullptr) return code;
  code = sdb::commit(thread, seat);
  // Also when it failed: a change that was reported as failed must not turn up with a later one.
  seat->changes.drop_all();
  return code;
}
