// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// secret_bytes.h: secrets and keys in memory: between guard pages, locked, left out of cores and of forked children,
// cleansed when the last holder lets go.
#ifndef SERVICE_BASE_SECRET_BYTES_H
#define SERVICE_BASE_SECRET_BYTES_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

namespace ksd {

// GuardedChunk is a run of equal slots in one guarded mapping (secret_bytes.cc).
struct GuardedChunk;

// SecretBytes is one secret in guarded memory. Up to 65,535 of them live at a time, so they share mappings: a mapping
// each would take three of the kernel's 65,530 areas and 16 KiB per secret.
class SecretBytes {
 public:
  // allocate gives `size` zeroed bytes to be written before the object is shared as const. Throws std::bad_alloc.
  static std::shared_ptr<SecretBytes> allocate(size_t size);

  // copy_of is how a secret of a request gets here; the request's own buffer is cleansed by the server.
  static std::shared_ptr<const SecretBytes> copy_of(std::span<const uint8_t> bytes);

  SecretBytes(const SecretBytes &) = delete;
  SecretBytes &operator=(const SecretBytes &) = delete;
  ~SecretBytes();

  std::span<const uint8_t> bytes() const { return {data_, size_}; }
  std::span<uint8_t> writable() { return {data_, size_}; }
  size_t size() const { return size_; }

 protected:
  explicit SecretBytes(size_t size);

 private:
  GuardedChunk *chunk_;
  uint8_t *data_;
  size_t size_;
};

// GuardedMemoryUse tells how much guarded memory there is, and whether the kernel let all of it be locked.
struct GuardedMemoryUse {
  size_t mapped_bytes = 0;
  size_t used_slots = 0;   // by which tests see that memory is given back
  bool all_locked = true;  // false once a lock was refused (RLIMIT_MEMLOCK): such memory could be swapped
};

GuardedMemoryUse guarded_memory_use();

}  // namespace ksd

#endif
