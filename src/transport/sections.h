// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// sections.h: the section list of a request, and the wire names in it.
#ifndef TRANSPORT_SECTIONS_H
#define TRANSPORT_SECTIONS_H

#include <stdlib.h>
#include <string.h>

#include "ks_api.h"
#include "transport/catalog.h"

namespace ks {

// A cut to 8 or 16 bits is promised in places, and visible there by these names.
constexpr uint8_t low8(size_t n) {
  return static_cast<uint8_t>(n);
}
constexpr uint16_t low16(size_t n) {
  return static_cast<uint16_t>(n);
}

inline bool is_name_len(size_t len) {
  return len >= 1 && len <= KS_NAME_MAX;
}

// is_name tells whether `text` can name a secret: not null, 1 to 31 bytes.
inline bool is_name(const char *text) {
  return text != nullptr && is_name_len(strlen(text));
}

// is_name_low8 asks the same of the low 8 bits of the length alone, so that 257 bytes pass. A few operations are
// promised to look no further.
inline bool is_name_low8(const char *text) {
  return text != nullptr && is_name_len(low8(strlen(text)));
}

// is_aid tells whether the bytes can name a PAC.
inline bool is_aid(const void *aid, size_t aid_len) {
  return aid != nullptr && is_name_len(aid_len);
}
static_assert(KS_PAC_NAME_MAX == KS_NAME_MAX);

// are_given tells whether none of an operation's pointers is null.
inline bool are_given(const auto *...pointers) {
  return (... && (pointers != nullptr));
}

// wire_len is the length of a name on the wire, as descriptors and sections hold it.
constexpr uint8_t wire_len(size_t name_len) {
  return low8(name_len + KS_NAME_HEADER_SIZE);
}

// fill_wire_name writes the wire form into zeroed memory. It bounds nothing: callers have.
void fill_wire_name(void *wire, uint8_t tag, const void *name, size_t name_len);

// NameBuffer is how much the buffer of a name holds.
enum class NameBuffer : uint8_t {
  kWireName,  // 35 bytes, and a longer name overruns them: who builds such a request bounds its names
  kExact,     // as much as the name needs
  kAtLeast,   // 35 bytes, or as much as a longer name needs
};

// new_wire_name allocates a zeroed buffer and fills it with a name's wire form, or gives null.
void *new_wire_name(uint8_t tag, const void *name, size_t name_len, NameBuffer buffer);

// place_name begins a request with a new wire name: its section, and the two bytes that descriptors have for it. W, the
// length of a name on the wire, is the descriptor's name_len from here on. False: there is no memory for the name, and
// nothing is written.
template <typename Descriptor>
bool place_name(uint8_t tag, const void *name, size_t name_len, NameBuffer buffer, KsSection *sections,
                Descriptor *descriptor) {
  void *wire = new_wire_name(tag, name, name_len, buffer);
  if (wire == nullptr) return false;
  descriptor->name_len = wire_len(name_len);
  descriptor->name_offset = sizeof *descriptor;
  sections[0] = {wire, descriptor->name_len};
  return true;
}

// place_rest ends the building of a request with the sections behind its name. It gives KS_SUCCESS.
template <size_t N>
KsResult place_rest(KsSection *sections, const KsSection (&rest)[N]) {
  for (size_t i = 0; i < N; ++i) sections[1 + i] = rest[i];
  return KS_SUCCESS;
}

// place_data ends a request of a name and one data section. It gives KS_SUCCESS.
inline KsResult place_data(const void *data, uint16_t data_len, KsSection *sections, KsNameDataDescriptor *descriptor) {
  descriptor->data_len = data_len;
  descriptor->data_offset = low16(descriptor->name_len + sizeof *descriptor);
  return place_rest(sections, {{data, data_len}});
}

// What of a section list is ours as a rule: entry 0, the name.
inline constexpr uint32_t kOwnsName = 0b1;

// SectionList holds a request's section list, and on leaving frees the buffers that the request's builder put into it,
// in their order, and then itself.
class SectionList {
 public:
  // The list has the row's entries and the optional ones. `owned` has a bit for each entry whose buffer is ours.
  explicit SectionList(const MessageValues &message, uint32_t owned = kOwnsName, uint32_t optional_sections = 0)
      : count_(message.sections + optional_sections),
        owned_(owned),
        entries_(static_cast<KsSection *>(calloc(count_, sizeof(KsSection)))) {}
  SectionList(const SectionList &) = delete;
  SectionList &operator=(const SectionList &) = delete;
  ~SectionList() { release(); }

  bool allocated() const { return entries_ != nullptr; }
  KsSection *data() { return entries_; }
  const KsSection *data() const { return entries_; }
  uint32_t count() const { return count_; }

  // keep_names leaves the owned buffers allocated for good.
  void keep_names() { owned_ = 0; }

  // keep_all leaves the list allocated for good, too.
  void keep_all() { entries_ = nullptr; }

  // release frees everything now, for operations that have something to free after it.
  void release();

 private:
  uint32_t count_;
  uint32_t owned_;
  KsSection *entries_;
};

}  // namespace ks

#endif
