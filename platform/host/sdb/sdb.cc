// sdb.cc: opening and reading.
#include "sdb.h"

#include <lmdb.h>

#include <cstring>

#include "sdb_check.h"
#include "sdb_codes.h"
#include "sdb_database.h"
#include "sdb_guard.h"
#include "sdb_reading.h"
#include "sdb_thread.h"
#include "sdb_value.h"

namespace sdb {

namespace {

constexpr uint32_t kOpenFlags = 1;

const KsSdbDatum *read_value(Thread *thread, const char *uri, const KsSdbDatum *key, uint32_t *out_code) {
  *out_code = check_key(thread, key);
  if (*out_code != kOk) return nullptr;
  Seat *seat = find_seat(thread, uri, out_code);
  if (seat == nullptr) return nullptr;
  *out_code = begin_read(thread, seat);
  if (*out_code != kOk) return nullptr;

  MDB_val wanted{key->size, const_cast<void *>(key->data)};
  MDB_val stored{};
  const int result = guarded(thread, [&] { return mdb_get(seat->reader, seat->database->entries, &wanted, &stored); });
  *out_code = result == 0 ? copy_stored(thread, stored) : code_of_lmdb(result);
  end_read(seat);
  // The check is made on the copy: the pages are given back as early as can be.
  if (*out_code == kOk) *out_code = hand_out_value(thread, key->data, key->size, stored.mv_size);
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
