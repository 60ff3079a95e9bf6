// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// host_state.h: the service's state page as a library sees it: sup state and trace gates, changing while it looks.
#ifndef HOST_STATE_H
#define HOST_STATE_H

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "host_wire.h"

namespace host {

// state_page is the page as it is mapped now; what it pointed to before stays mapped. Never null: at first it is a page
// of the library's own, in which every gate looks open, so that the caller goes and finds out what holds, and `magic`
// is 0.
extern std::atomic<const HostStatePage *> state_page_in_use;
inline const HostStatePage &state_page() {
  return *state_page_in_use.load(std::memory_order_acquire);
}

inline uint32_t state_word(const uint32_t &word) {
  return __atomic_load_n(&word, __ATOMIC_RELAXED);
}
inline bool state_page_mapped() {
  return state_word(state_page().magic) == HOST_STATE_MAGIC;
}

// refresh_state_page maps the page if it can be, and another that has taken its place since. That costs a system call
// or two. Callable from any thread; what was mapped stays when nothing better is found. Leaves errno as it was.
void refresh_state_page();

}  // namespace host

#endif
