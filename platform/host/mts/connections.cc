// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "connections.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>

#include "channel.h"
#include "host_fork.h"
#include "host_socket.h"

namespace mts {

// KnownPath keeps a path that was ever in use: connections point to theirs. A service that was once there and has
// stopped is waited for no longer than it asked for itself.
struct KnownPath {
  host::SocketPath path;
  std::atomic<uint32_t> receive_limit_ms;
  KnownPath *before;
};

namespace {

// A token is a slot's index below and the serial number of its exchange above, which starts at 1.
constexpr uint32_t kIndexBits = 12;
constexpr uint32_t kIndexMask = (UINT32_C(1) << kIndexBits) - 1;
constexpr uint32_t kSerialLimit = UINT32_C(1) << (32 - kIndexBits);

// The states of a slot.
constexpr uint32_t kStateBits = 2;
constexpr uint32_t kStateMask = (1 << kStateBits) - 1;
constexpr uint32_t kEmpty = 0;     // no connection
constexpr uint32_t kIdle = 1;      // a connection that nobody uses
constexpr uint32_t kOwned = 2;     // somebody's, with or without a connection
constexpr uint32_t kAwaiting = 3;  // the request is sent; belongs to who holds the token

constexpr uint32_t kExchangesBeforeChannel = 16;

constexpr uint32_t kChunkSlots = 64;
constexpr uint32_t kChunkCount = (1 << kIndexBits) / kChunkSlots;

// Pool is the table of one process. Slots are made in chunks and stay for the life of the process.
struct Pool {
  uint32_t generation;         // of host::fork_generation
  Pool *inherited;             // the pool of the process that this one was forked from: closed, and left alone
  std::atomic<uint32_t> used;  // slots below this have been in use
  std::atomic<Slot *> chunks[kChunkCount];
};

constinit std::atomic<Pool *> current_pool{nullptr};

constinit std::atomic<KnownPath *> current_path{nullptr};

// Threads keep to a connection: the kernel then keeps the thread and its partner in the service on one processor. The
// model spares a dependency on the dynamic linker.
[[gnu::tls_model("initial-exec")]] constinit thread_local Slot *preferred = nullptr;

uint32_t state_of(uint32_t word) {
  return word & kStateMask;
}
uint32_t with_state(uint32_t word, uint32_t state) {
  return (word & ~kStateMask) | state;
}
uint32_t serial_of(uint32_t word) {
  return word >> kStateBits;
}

Identity identity_of(int file) {
  struct stat status;
  if (fstat(file, &status) != 0) return {};
  return {.device = status.st_dev, .inode = status.st_ino};
}

void close_socket(Slot *slot) {
  if (owns_socket(slot)) close(slot->socket);
  slot->socket = -1;
}

void close_connection(Slot *slot) {
  if (slot->channel != nullptr) unmap_channel(slot->channel);
  slot->channel = nullptr;
  close_socket(slot);
}

Slot *slot_at(const Pool *pool, uint32_t index) {
  Slot *chunk = pool->chunks[index / kChunkSlots].load(std::memory_order_acquire);
  return chunk == nullptr ? nullptr : chunk + index % kChunkSlots;
}

// Every process that is forked from one which sends gets a pool of its own. The child closes its copies of the
// sockets, so that the connections end when the parent closes them, and leaves the parent's exchanges alone. It has no
// copy of a channel.
Pool *make_pool(Pool *inherited, uint32_t generation) {
  auto *pool = static_cast<Pool *>(calloc(1, sizeof(Pool)));
  if (pool == nullptr) return nullptr;
  pool->generation = generation;
  pool->inherited = inherited;
  Pool *expected = inherited;
  if (!current_pool.compare_exchange_strong(expected, pool, std::memory_order_acq_rel)) {
    free(pool);
    return expected;
  }
  if (inherited != nullptr) {
    const uint32_t used = inherited->used.load(std::memory_order_acquire);
    for (uint32_t i = 0; i < used; i++) {
      if (Slot *slot = slot_at(inherited, i)) close_socket(slot);
    }
  }
  return pool;
}

// Returns this process's pool, or null without memory.
Pool *own_pool() {
  const uint32_t generation = host::fork_generation();
  Pool *pool = current_pool.load(std::memory_order_acquire);
  if (pool != nullptr && pool->generation == generation) return pool;
  return make_pool(pool, generation);
}

// Returns the slot, made if need be, or null without memory.
Slot *slot_made(Pool *pool, uint32_t index) {
  if (Slot *slot = slot_at(pool, index)) return slot;
  auto *chunk = static_cast<Slot *>(aligned_alloc(alignof(Slot), kChunkSlots * sizeof(Slot)));
  if (chunk == nullptr) return nullptr;
  const uint32_t first = index - index % kChunkSlots;
  // A parent's token is to mean nothing in its child.
  const uint32_t first_serial = pool->generation * 7919 % kSerialLimit;
  for (uint32_t i = 0; i < kChunkSlots; i++) {
    new (&chunk[i]) Slot{};
    chunk[i].index = first + i;
    chunk[i].generation = pool->generation;
    chunk[i].word.store(first_serial << kStateBits | kEmpty, std::memory_order_relaxed);
    chunk[i].socket = -1;
  }
  Slot *there = nullptr;
  if (!pool->chunks[index / kChunkSlots].compare_exchange_strong(there, chunk, std::memory_order_acq_rel)) {
    free(chunk);
    chunk = there;
  }
  return chunk + index % kChunkSlots;
}

// Takes the slot if it is in `state`.
bool take_from(Slot *slot, uint32_t state) {
  uint32_t word = slot->word.load(std::memory_order_relaxed);
  return state_of(word) == state &&
         slot->word.compare_exchange_strong(word, with_state(word, kOwned), std::memory_order_acq_rel);
}

Slot *take_idle(Pool *pool) {
  const uint32_t used = pool->used.load(std::memory_order_acquire);
  for (uint32_t i = 0; i < used; i++) {
    Slot *slot = slot_at(pool, i);
    if (slot != nullptr && take_from(slot, kIdle)) return slot;
  }
  return nullptr;
}

Slot *take_empty(Pool *pool) {
  for (uint32_t i = 0; i < kChunkCount * kChunkSlots; i++) {
    Slot *slot = slot_made(pool, i);
    if (slot == nullptr) return nullptr;  // with what the allocation says
    if (!take_from(slot, kEmpty)) continue;
    uint32_t used = pool->used.load(std::memory_order_relaxed);
    while (used <= i && !pool->used.compare_exchange_weak(used, i + 1, std::memory_order_acq_rel)) {
    }
    return slot;
  }
  errno = EMFILE;
  return nullptr;
}

[[gnu::noinline]] Slot *take_other() {
  Pool *pool = own_pool();
  if (pool == nullptr) {
    errno = ENOMEM;
    return nullptr;
  }
  Slot *slot = take_idle(pool);
  if (slot == nullptr) slot = take_empty(pool);
  if (slot != nullptr) preferred = slot;
  return slot;
}

// Returns the slot that the token is of, whoever owns it, or null when this process has no such slot.
Slot *slot_of(uint32_t token) {
  const uint32_t index = token & kIndexMask;
  Slot *slot = preferred;
  if (slot != nullptr && slot->index == index && slot->generation == host::fork_generation()) return slot;
  const Pool *pool = own_pool();
  return pool == nullptr ? nullptr : slot_at(pool, index);
}

// Requests and replies hold secrets; the pages are not a child's to inherit either.
uint8_t *make_buffer() {
  void *fresh = mmap(nullptr, HOST_WIRE_MAX_DATAGRAM, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (fresh == MAP_FAILED) return nullptr;
  madvise(fresh, HOST_WIRE_MAX_DATAGRAM, MADV_DONTFORK);
  return static_cast<uint8_t *>(fresh);
}

void wipe_buffer(Slot *slot) {
  explicit_bzero(slot->buffer, slot->buffer_used);
  slot->buffer_used = 0;
}

void set_state(Slot *slot, uint32_t state) {
  const uint32_t word = slot->word.load(std::memory_order_relaxed);
  slot->word.store(with_state(word, state), std::memory_order_release);
}

}  // namespace

void use_service_path() {
  auto *fresh = static_cast<KnownPath *>(malloc(sizeof(KnownPath)));
  if (fresh == nullptr) return;  // with the path of before, if there is one
  new (fresh) KnownPath{.path = {}, .receive_limit_ms = host::kDefaultReceiveLimitMs, .before = nullptr};
  KnownPath *known = current_path.load(std::memory_order_acquire);
  do {
    if (known != nullptr && strcmp(known->path.text, fresh->path.text) == 0) {
      free(fresh);
      return;
    }
    fresh->before = known;
  } while (!current_path.compare_exchange_weak(known, fresh, std::memory_order_acq_rel));
}

const char *service_path() {
  const KnownPath *path = current_path.load(std::memory_order_acquire);
  return path == nullptr ? "" : path->path.text;
}

const char *path_of(const Slot *slot) {
  return slot->path->path.text;
}

Slot *take() {
  Slot *slot = preferred;
  // A slot of before a fork is its parent's.
  if (slot != nullptr && slot->generation == host::fork_generation() && take_from(slot, kIdle)) return slot;
  return take_other();
}

bool open(Slot *slot, host::Obstacle *obstacle) {
  close_connection(slot);
  KnownPath *path = current_path.load(std::memory_order_acquire);
  if (slot->buffer == nullptr) slot->buffer = make_buffer();
  if (path == nullptr || slot->buffer == nullptr) {
    obstacle->step = host::Step::kSocket;
    errno = ENOMEM;
    return false;
  }
  HostHelloReply hello;
  const uint32_t limit_ms = path->receive_limit_ms.load(std::memory_order_relaxed);
  const int socket = host::connect_to_service(path->path.text, limit_ms, &hello, obstacle);
  if (socket < 0) return false;
  slot->socket = socket;
  slot->identity = identity_of(socket);
  slot->path = path;
  slot->receive_limit_ms = hello.receive_limit_ms;
  slot->until_channel = (hello.offers & HOST_OFFERS_CHANNEL) != 0 ? kExchangesBeforeChannel : 0;
  path->receive_limit_ms.store(hello.receive_limit_ms, std::memory_order_relaxed);
  return true;
}

bool owns_socket(const Slot *slot) {
  return slot->socket >= 0 && identity_of(slot->socket) == slot->identity;
}

bool is_usable(const Slot *slot, bool by_channel) {
  return slot->path == current_path.load(std::memory_order_acquire) && (by_channel || owns_socket(slot));
}

int grow(Slot *slot, bool fits) {
  if (slot->until_channel == 0) return 0;
  slot->until_channel = fits ? slot->until_channel - 1 : kExchangesBeforeChannel;
  if (slot->until_channel > 0) return 0;
  slot->channel_serial = 0;
  return agree_on_channel(slot->socket, host::Deadline::in_ms(slot->receive_limit_ms), &slot->channel);
}

uint32_t next_token(Slot *slot) {
  uint32_t serial = serial_of(slot->word.load(std::memory_order_relaxed)) + 1;
  if (serial == kSerialLimit) serial = 1;
  slot->word.store(serial << kStateBits | kOwned, std::memory_order_relaxed);
  return serial << kIndexBits | slot->index;
}

bool is_earlier(uint32_t token, uint32_t current) {
  const uint32_t age = (current - token) >> kIndexBits;  // in exchanges, modulo their number
  return (token & kIndexMask) == (current & kIndexMask) && age > 0 && age < kSerialLimit / 2;
}

void await_reply(Slot *slot) {
  set_state(slot, kAwaiting);
}

Slot *resume(uint32_t token) {
  Slot *slot = slot_of(token);
  if (slot == nullptr) return nullptr;
  uint32_t awaiting = token >> kIndexBits << kStateBits | kAwaiting;
  const uint32_t owned = with_state(awaiting, kOwned);
  return slot->word.compare_exchange_strong(awaiting, owned, std::memory_order_acq_rel) ? slot : nullptr;
}

void give_back(Slot *slot) {
  if (slot->buffer != nullptr) wipe_buffer(slot);
  set_state(slot, slot->socket >= 0 ? kIdle : kEmpty);
}

void close_and_give_back(Slot *slot) {
  close_connection(slot);
  give_back(slot);
}

}  // namespace mts
