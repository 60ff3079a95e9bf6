// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "base/secret_bytes.h"

#include <sodium.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cstring>
#include <list>
#include <mutex>
#include <new>
#include <tuple>
#include <vector>

#include "base/log.h"

namespace ksd {

struct GuardedChunk {
  uint8_t *mapping;  // guard page, slots, guard page
  uint8_t *slots;
  size_t mapping_size;
  size_t slot_size;
  std::vector<uint16_t> free_slots;
  uint16_t slot_count;
  std::list<GuardedChunk>::iterator self;
};

namespace {

constexpr size_t kSmallestSlot = 16;
constexpr size_t kChunkSize = size_t{64} * 1024;  // of small slots; a larger slot has a chunk to itself
constexpr size_t kClassCount = 32;

// GuardedHeap hands out slots of powers of two. The bookkeeping stays outside of the guarded pages, so that an overrun
// reaches another secret at worst, and a guard page before anything else.
class GuardedHeap {
 public:
  std::pair<GuardedChunk *, uint8_t *> take(size_t size) {
    const size_t slot_size = std::bit_ceil(std::max(size, kSmallestSlot));
    const std::lock_guard lock(mutex_);
    Class &slots = class_of(slot_size);
    if (slots.with_room.empty()) add_chunk(slots, slot_size);
    GuardedChunk &chunk = slots.with_room.front();
    const size_t index = chunk.free_slots.back();
    chunk.free_slots.pop_back();
    if (chunk.free_slots.empty()) slots.full.splice(slots.full.begin(), slots.with_room, chunk.self);
    ++use_.used_slots;
    return {&chunk, chunk.slots + index * chunk.slot_size};
  }

  void give_back(GuardedChunk *chunk, uint8_t *slot) {
    const std::lock_guard lock(mutex_);
    Class &slots = class_of(chunk->slot_size);
    if (chunk->free_slots.empty()) slots.with_room.splice(slots.with_room.begin(), slots.full, chunk->self);
    chunk->free_slots.push_back(static_cast<uint16_t>(static_cast<size_t>(slot - chunk->slots) / chunk->slot_size));
    --use_.used_slots;
    // One chunk with room stays, so that a secret that comes and goes doesn't map and unmap each time.
    if (chunk->free_slots.size() == chunk->slot_count && slots.with_room.size() > 1) drop_chunk(slots, *chunk);
  }

  GuardedMemoryUse use() {
    const std::lock_guard lock(mutex_);
    return use_;
  }

 private:
  struct Class {
    std::list<GuardedChunk> with_room, full;
  };

  Class &class_of(size_t slot_size) { return classes_[static_cast<size_t>(std::countr_zero(slot_size))]; }

  void add_chunk(Class &slots, size_t slot_size) {
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const size_t slot_count = std::max<size_t>(1, kChunkSize / slot_size);
    const size_t usable = (slot_count * slot_size + page - 1) / page * page;
    const size_t mapping_size = usable + 2 * page;
    void *mapping = mmap(nullptr, mapping_size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapping == MAP_FAILED) throw std::bad_alloc();
    uint8_t *first = static_cast<uint8_t *>(mapping) + page;
    if (mprotect(first, usable, PROT_READ | PROT_WRITE) != 0) {
      munmap(mapping, mapping_size);
      throw std::bad_alloc();
    }
    madvise(first, usable, MADV_DONTDUMP);
    madvise(first, usable, MADV_WIPEONFORK);
    const bool locked = mlock(first, usable) == 0;
    const int lock_error = errno;
    try {
      slots.with_room.push_front({.mapping = static_cast<uint8_t *>(mapping),
                                  .slots = first,
                                  .mapping_size = mapping_size,
                                  .slot_size = slot_size,
                                  .free_slots = std::vector<uint16_t>(slot_count),
                                  .slot_count = static_cast<uint16_t>(slot_count),
                                  .self = {}});
    } catch (...) {
      munmap(mapping, mapping_size);
      throw;
    }
    GuardedChunk &chunk = slots.with_room.front();
    chunk.self = slots.with_room.begin();
    for (size_t i = 0; i < slot_count; ++i) chunk.free_slots[i] = static_cast<uint16_t>(slot_count - 1 - i);
    use_.mapped_bytes += mapping_size;
    if (use_.all_locked && !locked) {
      tell(event::kMemoryNotLocked, "secrets in memory can't all be locked against swapping: {}; raise LimitMEMLOCK",
           std::strerror(lock_error));
    }
    use_.all_locked = use_.all_locked && locked;
  }

  void drop_chunk(Class &slots, GuardedChunk &chunk) {
    use_.mapped_bytes -= chunk.mapping_size;
    munmap(chunk.mapping, chunk.mapping_size);
    slots.with_room.erase(chunk.self);
  }

  std::mutex mutex_;
  std::array<Class, kClassCount> classes_;
  GuardedMemoryUse use_;
};

// Never destroyed: secrets held by other objects with static lifetime may be let go after it.
GuardedHeap &heap() {
  static GuardedHeap *const instance = new GuardedHeap;
  return *instance;
}

}  // namespace

SecretBytes::SecretBytes(size_t size) : size_(size) {
  if (size > size_t{1} << (kClassCount - 2)) throw std::bad_alloc();
  std::tie(chunk_, data_) = heap().take(size);
}

SecretBytes::~SecretBytes() {
  sodium_memzero(data_, size_);
  heap().give_back(chunk_, data_);
}

std::shared_ptr<SecretBytes> SecretBytes::allocate(size_t size) {
  // One block for the object and its count of holders: there may be 65,535.
  struct Shared : SecretBytes {
    explicit Shared(size_t bytes) : SecretBytes(bytes) {}
  };
  return std::make_shared<Shared>(size);
}

std::shared_ptr<const SecretBytes> SecretBytes::copy_of(std::span<const uint8_t> bytes) {
  std::shared_ptr<SecretBytes> copy = allocate(bytes.size());
  if (!bytes.empty()) std::memcpy(copy->data_, bytes.data(), bytes.size());
  return copy;
}

GuardedMemoryUse guarded_memory_use() {
  return heap().use();
}

}  // namespace ksd
