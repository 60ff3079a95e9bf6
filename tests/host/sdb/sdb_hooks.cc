// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// Stands before two functions, so that a test can stop or kill a process inside them.
#include <dlfcn.h>
#include <lmdb.h>

#include <cerrno>
#include <cstring>

#include "sdb_fixture.h"

void (*at_txn_begin)() = nullptr;
void (*at_sync)() = nullptr;
int txn_begin_result = 0;
int failing_allocation = 0;

// No machine crashes here: what the kernel has is enough, and the tests don't wait for a disk.
extern "C" int fdatasync(int) {
  if (at_sync != nullptr) at_sync();
  return 0;
}

extern "C" int mdb_txn_begin(MDB_env *env, MDB_txn *parent, unsigned int flags, MDB_txn **txn) {
  using Begin = int (*)(MDB_env *, MDB_txn *, unsigned int, MDB_txn **);
  static const auto real = reinterpret_cast<Begin>(dlsym(RTLD_NEXT, "mdb_txn_begin"));
  if (at_txn_begin != nullptr) at_txn_begin();
  if (txn_begin_result != 0) return txn_begin_result;
  return real(env, parent, flags, txn);
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

extern "C" void *__libc_malloc(size_t size);
extern "C" void *__libc_calloc(size_t count, size_t size);

// Whether the allocation that this code makes is the one to fail.
static bool fails(const void *caller) {
  if (failing_allocation < 1) return false;
  Dl_info info;
  if (dladdr(caller, &info) == 0 || strstr(info.dli_fname, "libsdb.so") == nullptr) return false;
  if (--failing_allocation > 0) return false;
  errno = ENOMEM;
  return true;
}

extern "C" void *malloc(size_t size) {
  return fails(__builtin_return_address(0)) ? nullptr : __libc_malloc(size);
}

extern "C" void *calloc(size_t count, size_t size) {
  return fails(__builtin_return_address(0)) ? nullptr : __libc_calloc(count, size);
}

#endif
