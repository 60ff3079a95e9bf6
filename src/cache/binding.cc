// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// The binding to the shared database: its URI, whether it is open, and read, write and delete with their reports. It
// knows nothing of what keys and values mean.
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "ks_api.h"
#include "sdb.h"
#include "sysmgr.h"
#include "transport/trace.h"

namespace {

constexpr int kAttempts = 5;
constexpr useconds_t kPause = 1000;  // microseconds
constexpr uint32_t kKeyTypeSize = 4;

void learn_uri() {
  char uri[sizeof ks_cache_uri] = {};
  static_cast<void>(
      snprintf(uri, sizeof uri, "%s", sysmgr_uri_complete(sysmgr_running_cfg_uri_get(), "sksd_", "ks_cache_data")));
  memcpy(ks_cache_uri, uri, sizeof ks_cache_uri);
}

// A report for each byte. No function's name is in these, so that the three operations share them.
void report_key_bytes(const void *key, uint32_t key_size) {
  const auto *bytes = static_cast<const uint8_t *>(key);
  // DIFFERS(cache-key-type-bytes): four bytes whatever the size, unlike the rest. Levelled, a shorter key would make
  // fewer reports, and nothing behind it would be read.
  for (uint32_t i = 0; i < kKeyTypeSize; ++i) KS_TRACE(KS_SUBTYPE_NORMAL, "key_type[%d]=%x ", i, bytes[i]);
  for (uint32_t i = kKeyTypeSize; i < key_size; ++i) KS_TRACE(KS_SUBTYPE_NORMAL, "key_handle[%d]=%x ", i, bytes[i]);
}

}  // namespace

KsResult ks_sdb_init(uint32_t uuid) {
  learn_uri();
  // DIFFERS(cache-open-flags): the report says 4 where the call below passes 1. Levelled, its text or the mode of the
  // opening would change.
  KS_TRACE_HERE(KS_SUBTYPE_NORMAL, ":Opening uri for caching (%s) with flags: 0x%x.\n", ks_cache_uri, 4);

  for (int retries = 0;;) {
    KS_TRACE_HERE(KS_SUBTYPE_NORMAL, ":Opening uri for caching: %s. Retry count: %d.\n", ks_cache_uri, retries);
    const uint32_t code = sdb_open(ks_cache_uri, 1, uuid, 0, 0);
    if (code == 0) {
      ks_cache_present = 1;
      KS_TRACE_HERE(KS_SUBTYPE_NORMAL, ":SDB Open successful.\n");
      return KS_SUCCESS;
    }
    KS_TRACE_HERE(KS_SUBTYPE_NORMAL, ":SDB open failed. (%s).\n", syserr2str(code));
    if (code != KS_SDB_ERR_RETRY || ++retries == kAttempts) {
      ks_cache_present = 0;
      return KS_FAILURE;
    }
    usleep(kPause);
  }
}

uint32_t is_cache_present(void) {
  KS_TRACE_HERE(KS_SUBTYPE_NORMAL, ":ks_cache_present = %d.", ks_cache_present);
  return ks_cache_present;
}

const KsSdbDatum *sksd_sdb_read(const void *key, uint32_t key_size, uint32_t *error) {
  KS_TRACE_HERE(KS_SUBTYPE_NORMAL, ":Reading from uri %s with key size = %d, key = ", ks_cache_uri, key_size);
  report_key_bytes(key, key_size);

  const KsSdbDatum key_datum = {.data = key, .size = key_size};
  const KsSdbDatum *value = sdb_read(ks_cache_uri, &key_datum, error);
  if (value != nullptr) {
    KS_TRACE_HERE(KS_SUBTYPE_NORMAL, ":SDB Read successful.");
  } else {
    KS_TRACE_HERE(KS_SUBTYPE_NORMAL, ":SDB read on uri %s failed. (%s).\n", ks_cache_uri, syserr2str(*error));
  }
  return value;
}

uint32_t sksd_sdb_write(const void *key, uint32_t key_size, const void *value, uint32_t value_size) {
  KS_TRACE_HERE(KS_SUBTYPE_NORMAL, ":Writing into uri %s with key size = %d, key = ", ks_cache_uri, key_size);
  report_key_bytes(key, key_size);

  const KsSdbDatum key_datum = {.data = key, .size = key_size};
  const KsSdbDatum value_datum = {.data = value, .size = value_size};
  if (const uint32_t code = sdb_write(ks_cache_uri, &key_datum, &value_datum); code != 0) {
    KS_TRACE_HERE(KS_SUBTYPE_NORMAL, ":SDB write on uri %s failed. (%s).\n", ks_cache_uri, syserr2str(code));
    return code;
  }

  const uint32_t done = sdb_write_done(ks_cache_uri);
  if (done == 0) {
    KS_TRACE_HERE(KS_SUBTYPE_NORMAL, ":PAC stored in shared DB.\n");
  } else if (done == KS_SDB_ERR_BAD_URI) {
    KS_TRACE_HERE(KS_SUBTYPE_CACHE_ALERT, ":URI format is invalid. \n");
  } else {
    KS_TRACE_HERE(KS_SUBTYPE_NORMAL, ":SDB write_done on uri %s failed. (%s).\n", ks_cache_uri, syserr2str(done));
  }
  return done;
}

uint32_t sksd_sdb_delete(const void *key, uint32_t key_size) {
  KS_TRACE_HERE(KS_SUBTYPE_NORMAL, ":Deleting from uri %s with key size = %d, key = ", ks_cache_uri, key_size);
  report_key_bytes(key, key_size);

  const KsSdbDatum key_datum = {.data = key, .size = key_size};
  if (const uint32_t code = sdb_delete(ks_cache_uri, &key_datum); code != 0) {
    KS_TRACE_HERE(KS_SUBTYPE_NORMAL, ":SDB delete on uri %s failed. (%s).\n", ks_cache_uri, syserr2str(code));
    return code;
  }

  const uint32_t done = sdb_write_done(ks_cache_uri);
  if (done == 0) {
    KS_TRACE_HERE(KS_SUBTYPE_NORMAL, ":SDB delete successful.");
  } else if (done == KS_SDB_ERR_BAD_URI) {
    KS_TRACE_HERE(KS_SUBTYPE_CACHE_ALERT, ":URI format is invalid. \n");
  } else {
    KS_TRACE_HERE(KS_SUBTYPE_NORMAL, ":SDB write_done on uri %s failed while deleting. (%s).\n", ks_cache_uri,
                  syserr2str(done));
  }
  return done;
}
