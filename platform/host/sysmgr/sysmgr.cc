// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// The system manager: what the service's hello says of the calling process, and the sup state from the state page.
#include "sysmgr.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "host_fork.h"
#include "host_socket.h"
#include "host_state.h"

namespace {

// Known is what the service told this process. Once told it holds for the life of the process, so that its id and its
// databases stay the same whatever becomes of the service. A child asks for itself: it may run as somebody else.
struct Known {
  uint32_t generation;  // of host::fork_generation
  uint32_t vdc_id;
  char running_cfg_uri[sizeof(HostHelloReply::running_cfg_uri)];
  Known *before;  // texts that were handed out stay readable
};

constinit std::atomic<Known *> current{nullptr};

const Known *keep(const HostHelloReply &hello, uint32_t generation) {
  auto *fresh = static_cast<Known *>(malloc(sizeof(Known)));
  if (fresh == nullptr) return nullptr;
  fresh->generation = generation;
  fresh->vdc_id = hello.vdc_id;
  memcpy(fresh->running_cfg_uri, hello.running_cfg_uri, sizeof fresh->running_cfg_uri);
  fresh->before = current.load(std::memory_order_acquire);
  do {
    if (fresh->before != nullptr && fresh->before->generation == generation) {  // another thread asked too
      const Known *theirs = fresh->before;
      free(fresh);
      return theirs;
    }
  } while (!current.compare_exchange_weak(fresh->before, fresh, std::memory_order_acq_rel));
  return fresh;
}

// Returns what is known, asking the service the first time; null while it can't be asked, or says that the caller has
// no VDC yet: then the next call asks again.
const Known *known() {
  const uint32_t generation = host::fork_generation();
  const Known *now = current.load(std::memory_order_acquire);
  if (now != nullptr && now->generation == generation) return now;

  const int caller_errno = errno;
  const host::SocketPath path;
  HostHelloReply hello;
  host::Obstacle obstacle;  // which nobody asks for here
  const int socket = host::connect_to_service(path.text, host::kDefaultReceiveLimitMs, &hello, &obstacle);
  if (socket >= 0) close(socket);
  errno = caller_errno;
  if (socket < 0 || hello.vdc_id == HOST_NO_VDC) return nullptr;
  return keep(hello, generation);
}

// Item is a completed URI. Each is made once and kept: the library completes one, and none can be taken back while a
// thread may still read it.
struct Item {
  Item *next;

  char *text() { return reinterpret_cast<char *>(this + 1); }
};

constinit std::atomic<Item *> items{nullptr};

Item *find(Item *first, const char *text) {
  for (Item *item = first; item != nullptr; item = item->next) {
    if (strcmp(item->text(), text) == 0) return item;
  }
  return nullptr;
}

char *append(char *out, const char *text, size_t length) {
  memcpy(out, text, length);
  return out + length;
}

}  // namespace

KS_EXPORT uint32_t sysmgr_vdc_get(void) {
  const Known *now = known();
  return now == nullptr ? HOST_NO_VDC : now->vdc_id;
}

KS_EXPORT uint32_t sysmgr_supstate_get(void) {
  host::refresh_state_page();
  return host::state_page_mapped() ? host::state_word(host::state_page().supstate) : 0;
}

KS_EXPORT const char *sysmgr_running_cfg_uri_get(void) {
  const Known *now = known();
  return now == nullptr ? "" : now->running_cfg_uri;
}

KS_EXPORT const char *sysmgr_uri_complete(const char *base, const char *prefix, const char *name) {
  if (base == nullptr || base[0] == '\0') return "";
  if (prefix == nullptr) prefix = "";
  if (name == nullptr) name = "";
  const size_t base_len = strlen(base);
  const size_t prefix_len = strlen(prefix);
  const size_t name_len = strlen(name);
  auto *fresh = static_cast<Item *>(malloc(sizeof(Item) + base_len + 1 + prefix_len + name_len + 1));
  if (fresh == nullptr) return "";
  char *end = append(fresh->text(), base, base_len);
  if (end[-1] != '/') *end++ = '/';
  end = append(end, prefix, prefix_len);
  end = append(end, name, name_len);
  *end = '\0';

  fresh->next = items.load(std::memory_order_acquire);
  do {
    if (Item *there = find(fresh->next, fresh->text())) {
      free(fresh);
      return there->text();
    }
  } while (!items.compare_exchange_weak(fresh->next, fresh, std::memory_order_acq_rel));
  return fresh->text();
}
