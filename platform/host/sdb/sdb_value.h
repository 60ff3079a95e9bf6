// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// sdb_value.h: what calls of the interface have in common: their beginning, their key, and the way of a value from the
// map to the caller.
#ifndef SDB_VALUE_H
#define SDB_VALUE_H

#include <lmdb.h>

#include <cstring>

#include "sdb_check.h"
#include "sdb_codes.h"
#include "sdb_database.h"
#include "sdb_thread.h"

namespace sdb {

// enter begins a call of the interface: what the thread's last call told of its failure is over.
inline Thread *enter() {
  Thread *thread = this_thread();
  if (thread != nullptr) thread->failure_code = kOk;
  return thread;
}

inline Seat *find_seat(Thread *thread, const char *uri, uint32_t *out_code) {
  Database *database = find_database(thread, uri, out_code);
  if (database == nullptr) return nullptr;
  Seat *seat = seat_at(thread, database);
  if (seat == nullptr) *out_code = kNoMemory;
  return seat;
}

inline uint32_t check_key(Thread *thread, const KsSdbDatum *key) {
  const bool good = key != nullptr && key->data != nullptr && key->size > 0 && key->size <= kMaxKeySize;
  return good ? kOk : fail_with(thread, kBadArgument, "a key has 1 to %zu bytes", kMaxKeySize);
}

// copy_stored copies the stored bytes, check in front, to the thread's buffer.
inline uint32_t copy_stored(Thread *thread, const MDB_val &stored) {
  if (stored.mv_size < sizeof(Check) || stored.mv_size > sizeof(Check) + kMaxValueSize) return kValueDamaged;
  if (!thread->value_buffer.reserve(stored.mv_size)) return kNoMemory;
  memcpy(thread->value_buffer.data, stored.mv_data, stored.mv_size);
  return kOk;
}

// hand_out_value makes the thread's buffer its value, unless the check says otherwise.
inline uint32_t hand_out_value(Thread *thread, const void *key, size_t key_size, size_t stored_size) {
  Check check;
  memcpy(&check, thread->value_buffer.data, sizeof check);
  const uint8_t *value = thread->value_buffer.data + sizeof check;
  const size_t size = stored_size - sizeof check;
  if (check != check_of(key, key_size, value, size)) return kValueDamaged;
  thread->value = {value, static_cast<uint32_t>(size)};
  return kOk;
}

}  // namespace sdb

#endif
