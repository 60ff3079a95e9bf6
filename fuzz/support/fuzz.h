// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// fuzz.h: what all targets share: an input to take bytes from, memory that ends where nothing may be touched, and the
// word that a property doesn't hold.
#ifndef FUZZ_FUZZ_H
#define FUZZ_FUZZ_H

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <span>
#include <vector>

// A target is this one function, for libFuzzer as for the driver that replays the seeds.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace fuzz {

using Bytes = std::span<const uint8_t>;

// require ends the program, which is how a target says that its property doesn't hold.
inline void require(bool holds, const char *property) {
  if (holds) return;
  static_cast<void>(fprintf(stderr, "\nnot so: %s\n", property));
  abort();
}

// Input gives the bytes of an input one after the other. Behind its end there are zeros.
class Input {
 public:
  Input(const uint8_t *data, size_t size) : left_(data, size) {}

  bool empty() const { return left_.empty(); }
  uint8_t byte() { return number<uint8_t>(); }
  uint16_t word() { return number<uint16_t>(); }

  // bytes gives as many of them as there are.
  Bytes bytes(size_t size) {
    const Bytes taken = left_.first(std::min(size, left_.size()));
    left_ = left_.subspan(taken.size());
    return taken;
  }
  // counted gives bytes whose number stands in front of them in one byte.
  Bytes counted() { return bytes(byte()); }
  Bytes rest() { return bytes(left_.size()); }

 private:
  template <typename Number>
  Number number() {
    Number value = 0;
    const Bytes taken = bytes(sizeof value);
    if (!taken.empty()) memcpy(&value, taken.data(), taken.size());
    return value;
  }

  Bytes left_;
};

// Guarded is memory of which each use ends at a page that faults: reading or writing one byte too many ends the run,
// under any compiler. One use at a time.
class Guarded {
 public:
  Guarded() {
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    void *map = mmap(nullptr, kRoom + page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    require(map != MAP_FAILED, "there is memory");
    end_ = static_cast<uint8_t *>(map) + kRoom;
    require(mprotect(end_, page, PROT_NONE) == 0, "a page can be guarded");
  }
  Guarded(const Guarded &) = delete;
  Guarded &operator=(const Guarded &) = delete;

  // fresh gives `size` bytes with nothing meaningful in them.
  uint8_t *fresh(size_t size) {
    require(size <= kRoom, "a block has room");
    memset(end_ - size, kUntouched, size);
    return end_ - size;
  }
  uint8_t *copy(Bytes bytes) {
    uint8_t *at = fresh(bytes.size());
    if (!bytes.empty()) memcpy(at, bytes.data(), bytes.size());
    return at;
  }
  // is_untouched tells whether the `size` bytes of the last use are as fresh left them.
  bool is_untouched(size_t size) const {
    return std::all_of(end_ - size, end_, [](uint8_t byte) { return byte == kUntouched; });
  }

 private:
  static constexpr size_t kRoom = size_t{256} * 1024;
  static constexpr uint8_t kUntouched = 0xa5;

  uint8_t *end_;
};

inline std::vector<uint8_t> own(Bytes bytes) {
  return {bytes.begin(), bytes.end()};
}

inline bool same(Bytes left, Bytes right) {
  return std::ranges::equal(left, right);
}

}  // namespace fuzz

#endif
