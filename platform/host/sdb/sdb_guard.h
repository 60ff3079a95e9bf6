// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// sdb_guard.h: calls of LMDB that come back even from pages that make no sense.
#ifndef SDB_GUARD_H
#define SDB_GUARD_H

#include <lmdb.h>
#include <setjmp.h>

#include "sdb_thread.h"

namespace sdb {

// guarded calls `work`, which calls LMDB and holds nothing that would have to be released. Where LMDB finds an
// assumption broken, which would end the process, the result is MDB_CORRUPTED.
template <typename Work>
[[gnu::noinline]] int guarded(Thread *thread, const Work &work) {
  if (_setjmp(thread->escape) != 0) {
    thread->escape_set = false;
    return MDB_CORRUPTED;
  }
  thread->escape_set = true;
  const int result = work();
  thread->escape_set = false;
  return result;
}

}  // namespace sdb

#endif
