// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// Stands before two functions, so that a test can stop or kill a process inside them.
#include <dlfcn.h>
#include <lmdb.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "sdb_fixture.h"

void (*at_txn_begin)() = nullptr;
void (*at_head_write)() = nullptr;
int txn_begin_result = 0;
int failing_allocation = 0;

// LMDB writes a commit's pages, and then one of the two heads, each of which lies within a page of its own.
extern "C" ssize_t pwrite(int fd, const void *bytes, size_t size, off_t offset) {
  constexpr off_t kHeads = 2 * 4096;
  if (at_head_write != nullptr && offset < kHeads && offset % 4096 != 0) at_head_write();
  using Write = ssize_t (*)(int, const void *, size_t, off_t);
  static const auto real = reinterpret_cast<Write>(dlsym(RTLD_NEXT, "pwrite"));
  return real(fd, bytes, size, offset);
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

extern "C" void *malloc(size_t size) noexcept {
  return fails(__builtin_return_address(0)) ? nullptr : __libc_malloc(size);
}

extern "C" void *calloc(size_t count, size_t size) noexcept {
  return fails(__builtin_return_address(0)) ? nullptr : __libc_calloc(count, size);
}

#endif
