// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "sdb_database.h"

#include <pthread.h>

#include <atomic>
#include <cstdlib>
#include <cstring>

#include "host_fork.h"
#include "sdb_codes.h"
#include "sdb_folder.h"
#include "sdb_opening.h"

namespace sdb {

namespace {

// Process is what belongs to one process. A child of fork makes its own and keeps its parent's, to know what was open:
// the parent's environments themselves are left as they are, since closing one would free the parent's reader slots.
struct Process {
  uint32_t generation;
  Process *parent;
  std::atomic<Database *> databases;
  pthread_mutex_t opening;
};

constinit std::atomic<Process *> current_process{nullptr};

Process *this_process() {
  Process *process = current_process.load(std::memory_order_acquire);
  const uint32_t generation = host::fork_generation();
  if (process != nullptr && process->generation == generation) return process;

  auto *own = static_cast<Process *>(calloc(1, sizeof(Process)));
  if (own == nullptr) return nullptr;
  own->generation = generation;
  own->parent = process;
  pthread_mutex_init(&own->opening, nullptr);
  if (current_process.compare_exchange_strong(process, own, std::memory_order_acq_rel)) return own;
  free(own);
  return process;
}

Database *find_in(const Process *process, const char *uri) {
  Database *database = process->databases.load(std::memory_order_acquire);
  while (database != nullptr && strcmp(database->uri, uri) != 0) database = database->next;
  return database;
}

bool was_open_before_fork(const Process *process, const char *uri) {
  for (const Process *before = process->parent; before != nullptr; before = before->parent) {
    if (find_in(before, uri) != nullptr) return true;
  }
  return false;
}

uint32_t open_in(Thread *thread, Process *process, const char *uri) {
  Location location;
  if (!parse_uri(uri, &location)) return fail_with(thread, kBadUri, "%s", uri == nullptr ? "none given" : uri);
  const NoCancellation no_cancellation;
  const Deadline deadline = Deadline::in_ms(kOpenDeadlineMs);
  if (pthread_mutex_clocklock(&process->opening, CLOCK_MONOTONIC, &deadline.at) != 0) {
    return fail_with(thread, kRetry, "another thread is opening a database");
  }
  uint32_t code = kOk;
  if (find_in(process, uri) == nullptr) {
    Database *const others = process->databases.load(std::memory_order_acquire);
    Database *opened = nullptr;
    code = open_at(thread, uri, location, others, deadline, &opened);
    if (code == kOk) {
      opened->next = others;
      process->databases.store(opened, std::memory_order_release);
    }
  }
  pthread_mutex_unlock(&process->opening);
  return code;
}

}  // namespace

uint32_t open_database(Thread *thread, const char *uri) {
  Process *process = this_process();
  return process == nullptr ? kNoMemory : open_in(thread, process, uri);
}

Database *find_database(Thread *thread, const char *uri, uint32_t *out_code) {
  Process *process = this_process();
  if (process == nullptr || uri == nullptr) {
    *out_code = process == nullptr ? kNoMemory : kBadUri;
    return nullptr;
  }
  if (Database *database = find_in(process, uri)) return database;

  Location location;
  if (!parse_uri(uri, &location)) {
    *out_code = kBadUri;
    return nullptr;
  }
  *out_code = was_open_before_fork(process, uri) ? open_in(thread, process, uri) : kNotOpen;
  return *out_code == kOk ? find_in(process, uri) : nullptr;
}

}  // namespace sdb
