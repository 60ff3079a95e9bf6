// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "crypto/hmac.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace ksd::crypto {

// T1 = HMAC(key, label ‖ 0 ‖ seed ‖ length ‖ 1), Tn = HMAC(key, Tn-1 ‖ label ‖ 0 ‖ seed ‖ length ‖ n), the length as
// two bytes, big-endian.
void t_prf(const HmacSha1Key &key, Bytes label, Bytes seed, std::span<uint8_t> out) {
  static constexpr uint8_t kZero[1] = {0};
  const uint8_t length[2] = {static_cast<uint8_t>(out.size() >> 8), static_cast<uint8_t>(out.size())};
  Cleansed<std::array<uint8_t, HmacSha1Key::kDigestSize>> block;
  size_t block_size = 0;  // nothing stands in front of the first
  uint8_t number[1] = {0};
  for (size_t done = 0; done < out.size(); done += block_size) {
    ++number[0];
    key.mac({Bytes(block.value.data(), block_size), label, kZero, seed, length, number}, block.value.data());
    block_size = block.value.size();
    std::memcpy(out.data() + done, block.value.data(), std::min(block_size, out.size() - done));
  }
}

}  // namespace ksd::crypto
