// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "host_fork.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>

namespace host {

constinit std::atomic<std::atomic<uint32_t> *> fork_page{nullptr};

namespace {

// Ordinary memory, which a child inherits: its first number comes after its parent's last.
constinit std::atomic<uint32_t> last_generation{0};

// Kernels before 4.14 clear no pages in a child: there the process id is compared, at a system call each. Id and
// generation are one word (id above, generation below), so that of threads that come at once one gives the number.
constinit std::atomic<uint64_t> known_process{0};

constexpr size_t kPageSize = 4096;

uint32_t next_generation() {
  uint32_t generation;
  do {
    generation = last_generation.fetch_add(1, std::memory_order_relaxed) + 1;
  } while (generation == 0);
  return generation;
}

uint32_t generation_by_pid() {
  const auto pid = static_cast<uint32_t>(getpid());
  uint64_t known = known_process.load(std::memory_order_acquire);
  while (known >> 32 != pid) {
    const uint64_t fresh = uint64_t{pid} << 32 | next_generation();
    if (known_process.compare_exchange_weak(known, fresh, std::memory_order_acq_rel)) known = fresh;
  }
  return static_cast<uint32_t>(known);
}

// Returns the page, or null where there can be none.
std::atomic<uint32_t> *make_page() {
  void *fresh = mmap(nullptr, kPageSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (fresh == MAP_FAILED) return nullptr;
  if (madvise(fresh, kPageSize, MADV_WIPEONFORK) != 0) {
    munmap(fresh, kPageSize);
    return nullptr;
  }
  std::atomic<uint32_t> *page = nullptr;
  auto *own = static_cast<std::atomic<uint32_t> *>(fresh);
  if (fork_page.compare_exchange_strong(page, own, std::memory_order_acq_rel)) return own;
  munmap(fresh, kPageSize);
  return page;
}

}  // namespace

uint32_t fork_generation_slow() {
  const int caller_errno = errno;
  std::atomic<uint32_t> *page = fork_page.load(std::memory_order_acquire);
  if (page == nullptr) page = make_page();
  errno = caller_errno;
  if (page == nullptr) return generation_by_pid();

  uint32_t generation = 0;
  const uint32_t fresh = next_generation();
  if (page->compare_exchange_strong(generation, fresh, std::memory_order_acq_rel)) return fresh;
  return generation;
}

}  // namespace host
