// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// sdb_record: a stored value of the shared database, whole or with one damage.
//
//   input     key, counted | damage: kind, position, pattern of 4 bytes | value
//   property  a whole value is handed out as it was written, and one that is damaged in up to 4 bytes that follow each
//             other, cut, lengthened or found under another key isn't handed out
#include "sdb_value.h"
#include "support/fuzz.h"

namespace {

using fuzz::Bytes;
using fuzz::require;

enum Damage : uint8_t { kNone, kInValue, kInKey, kCut, kLengthened, kDamages };

// spoil applies the pattern at the position, and tells whether that changed anything.
bool spoil(std::vector<uint8_t> &bytes, size_t position, Bytes pattern) {
  if (bytes.empty()) return false;
  bool changed = false;
  for (size_t i = 0; i < pattern.size() && position % bytes.size() + i < bytes.size(); ++i) {
    bytes[position % bytes.size() + i] ^= pattern[i];
    changed |= pattern[i] != 0;
  }
  return changed;
}

bool damage(uint8_t kind, size_t position, Bytes pattern, std::vector<uint8_t> &key, std::vector<uint8_t> &stored) {
  switch (kind) {
    case kInValue:
      return spoil(stored, position, pattern);
    case kInKey:
      return spoil(key, position, pattern);
    case kCut:
      stored.resize(position % stored.size());
      return true;
    case kLengthened:
      stored.insert(stored.end(), pattern.begin(), pattern.end());
      return !pattern.empty();
    default:
      return false;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  fuzz::Input input(data, size);
  std::vector<uint8_t> key = fuzz::own(input.counted());
  const auto kind = static_cast<uint8_t>(input.byte() % kDamages);
  const size_t position = input.word();
  const Bytes pattern = input.bytes(4);
  const Bytes value = input.rest();

  const sdb::Check check = sdb::check_of(key.data(), key.size(), value.data(), value.size());
  std::vector<uint8_t> stored = fuzz::own({reinterpret_cast<const uint8_t *>(&check), sizeof check});
  stored.insert(stored.end(), value.begin(), value.end());
  const bool damaged = damage(kind, position, pattern, key, stored);

  static fuzz::Guarded memory;
  sdb::Thread *thread = sdb::this_thread();
  uint32_t code = sdb::copy_stored(thread, {stored.size(), memory.copy(stored)});
  if (code == sdb::kOk) code = sdb::hand_out_value(thread, key.data(), key.size(), stored.size());
  require((code == sdb::kOk) != damaged, "a whole value is handed out, and a damaged one isn't");
  const Bytes handed_out(static_cast<const uint8_t *>(thread->value.data), thread->value.size);
  require(damaged || fuzz::same(handed_out, value), "a value is handed out as it was written");
  return 0;
}
