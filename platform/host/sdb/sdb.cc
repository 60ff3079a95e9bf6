// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// sdb.cc: opening and reading.
#include "sdb.h"

#include <lmdb.h>
#include <time.h>

#include <cstring>

#include "sdb_check.h"
#include "sdb_codes.h"
#include "sdb_database.h"
#include "sdb_reading.h"
#include "sdb_thread.h"
#include "sdb_value.h"

namespace sdb {

namespace {

constexpr uint32_t kOpenFlags = 1;

int64_t tick_now() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

Copy &copy_of(Seat *seat, const KsSdbDatum &key) {
  const auto *bytes = static_cast<const uint8_t *>(key.data);
  return seat->copies[(bytes[key.size / 2] ^ bytes[key.size - 1]) % kCopies];
}

bool holds(const Copy &copy, const KsSdbDatum &key, int64_t tick) {
  return copy.tick == tick && copy.key_size == key.size &&
         memcmp(copy.bytes + copy.stored_size, key.data, key.size) == 0;
}

// What was read while a commit was made may be of before or after it.
void keep(Copy *copy, const Thread &thread, const KsSdbDatum &key, size_t stored_size, int64_t tick, uint32_t changes) {
  copy->key_size = 0;
  if (changes % 2 != 0 || stored_size + key.size > sizeof copy->bytes) return;
  memcpy(copy->bytes, thread.value_buffer.data, stored_size);
  memcpy(copy->bytes + stored_size, key.data, key.size);
  copy->stored_size = static_cast<uint32_t>(stored_size);
  copy->key_size = key.size;
  copy->tick = tick;
  copy->changes = changes;
}

const KsSdbDatum *read_value(Thread *thread, const char *uri, const KsSdbDatum *key, uint32_t *out_code) {
  *out_code = check_key(thread, key);
  if (*out_code != kOk) return nullptr;
  Seat *seat = find_seat(thread, uri, out_code);
  if (seat == nullptr) return nullptr;
  const int64_t tick = tick_now();
  Copy &copy = copy_of(seat, *key);
  if (holds(copy, *key, tick) && copy.changes == changes_now(*seat->database)) {
    *out_code = copy.stored_size == 0 ? kNoKey : kOk;
    if (copy.stored_size == 0) return nullptr;
    thread->value = {copy.bytes + sizeof(Check), static_cast<uint32_t>(copy.stored_size - sizeof(Check))};
    return &thread->value;
  }

  const MDB_val wanted{key->size, const_cast<void *>(key->data)};
  MDB_val stored{};
  *out_code = read_in(
      thread, seat, [&](size_t txn_id) { return find_entry(*seat->database, txn_id, wanted, &stored); },
      [&] { return copy_stored(thread, stored); });
  // The check is made on the copy: the pages are given back as early as can be.
  if (*out_code == kOk) *out_code = hand_out_value(thread, key->data, key->size, stored.mv_size);
  if (*out_code != kOk && *out_code != kNoKey) return nullptr;
  keep(&copy, *thread, *key, *out_code == kOk ? stored.mv_size : 0, tick, seat->changes_seen);
  return *out_code == kOk ? &thread->value : nullptr;
}

}  // namespace

}  // namespace sdb

KS_EXPORT uint32_t sdb_open(const char *uri, uint32_t flags, uint32_t /*app_uuid*/, uint32_t zero1, uint32_t zero2) {
  sdb::Thread *thread = sdb::enter();
  if (thread == nullptr) return sdb::kNoMemory;
  if (flags != sdb::kOpenFlags || zero1 != 0 || zero2 != 0) {
    return sdb::fail_with(thread, sdb::kBadArgument, "sdb_open takes flags 1 and two zeros");
  }
  return sdb::open_database(thread, uri);
}

KS_EXPORT const KsSdbDatum *sdb_read(const char *uri, const KsSdbDatum *key, uint32_t *error) {
  uint32_t code = sdb::kNoMemory;
  const KsSdbDatum *value = nullptr;
  if (sdb::Thread *thread = sdb::enter()) value = sdb::read_value(thread, uri, key, &code);
  if (error != nullptr) *error = code;
  return value;
}
