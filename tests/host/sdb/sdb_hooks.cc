// Stands before two functions, so that a test can stop or kill a process inside them.
#include <dlfcn.h>
#include <lmdb.h>
#include <sys/syscall.h>

#include "sdb_fixture.h"

void (*at_txn_begin)() = nullptr;
void (*at_sync)() = nullptr;

extern "C" int fdatasync(int fd) {
  if (at_sync != nullptr) at_sync();
  return static_cast<int>(syscall(SYS_fdatasync, fd));
}

extern "C" int mdb_txn_begin(MDB_env *env, MDB_txn *parent, unsigned int flags, MDB_txn **txn) {
  using Begin = int (*)(MDB_env *, MDB_txn *, unsigned int, MDB_txn **);
  static const auto real = reinterpret_cast<Begin>(dlsym(RTLD_NEXT, "mdb_txn_begin"));
  if (at_txn_begin != nullptr) at_txn_begin();
  return real(env, parent, flags, txn);
}
