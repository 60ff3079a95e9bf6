// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// read_mostly_lock.h: the lock between the readers of the table and the thread that changes it.
#ifndef SERVICE_VAULT_READ_MOSTLY_LOCK_H
#define SERVICE_VAULT_READ_MOSTLY_LOCK_H

#include <pthread.h>

namespace ksd::vault {

// ReadMostlyLock lets a waiting writer in before further readers, which std::shared_mutex doesn't. Neither ever waits
// for the disk while holding it.
class ReadMostlyLock {
 public:
  ReadMostlyLock() {
    pthread_rwlockattr_t attributes;
    pthread_rwlockattr_init(&attributes);
    pthread_rwlockattr_setkind_np(&attributes, PTHREAD_RWLOCK_PREFER_WRITER_NONRECURSIVE_NP);
    pthread_rwlock_init(&lock_, &attributes);
    pthread_rwlockattr_destroy(&attributes);
  }
  ~ReadMostlyLock() { pthread_rwlock_destroy(&lock_); }
  ReadMostlyLock(const ReadMostlyLock &) = delete;
  ReadMostlyLock &operator=(const ReadMostlyLock &) = delete;

  void lock() { pthread_rwlock_wrlock(&lock_); }
  void unlock() { pthread_rwlock_unlock(&lock_); }
  void lock_shared() { pthread_rwlock_rdlock(&lock_); }
  void unlock_shared() { pthread_rwlock_unlock(&lock_); }

 private:
  pthread_rwlock_t lock_;
};

}  // namespace ksd::vault

#endif
