// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// Bytes as tests spell them, and memory that faults behind its end.
#include <sys/mman.h>
#include <unistd.h>

#include "scripted.h"

namespace scripted {

Bytes bytes(const std::string &hex) {
  Bytes out;
  std::string digits;
  for (char c : hex) {
    if (c == ' ' || c == '\n') continue;
    digits += c;
    if (digits.size() == 2) {
      out.push_back(static_cast<uint8_t>(std::stoul(digits, nullptr, 16)));
      digits.clear();
    }
  }
  EXPECT_TRUE(digits.empty()) << "half a byte in: " << hex;
  return out;
}

Bytes bytes_of(const std::string &text) {
  return Bytes(text.begin(), text.end());
}

Bytes operator+(Bytes left, const Bytes &right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

template <typename T>
static Bytes raw(T value) {
  Bytes out(sizeof value);
  std::memcpy(out.data(), &value, sizeof value);
  return out;
}

Bytes result_only(KsResult result) {
  return raw(result);
}
Bytes reply(const Bytes &data, KsResult result) {
  return reply_with_len(static_cast<uint16_t>(data.size()), data, result);
}
Bytes reply_with_len(uint16_t len, const Bytes &data, KsResult result) {
  return raw(result) + raw(len) + data;
}

Guarded::Guarded(const Bytes &content) : size_(content.size()) {
  const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  const size_t room = (size_ + page - 1) / page * page + page;  // at least one page, so that data() is never null
  map_size_ = room + page;
  void *map = mmap(nullptr, map_size_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (map == MAP_FAILED) abort();
  map_ = static_cast<uint8_t *>(map);
  if (mprotect(map_ + room, page, PROT_NONE) != 0) abort();
  data_ = map_ + room - size_;
  if (size_ != 0) std::memcpy(data_, content.data(), size_);
}

Guarded::~Guarded() {
  munmap(map_, map_size_);
}

void Guarded::forbid() {
  if (mprotect(map_, map_size_, PROT_NONE) != 0) abort();
}

}  // namespace scripted
