// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// sdb_iterator.cc: going through all keys in order.
#include <lmdb.h>

#include <cstring>

#include "sdb_codes.h"
#include "sdb_database.h"
#include "sdb_reading.h"
#include "sdb_thread.h"
#include "sdb_value.h"

namespace sdb {

namespace {

constexpr uint32_t kIteratorFlags = 1;

// The order of keys: byte by byte, and a longer one after its beginning.
bool is_behind(const MDB_val &key, const KsSdbDatum &last) {
  const int order = memcmp(key.mv_data, last.data, key.mv_size < last.size ? key.mv_size : last.size);
  return order > 0 || (order == 0 && key.mv_size > last.size);
}

// A damaged value is handed out as none, so that its key can still be deleted. Damaged keys may have lost their order:
// to follow them might never end.
uint32_t take(Thread *thread, Iteration *iteration, const MDB_val &key, const MDB_val &value, bool *out_has_value) {
  if (key.mv_size == 0 || key.mv_size > kMaxKeySize) return kDamaged;
  if (iteration->at_key && !is_behind(key, iteration->key)) return kDamaged;
  memcpy(iteration->key_bytes, key.mv_data, key.mv_size);
  iteration->key = {iteration->key_bytes, static_cast<uint32_t>(key.mv_size)};
  iteration->at_key = true;
  const uint32_t code = copy_stored(thread, value);
  *out_has_value = code == kOk;
  return code == kValueDamaged ? kOk : code;
}

uint32_t move_on(Thread *thread, Seat *seat, const KsSdbDatum **out_key, const KsSdbDatum **out_value) {
  Iteration &iteration = seat->iteration;
  const MDB_val last{iteration.key.size, const_cast<void *>(iteration.key.data)};
  MDB_val key;
  MDB_val value;
  bool has_value = false;
  uint32_t code = read_in(
      thread, seat,
      [&](size_t txn_id) {
        return find_behind(*seat->database, txn_id, iteration.at_key ? &last : nullptr, &key, &value);
      },
      [&] { return take(thread, &iteration, key, value, &has_value); });
  if (code == kNoKey) code = kNoMoreKeys;
  if (code != kOk) return code;

  if (has_value) has_value = hand_out_value(thread, iteration.key.data, iteration.key.size, value.mv_size) == kOk;
  iteration.value = thread->value;
  *out_key = &iteration.key;
  *out_value = has_value ? &iteration.value : nullptr;
  return kOk;
}

uint32_t step(const char *uri, bool from_start, const KsSdbDatum **key, const KsSdbDatum **value) {
  Thread *thread = enter();
  if (thread == nullptr) return kNoMemory;
  if (key == nullptr || value == nullptr) return fail_with(thread, kBadArgument, "places for key and value are needed");
  uint32_t code = kOk;
  Seat *seat = find_seat(thread, uri, &code);
  if (seat == nullptr) return code;
  if (!seat->iteration.set_up) return kNoIteration;
  if (from_start) seat->iteration.at_key = false;
  return move_on(thread, seat, key, value);
}

}  // namespace

}  // namespace sdb

KS_EXPORT uint32_t sdb_iterator_init(const char *uri, uint32_t flags) {
  sdb::Thread *thread = sdb::enter();
  if (thread == nullptr) return sdb::kNoMemory;
  if (flags != sdb::kIteratorFlags) return sdb::fail_with(thread, sdb::kBadArgument, "sdb_iterator_init takes flags 1");
  uint32_t code = sdb::kOk;
  sdb::Seat *seat = sdb::find_seat(thread, uri, &code);
  if (seat == nullptr) return code;
  seat->iteration.set_up = true;
  seat->iteration.at_key = false;
  return sdb::kOk;
}

KS_EXPORT uint32_t sdb_getkey(const char *uri, const KsSdbDatum **key, const KsSdbDatum **value) {
  return sdb::step(uri, true, key, value);
}

KS_EXPORT uint32_t sdb_getnext(const char *uri, const KsSdbDatum **key, const KsSdbDatum **value) {
  return sdb::step(uri, false, key, value);
}
