// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// host_fork.h: tells a process from the one it was forked from, without a system call.
//
// Whatever a library keeps for its process (connections, a mapped ring, an open environment) is copied into a child by
// fork, where it must not be used. So it is kept together with the generation that it was made in, and on entry:
//
//   const uint32_t generation = host::fork_generation();
//   if (state.generation != generation) { /* inherited: leave it alone and make one's own */ }
//
// The usual call is two loads and two branches, where getpid is a system call of 140 ns: an exchange asks six times and
// takes 9 us, a cached read asks twice and takes 0.26 us. (A handler of fork could not be taken back when the library
// is unloaded.) It may be made from any thread, also in a child of a process with many threads, and right after fork;
// it takes no lock, never fails and leaves errno as it was.
#ifndef HOST_FORK_H
#define HOST_FORK_H

#include <atomic>
#include <cstdint>

namespace host {

// A page that the kernel clears in a child; its first word is the generation. Null until the first call.
extern std::atomic<std::atomic<uint32_t> *> fork_page;

uint32_t fork_generation_slow();

// fork_generation returns a number that is never 0, stays the same for the life of a process, and differs from that of
// every process it descends from. Processes that are not ancestor and descendant may have the same.
inline uint32_t fork_generation() {
  if (const std::atomic<uint32_t> *page = fork_page.load(std::memory_order_acquire)) {
    // Acquire: a thread that sees a child's generation sees what was done before it was given.
    if (const uint32_t generation = page->load(std::memory_order_acquire)) return generation;
  }
  return fork_generation_slow();
}

}  // namespace host

#endif
