// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "transport/sections.h"

namespace ks {

void fill_wire_name(void *wire, uint8_t tag, const void *name, size_t name_len) {
  auto *out = static_cast<uint8_t *>(wire);
  out[0] = tag;
  out[1] = 0;
  out[2] = static_cast<uint8_t>(vdc_id >> 8);
  out[3] = static_cast<uint8_t>(vdc_id);
  memcpy(out + KS_NAME_HEADER_SIZE, name, name_len);
}

void *new_wire_name(uint8_t tag, const void *name, size_t name_len, NameBuffer buffer) {
  const size_t exact = KS_NAME_HEADER_SIZE + name_len;
  const bool fits = exact <= sizeof(KsWireName);
  const bool is_exact = buffer == NameBuffer::kExact || (buffer == NameBuffer::kAtLeast && !fits);
  void *wire = calloc(1, is_exact ? exact : sizeof(KsWireName));
  if (wire != nullptr) fill_wire_name(wire, tag, name, name_len);
  return wire;
}

void SectionList::release() {
  if (entries_ == nullptr) return;
  for (uint32_t i = 0; i < count_; ++i) {
    if ((owned_ >> i & 1) != 0) free(const_cast<void *>(entries_[i].data));
  }
  free(entries_);
  entries_ = nullptr;
}

}  // namespace ks
