// request.h: what the requests of the cryptographic operations have in common.
#ifndef CRYPTO_REQUEST_H
#define CRYPTO_REQUEST_H

#include "transport/sections.h"

namespace ks {

// Most data that DES, digests and HMACs take in one request, in bytes; AES takes all that 16 bits can count.
inline constexpr uint16_t kMaxData = 1024;

// place_name begins a request with a wire name that was just allocated: its section, and the two bytes that every
// descriptor here has for it. W, the length of a name on the wire, is the descriptor's name_len from here on.
template <typename Descriptor>
KsResult place_name(void *wire_name, size_t name_len, KsSection *sections, Descriptor *descriptor) {
  if (wire_name == nullptr) return KS_NO_MEMORY;
  descriptor->name_len = wire_len(name_len);
  descriptor->name_offset = sizeof *descriptor;
  sections[0] = {wire_name, descriptor->name_len};
  return KS_SUCCESS;
}

// place_data ends a request of a name and one data section.
inline void place_data(const void *data, uint16_t data_len, KsSection *sections, KsNameDataDescriptor *descriptor) {
  descriptor->data_len = data_len;
  descriptor->data_offset = low16(descriptor->name_len + sizeof *descriptor);
  sections[1] = {data, data_len};
}

}  // namespace ks

#endif
