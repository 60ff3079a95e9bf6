// host_state.h: the service's state page as a library sees it: sup state and trace gates, changing while it looks.
#ifndef HOST_STATE_H
#define HOST_STATE_H

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "host_wire.h"

namespace host {

inline constexpr size_t kPageSize = 4096;

// StateArea is a page of the library's own image that the service's page is mapped over, so that reading a word needs
// no pointer. Until then every gate in it looks open, which sends the caller to find out what holds, and `magic` is 0.
union StateArea {
  HostStatePage page;
  uint8_t bytes[kPageSize];
};
alignas(kPageSize) extern StateArea state_area;

inline uint32_t state_word(const uint32_t &word) {
  return __atomic_load_n(&word, __ATOMIC_RELAXED);
}
inline bool state_page_mapped() {
  return state_word(state_area.page.magic) == HOST_STATE_MAGIC;
}

// refresh_state_page maps the page if it can be, and another that has taken its place since. That costs a system call
// or two. Callable from any thread; what was mapped stays when nothing better is found. Leaves errno as it was.
void refresh_state_page();

}  // namespace host

#endif
