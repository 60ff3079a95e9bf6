// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "ring.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "host_fork.h"
#include "host_socket.h"
#include "host_wire.h"

namespace sdwrap {

namespace {

constexpr uint64_t kRetryNs = 1'000'000'000;

// A slot's sequence is its position plus 1 when it is complete. While it is written the top bit is set as well, which
// is no position that a reader expects, and keeps other writers out.
constexpr uint64_t kBeingWritten = UINT64_C(1) << 63;

// Mapped is the ring of the process that has this generation of host::fork_generation. In a child it is its parent's,
// which isn't mapped there, until the child makes its own.
struct Mapped {
  std::atomic<uint32_t> generation;
  std::atomic<HostRing *> ring;
  char path[PATH_MAX];
};

constinit Mapped current{};
// The generation in which a thread is making the ring now, and the time before which nobody tries again.
constinit std::atomic<uint32_t> making{0};
constinit std::atomic<uint64_t> next_try_ns{0};

uint64_t read_clock(clockid_t clock) {
  timespec now;
  clock_gettime(clock, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(now.tv_nsec);
}

// Field 22 of /proc/self/stat. The second field, the program's name in parentheses, may hold anything.
unsigned long long start_time() {
  char text[1024];
  const int file = open("/proc/self/stat", O_RDONLY | O_CLOEXEC);
  if (file < 0) return 0;
  const ssize_t size = read(file, text, sizeof text - 1);
  close(file);
  if (size <= 0) return 0;
  text[size] = '\0';
  const char *field = strrchr(text, ')');
  for (int number = 2; field != nullptr && number < 22; number++) field = strchr(field + 1, ' ');
  return field == nullptr ? 0 : strtoull(field, nullptr, 10);
}

void program_name(char *out, size_t size) {
  const int file = open("/proc/self/comm", O_RDONLY | O_CLOEXEC);
  const ssize_t length = file < 0 ? 0 : read(file, out, size - 1);
  if (file >= 0) close(file);
  out[length < 0 ? 0 : length] = '\0';
  out[strcspn(out, "\n")] = '\0';
}

// ---- The folder. Whoever may write there could fill the file system that it is on, so it is always the user's own.

bool is_own(int file, mode_t forbidden) {
  struct stat status;
  return fstat(file, &status) == 0 && status.st_uid == geteuid() && (status.st_mode & forbidden) == 0;
}

// Opens the folder `name` in the folder `parent`, making it if need be, when both are the user's own. -1 otherwise.
int open_own_folder(const char *parent, const char *name) {
  const int above = open(parent, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (above < 0) return -1;
  int folder = -1;
  if (is_own(above, S_IWGRP | S_IWOTH) && (mkdirat(above, name, 0700) == 0 || errno == EEXIST)) {
    folder = openat(above, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  }
  close(above);
  if (folder >= 0 && !is_own(folder, S_IRWXG | S_IRWXO)) {
    close(folder);
    folder = -1;
  }
  return folder;
}

// Opens the folder of the user's rings, -1 where there can be none, and writes its path.
int open_folder(char *path, size_t size) {
  const host::SocketPath socket;
  const char *slash = strrchr(socket.text, '/');
  char parent[sizeof socket.text] = ".";
  if (slash != nullptr) snprintf(parent, sizeof parent, "%.*s/", static_cast<int>(slash - socket.text), socket.text);
  snprintf(path, size, "%s/history", parent);
  if (const int folder = open_own_folder(parent, "history"); folder >= 0) return folder;

  char usual[sizeof "/run/user/4294967295"];
  snprintf(usual, sizeof usual, "/run/user/%u", geteuid());
  const char *runtime = secure_getenv("XDG_RUNTIME_DIR");
  if (runtime == nullptr) runtime = usual;
  if (static_cast<size_t>(snprintf(path, size, "%s/ks", runtime)) >= size) return -1;
  return open_own_folder(runtime, "ks");
}

// ---- The file.

int open_file(int folder, const char *name) {
  return openat(folder, name, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600);
}

// Opens the ring, making it if need be, and takes it for this process. -1 when it is another's.
int open_ring(int folder, const char *name) {
  const int file = open_file(folder, name);
  if (file < 0) return -1;
  struct stat status;
  const bool free = fstat(file, &status) == 0 && S_ISREG(status.st_mode) && is_own(file, S_IRWXG | S_IRWXO) &&
                    status.st_nlink == 1 && flock(file, LOCK_EX | LOCK_NB) == 0;
  // Allocated now: storing into a mapped file whose file system is full would end the program.
  if (free && posix_fallocate(file, 0, sizeof(HostRing)) == 0) return file;
  if (free) unlinkat(folder, name, 0);
  close(file);
  return -1;
}

// Opens the first ring from the next one on that nobody holds. Two processes that come at once may read the same
// number: the ring's own lock keeps them apart.
int open_free_ring(int folder, char (&name)[16]) {
  const int next = open_file(folder, "next");
  if (next < 0) return -1;
  uint32_t first = 0;
  if (pread(next, &first, sizeof first, 0) != sizeof first) first = 0;
  int file = -1;
  for (uint32_t i = 0; file < 0 && i < HOST_RING_COUNT; i++) {
    const uint32_t number = (first + i) % HOST_RING_COUNT;
    snprintf(name, sizeof name, "%02u.ring", number);
    file = open_ring(folder, name);
    const uint32_t behind = (number + 1) % HOST_RING_COUNT;
    [[maybe_unused]] const ssize_t noted = file < 0 ? 0 : pwrite(next, &behind, sizeof behind, 0);
  }
  close(next);
  return file;
}

// Opens a ring for this process and notes its path.
int take_ring() {
  char folder_path[sizeof current.path - 16];
  const int folder = open_folder(folder_path, sizeof folder_path);
  if (folder < 0) return -1;
  char name[16];
  const int file = open_free_ring(folder, name);
  close(folder);
  if (file >= 0) snprintf(current.path, sizeof current.path, "%s/%s", folder_path, name);
  return file;
}

HostRing *map_ring(int file, void *where) {
  void *area =
      mmap(where, sizeof(HostRing), PROT_READ | PROT_WRITE, MAP_SHARED | (where == nullptr ? 0 : MAP_FIXED), file, 0);
  if (area == MAP_FAILED) return nullptr;
  madvise(area, sizeof(HostRing), MADV_DONTFORK);
  return static_cast<HostRing *>(area);
}

// What the ring held was of a process that has ended.
void describe(HostRing *ring) {
  memset(ring, 0, sizeof *ring);
  ring->version = 1;
  ring->slot_count = HOST_RING_SLOTS;
  ring->pid = static_cast<uint32_t>(getpid());
  ring->start = start_time();
  program_name(ring->program, sizeof ring->program);
  __atomic_store_n(&ring->magic, HOST_RING_MAGIC, __ATOMIC_RELEASE);
}

// Returns this process's ring, mapped and current, or null.
HostRing *make_ring(uint32_t generation) {
  const int file = take_ring();
  if (file < 0) return nullptr;
  HostRing *ring = map_ring(file, nullptr);
  close(file);  // the mapping keeps the lock
  if (ring == nullptr) return nullptr;
  describe(ring);
  current.ring.store(ring, std::memory_order_relaxed);
  current.generation.store(generation, std::memory_order_release);
  return ring;
}

// Returns this process's ring, or null: where there can be none, and for a moment while another thread makes it.
[[gnu::noinline, gnu::cold]] HostRing *ring_made(uint32_t generation) {
  const uint64_t now = read_clock(CLOCK_REALTIME_COARSE);
  if (now < next_try_ns.load(std::memory_order_relaxed)) return nullptr;
  uint32_t maker = making.load(std::memory_order_relaxed);
  if (maker == generation || !making.compare_exchange_strong(maker, generation)) return nullptr;
  const int caller_errno = errno;
  HostRing *ring = make_ring(generation);
  errno = caller_errno;
  // What was made is never made again in this process.
  if (ring == nullptr) {
    next_try_ns.store(now + kRetryNs, std::memory_order_relaxed);
    making.store(0, std::memory_order_release);
  }
  return ring;
}

// ---- Writing.

HostRingSlot *slot_at(HostRing *ring, uint64_t position) {
  return &ring->slots[position % HOST_RING_SLOTS];
}

// A writer that finds the slot in another's hands, or already a lap ahead, was overtaken by 1024 records: its own is
// among the oldest and is left out.
bool enter(HostRingSlot *slot, uint64_t position) {
  uint64_t sequence = __atomic_load_n(&slot->sequence, __ATOMIC_RELAXED);
  return sequence <= position && __atomic_compare_exchange_n(&slot->sequence, &sequence, (position + 1) | kBeingWritten,
                                                             false, __ATOMIC_ACQ_REL, __ATOMIC_RELAXED);
}

void publish(HostRingSlot *slot, uint64_t position) {
  __atomic_store_n(&slot->sequence, position + 1, __ATOMIC_RELEASE);
}

// Asked for once in a thread: gettid takes 140 ns, a record 18.
uint32_t thread_id(uint32_t generation) {
  struct Cached {
    uint32_t generation;  // the thread that forked has another id in the child
    uint32_t id;
  };
  [[gnu::tls_model("initial-exec")]] static constinit thread_local Cached cached{};
  if (cached.generation != generation) cached = {.generation = generation, .id = static_cast<uint32_t>(gettid())};
  return cached.id;
}

}  // namespace

uint64_t record(uint16_t kind, const void *data, size_t length, clockid_t clock) {
  const uint32_t generation = host::fork_generation();
  HostRing *ring = current.generation.load(std::memory_order_acquire) == generation
                       ? current.ring.load(std::memory_order_relaxed)
                       : ring_made(generation);
  const uint64_t now = read_clock(clock);
  if (ring == nullptr) return now;
  if (length > kMaxRecord) length = kMaxRecord;
  const size_t slots = length == 0 ? 1 : (length + HOST_RING_SLOT_DATA - 1) / HOST_RING_SLOT_DATA;
  const uint64_t first = __atomic_fetch_add(&ring->next, slots, __ATOMIC_RELAXED);

  // The first slot last: who finds it complete finds the rest complete too.
  for (size_t i = slots; i-- > 0;) {
    const uint64_t position = first + i;
    HostRingSlot *slot = slot_at(ring, position);
    if (!enter(slot, position)) break;
    const size_t offset = i * HOST_RING_SLOT_DATA;
    const size_t rest = length - offset;
    slot->time_ns = now;
    slot->kind = i == 0 ? kind : uint16_t{HOST_RING_CONTINUED};
    slot->length = static_cast<uint16_t>(rest);
    slot->thread = i == 0 ? thread_id(generation) : 0;
    const size_t here = rest < HOST_RING_SLOT_DATA ? rest : size_t{HOST_RING_SLOT_DATA};
    if (here > 0) memcpy(slot->data, static_cast<const uint8_t *>(data) + offset, here);
    publish(slot, position);
  }
  return now;
}

void keep_ring_visible() {
  if (current.generation.load(std::memory_order_acquire) != host::fork_generation()) return;
  HostRing *ring = current.ring.load(std::memory_order_relaxed);
  struct stat status;
  if (lstat(current.path, &status) == 0) return;
  char before[sizeof current.path];
  memcpy(before, current.path, sizeof before);
  const int file = take_ring();
  if (file < 0) return;
  // In one step, at the same address: writers never find the ring away.
  if (pwrite(file, ring, sizeof(HostRing), 0) == static_cast<ssize_t>(sizeof(HostRing))) {
    map_ring(file, ring);
  } else {
    unlink(current.path);
    memcpy(current.path, before, sizeof before);
  }
  close(file);
}

}  // namespace sdwrap
