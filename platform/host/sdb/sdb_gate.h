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

enum class GateResult {
  kEntered,
  kTimedOut,
  kFailed,  // errno tells why
  kGone,    // the gate's memory isn't there any more
};

// Pause is what lies between two attempts at a lock, longer each time.
class Pause {
 public:
  void sleep();

 private:
  long ns_ = 50'000;
};

// Both gates are two locks, of which everybody takes the first to wait for the second: one who leaves and comes again
// at once cannot overtake one who waits. The kernel opens the gate of a process that ends in any way; a process that is
// stopped inside keeps the others out, who give up at their deadline. Those outside ask again at short intervals.

// A Gate is two bytes of a file, locked for the process by the kernel, behind a mutex that keeps the threads of the
// process apart. It is there before anything of the database is.
class Gate {
 public:
  void init(int fd);
  GateResult enter(const Deadline &deadline);
  void leave();

 private:
  pthread_mutex_t threads_;
  int fd_;
};

// A CommitGate is two of the C library's locks in memory that all processes share: where nobody else wants to commit,
// it takes 0.1 us instead of the 2 us of locks on a file. It is only ever asked whether it is open, never waited for,
// since the memory is a file's, which somebody may cut: `look` is called behind each pause and ends the attempt unless
// it gives kEntered. With kGone the memory must not be touched any more.
class CommitGate {
 public:
  // Returns 0 or an error number.
  int make();

  template <typename Look>
  GateResult enter(const Deadline &deadline, const Look &look) {
    GateResult result = lock(&next_, deadline, look);
    if (result != GateResult::kEntered) return result;
    result = lock(&inside_, deadline, look);
    if (result != GateResult::kGone) pthread_mutex_unlock(&next_);
    return result;
  }

  void leave() { pthread_mutex_unlock(&inside_); }

 private:
  template <typename Look>
  static GateResult lock(pthread_mutex_t *mutex, const Deadline &deadline, const Look &look) {
    Pause pause;
    for (;;) {
      const GateResult result = try_lock(mutex);
      if (result != GateResult::kTimedOut || deadline.passed()) return result;
      pause.sleep();
      if (const GateResult looked = look(); looked != GateResult::kEntered) return looked;
    }
  }

  // kTimedOut: somebody else has it.
  static GateResult try_lock(pthread_mutex_t *mutex);

  pthread_mutex_t next_;
  pthread_mutex_t inside_;
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
