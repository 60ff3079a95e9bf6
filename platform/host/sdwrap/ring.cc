#include "ring.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cinttypes>
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
  char path[host::kSocketPathSize + 64];
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

// Opens the file, making it if need be. A program that was started by exec goes on with the ring of the one before.
// In a folder where everybody may write, a file is only taken when it is the caller's own.
int open_ring(const char *path) {
  const int file = open(path, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600);
  if (file < 0) return -1;
  struct stat status;
  const bool own = fstat(file, &status) == 0 && S_ISREG(status.st_mode) && status.st_uid == geteuid() &&
                   status.st_nlink == 1 && (status.st_mode & 077) == 0;
  // Allocated now: storing into a mapped file whose file system is full would end the program.
  if (own && posix_fallocate(file, 0, sizeof(HostRing)) == 0) return file;
  if (own) unlink(path);
  close(file);
  return -1;
}

HostRing *map_ring(int file, void *where) {
  void *area =
      mmap(where, sizeof(HostRing), PROT_READ | PROT_WRITE, MAP_SHARED | (where == nullptr ? 0 : MAP_FIXED), file, 0);
  if (area == MAP_FAILED) return nullptr;
  madvise(area, sizeof(HostRing), MADV_DONTFORK);
  return static_cast<HostRing *>(area);
}

void describe(HostRing *ring) {
  if (ring->magic != HOST_RING_MAGIC || ring->version != 1 || ring->slot_count != HOST_RING_SLOTS) {
    memset(ring, 0, sizeof *ring);
  }
  // Threads that exec ended may have left slots half written.
  for (HostRingSlot &slot : ring->slots) {
    if (slot.sequence >= kBeingWritten) slot.sequence = 0;
  }
  ring->version = 1;
  ring->slot_count = HOST_RING_SLOTS;
  ring->pid = static_cast<uint32_t>(getpid());
  program_name(ring->program, sizeof ring->program);
  __atomic_store_n(&ring->magic, HOST_RING_MAGIC, __ATOMIC_RELEASE);
}

// ---- Rings of the dead. They are there to be read after a crash, but memory isn't to fill with them: each new ring
// removes those beyond the newest few of the same user.

constexpr size_t kDeadKept = 16;

struct DeadRing {
  timespec written;
  char name[64];
};

bool older(const timespec &a, const timespec &b) {
  return a.tv_sec != b.tv_sec ? a.tv_sec < b.tv_sec : a.tv_nsec < b.tv_nsec;
}

bool describes_dead_ring(int folder, const char *name, DeadRing *ring) {
  unsigned pid = 0;
  unsigned long long start = 0;
  int length = 0;
  if (sscanf(name, "%u-%llu.ring%n", &pid, &start, &length) != 2 || length == 0 || name[length] != '\0') return false;
  if (strlen(name) >= sizeof ring->name || pid == 0 || pid > INT32_MAX) return false;
  struct stat status;
  if (fstatat(folder, name, &status, AT_SYMLINK_NOFOLLOW) != 0 || status.st_uid != geteuid()) return false;
  if (kill(static_cast<pid_t>(pid), 0) == 0 || errno != ESRCH) return false;
  ring->written = status.st_mtim;
  memcpy(ring->name, name, strlen(name) + 1);
  return true;
}

void remove_old_rings(const char *folder_path) {
  DIR *folder = opendir(folder_path);
  if (folder == nullptr) return;
  DeadRing kept[kDeadKept];
  size_t count = 0;
  DeadRing ring;
  while (const dirent *entry = readdir(folder)) {
    if (!describes_dead_ring(dirfd(folder), entry->d_name, &ring)) continue;
    if (count < kDeadKept) {
      kept[count++] = ring;
      continue;
    }
    size_t oldest = 0;
    for (size_t i = 1; i < count; i++) {
      if (older(kept[i].written, kept[oldest].written)) oldest = i;
    }
    const bool older_than_all = older(ring.written, kept[oldest].written);
    unlinkat(dirfd(folder), older_than_all ? ring.name : kept[oldest].name, 0);
    if (!older_than_all) kept[oldest] = ring;
  }
  closedir(folder);
}

// Returns this process's ring, mapped and current, or null.
HostRing *make_ring(uint32_t generation) {
  const host::SocketPath socket;
  const char *slash = strrchr(socket.text, '/');
  char folder[sizeof socket.text + 16];
  snprintf(folder, sizeof folder, "%.*s/history", slash == nullptr ? 1 : static_cast<int>(slash - socket.text),
           slash == nullptr ? "." : socket.text);

  snprintf(current.path, sizeof current.path, "%s/%d-%llu.ring", folder, getpid(), start_time());
  const int file = open_ring(current.path);
  if (file < 0) return nullptr;
  HostRing *ring = map_ring(file, nullptr);
  close(file);
  if (ring == nullptr) return nullptr;
  describe(ring);
  current.ring.store(ring, std::memory_order_relaxed);
  current.generation.store(generation, std::memory_order_release);
  remove_old_rings(folder);
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
  const int file = open_ring(current.path);
  if (file < 0) return;
  // In one step, at the same address: writers never find the ring away.
  if (pwrite(file, ring, sizeof(HostRing), 0) == static_cast<ssize_t>(sizeof(HostRing))) {
    map_ring(file, ring);
  } else {
    unlink(current.path);
  }
  close(file);
}

}  // namespace sdwrap
