// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "sdb_gate.h"

#include <fcntl.h>

#include <cerrno>

namespace sdb {

namespace {

constexpr long kNsPerMs = 1'000'000;
constexpr long kLongestPauseNs = kNsPerMs;

int set_lock(int fd, short type, long byte) {
  struct flock lock {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  lock.l_start = byte;
  lock.l_len = 1;
  return fcntl(fd, F_SETLK, &lock);
}

// Of the bytes, who holds the first is next to hold the second.
enum : long { kWaiting, kInside };

GateResult lock_byte(int fd, long byte, const Deadline &deadline) {
  Pause pause;
  while (set_lock(fd, F_WRLCK, byte) != 0) {
    const bool closed = errno == EAGAIN || errno == EACCES || errno == EINTR;
    if (!closed) return GateResult::kFailed;
    if (deadline.passed()) return GateResult::kTimedOut;
    pause.sleep();
  }
  return GateResult::kEntered;
}

}  // namespace

Deadline Deadline::in_ms(long ms) {
  Deadline deadline;
  clock_gettime(CLOCK_MONOTONIC, &deadline.at);
  deadline.at.tv_sec += ms / 1000;
  deadline.at.tv_nsec += ms % 1000 * kNsPerMs;
  if (deadline.at.tv_nsec >= 1000 * kNsPerMs) {
    deadline.at.tv_nsec -= 1000 * kNsPerMs;
    ++deadline.at.tv_sec;
  }
  return deadline;
}

bool Deadline::passed() const {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec > at.tv_sec || (now.tv_sec == at.tv_sec && now.tv_nsec >= at.tv_nsec);
}

void Pause::sleep() {
  const timespec pause{0, ns_};
  nanosleep(&pause, nullptr);
  if (ns_ < kLongestPauseNs) ns_ *= 2;
}

void Gate::init(int fd) {
  pthread_mutex_init(&threads_, nullptr);
  fd_ = fd;
}

GateResult Gate::enter(const Deadline &deadline) {
  if (pthread_mutex_clocklock(&threads_, CLOCK_MONOTONIC, &deadline.at) != 0) return GateResult::kTimedOut;
  GateResult result = lock_byte(fd_, kWaiting, deadline);
  if (result == GateResult::kEntered) {
    result = lock_byte(fd_, kInside, deadline);
    set_lock(fd_, F_UNLCK, kWaiting);
  }
  if (result != GateResult::kEntered) pthread_mutex_unlock(&threads_);
  return result;
}

void Gate::leave() {
  set_lock(fd_, F_UNLCK, kInside);
  pthread_mutex_unlock(&threads_);
}

int CommitGate::make() {
  pthread_mutexattr_t attributes;
  int error = pthread_mutexattr_init(&attributes);
  if (error == 0) error = pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
  if (error == 0) error = pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
  if (error == 0) error = pthread_mutex_init(&next_, &attributes);
  if (error == 0) error = pthread_mutex_init(&inside_, &attributes);
  return error;
}

GateResult CommitGate::try_lock(pthread_mutex_t *mutex) {
  int error = pthread_mutex_trylock(mutex);
  if (error == EOWNERDEAD) error = pthread_mutex_consistent(mutex);
  if (error == 0) return GateResult::kEntered;
  errno = error;
  return error == EBUSY ? GateResult::kTimedOut : GateResult::kFailed;
}

}  // namespace sdb
