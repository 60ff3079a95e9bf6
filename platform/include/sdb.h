// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

/* sdb.h: what the library needs of the shared database (libsdb).
 *
 * A database is named by its URI in every call and open for the life of the process. Codes are 0 for success; the
 * library tells four others apart and takes any other for a failure. Callable from any thread. */
#ifndef PLATFORM_SDB_H
#define PLATFORM_SDB_H

#include "ks_types.h"

#define KS_SDB_ERR_RETRY UINT32_C(0x411a0008)   /* sdb_open could not open for now; the library tries again */
#define KS_SDB_ERR_NO_URI UINT32_C(0x411a000f)  /* no database is open at that URI */
#define KS_SDB_ERR_BAD_URI UINT32_C(0x411a0011) /* the URI is malformed */
#define KS_SDB_ERR_NO_KEY UINT32_C(0x40480003)  /* no such key */

/* sdb_open opens the database at `uri`. `flags` is 1, the last two arguments are 0. Opening an open database is a
 * success. */
KS_EXTERN_C uint32_t sdb_open(const char *uri, uint32_t flags, uint32_t app_uuid, uint32_t zero1, uint32_t zero2);

/* sdb_read returns the value of `key`, or NULL, and stores 0 or an error code in `error` in every case. The value
 * belongs to libsdb and is valid until the calling thread's next call of an sdb function. */
KS_EXTERN_C const KsSdbDatum *sdb_read(const char *uri, const KsSdbDatum *key, uint32_t *error);

/* sdb_write prepares to store `value` under `key`, and sdb_delete to remove `key`, copying what they are given. The
 * change is made by the calling thread's sdb_write_done, and is not there when that fails. */
KS_EXTERN_C uint32_t sdb_write(const char *uri, const KsSdbDatum *key, const KsSdbDatum *value);
KS_EXTERN_C uint32_t sdb_delete(const char *uri, const KsSdbDatum *key);
KS_EXTERN_C uint32_t sdb_write_done(const char *uri);

/* sdb_iterator_init sets up the calling thread's iteration over all keys. `flags` is 1. */
KS_EXTERN_C uint32_t sdb_iterator_init(const char *uri, uint32_t flags);

/* sdb_getkey moves to the first entry and sdb_getnext to the next; both return non-zero when there is none. They store
 * pointers to the key and to the value, which belong to libsdb. Deleting the key just handed out neither ends nor
 * disturbs the iteration, and the key stays readable until the next move. */
KS_EXTERN_C uint32_t sdb_getkey(const char *uri, const KsSdbDatum **key, const KsSdbDatum **value);
KS_EXTERN_C uint32_t sdb_getnext(const char *uri, const KsSdbDatum **key, const KsSdbDatum **value);

/* syserr2str returns a printable text for a code, known or not. Never NULL. It belongs to libsdb and is valid until
 * the calling thread's next call of syserr2str. */
KS_EXTERN_C const char *syserr2str(uint32_t code);

#endif
