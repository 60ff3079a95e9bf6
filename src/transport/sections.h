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

// wire_len is the length of a name on the wire, as descriptors and sections hold it.
constexpr uint8_t wire_len(size_t name_len) {
  return low8(name_len + KS_NAME_HEADER_SIZE);
}

// fill_wire_name writes the wire form into zeroed memory. It bounds nothing: callers have.
void fill_wire_name(void *wire, uint8_t tag, const void *name, size_t name_len);

// new_wire_name allocates a zeroed KsWireName and fills it, or gives null. `name_len` is not bounded here.
KsWireName *new_wire_name(uint8_t tag, const void *name, size_t name_len);

// new_exact_wire_name does the same in a buffer that ends with the name.
void *new_exact_wire_name(uint8_t tag, const void *name, size_t name_len);

// place_name begins a request with a wire name that was just allocated: its section, and the two bytes that descriptors
// have for it. W, the length of a name on the wire, is the descriptor's name_len from here on.
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

// SectionList holds a request's section list, and on leaving frees the buffers that the request's builder put into it,
// in their order, and then itself.
class SectionList {
 public:
  // `owned` has a bit for each entry whose buffer is ours: that of the name as a rule, entry 0.
  explicit SectionList(const Message &message) : SectionList(message.sections.max) {}
  explicit SectionList(uint32_t count, uint32_t owned = 0b1)
      : count_(count), owned_(owned), entries_(static_cast<KsSection *>(calloc(count, sizeof(KsSection)))) {}
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
