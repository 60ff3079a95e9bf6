// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// sdb_gate.h: a lock between processes whose wait has an end.
#ifndef SDB_GATE_H
#define SDB_GATE_H

#include <pthread.h>
#include <time.h>

namespace sdb {

// Deadline is an instant of the monotonic clock.
struct Deadline {
  timespec at;

  static Deadline in_ms(long ms);
  bool passed() const;
};

enum class GateResult { kEntered, kTimedOut, kFailed };

// A Gate is two bytes of a file, locked for the process by the kernel, behind a mutex that keeps the threads of the
// process apart. Everybody takes the first byte to wait for the second: one who leaves and comes again at once cannot
// overtake one who waits. The kernel opens the gate of a process that ends in any way, also after a crash of the
// machine; a process that is stopped inside keeps the others out, who give up at their deadline. There is no waiting of
// this kind with a limit in the kernel, so those outside ask again at short intervals.
class Gate {
 public:
  void init(int fd, long first_byte);
  GateResult enter(const Deadline &deadline);
  void leave();

 private:
  pthread_mutex_t threads_;
  int fd_;
  long first_byte_;
};

// Cancellation would leave a gate, or LMDB's own lock, closed for good.
class NoCancellation {
 public:
  NoCancellation() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
  ~NoCancellation() { pthread_setcancelstate(before_, nullptr); }
  NoCancellation(const NoCancellation &) = delete;
  NoCancellation &operator=(const NoCancellation &) = delete;

 private:
  int before_;
};

}  // namespace sdb

#endif
