// sdb_check.h: the check that is stored with each value, so that damage is noticed and never handed out.
#ifndef SDB_CHECK_H
#define SDB_CHECK_H

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace sdb {

// Check is as wide as the machine's words: databases are kept apart by word size anyway, and a warm read should cost
// little more than its copy.
using Check = uintptr_t;

class Checker {
 public:
  // Every step is a bijection of the lane for a given word and of the word for a given lane, and so is the way from
  // the lanes to the result: damage that is confined to one word is always noticed.
  void add(const void *data, size_t size) {
    const auto *bytes = static_cast<const uint8_t *>(data);
    size_t left = size;
    for (; left >= sizeof lanes_; left -= sizeof lanes_, bytes += sizeof lanes_) {
      for (size_t i = 0; i < kLanes; ++i) mix(lanes_[i], word_at(bytes + i * sizeof(Check)));
    }
    size_t lane = 0;
    for (; left >= sizeof(Check); left -= sizeof(Check), bytes += sizeof(Check)) mix(lanes_[lane++], word_at(bytes));
    Check last = 0;
    for (size_t i = 0; i < left; ++i) last |= Check{bytes[i]} << (8 * i);
    mix(lanes_[lane], last);
    mix(lanes_[0], size);
  }

  Check result() const {
    Check all = 0;
    for (const Check lane : lanes_) mix(all, lane);
    return all ^ (all >> (kBits / 2));
  }

 private:
  static constexpr size_t kLanes = 4;
  static constexpr unsigned kBits = sizeof(Check) * 8;
  static constexpr Check kOddFactor = static_cast<Check>(0x9e3779b97f4a7c15u);

  static Check word_at(const uint8_t *bytes) {
    Check word;
    memcpy(&word, bytes, sizeof word);
    return word;
  }

  static void mix(Check &lane, Check word) {
    const Check product = (lane + word) * kOddFactor;
    lane = product << (kBits / 2 - 3) | product >> (kBits / 2 + 3);
  }

  Check lanes_[kLanes] = {1, 2, 3, 4};
};

// check_of covers the key too, so that a value cannot turn up under another key.
inline Check check_of(const void *key, size_t key_len, const void *value, size_t value_len) {
  Checker checker;
  checker.add(key, key_len);
  checker.add(value, value_len);
  return checker.result();
}

}  // namespace sdb

#endif
