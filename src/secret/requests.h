// requests.h: what the requests of the secret store have in common.
#ifndef SECRET_REQUESTS_H
#define SECRET_REQUESTS_H

#include "transport/sections.h"

namespace ks {

// new_secret_name allocates a secret's wire name. Operations bound the length; for those who build a request themselves
// with a longer name the buffer is as long as that.
inline void *new_secret_name(const char *name, size_t name_len) {
  if (name_len > KS_NAME_MAX) return new_exact_wire_name(KS_NAME_TAG_SECRET, name, name_len);
  return new_wire_name(KS_NAME_TAG_SECRET, name, name_len);
}

// name_request allocates the name and begins a request with it.
template <typename Descriptor>
KsResult name_request(const char *name, KsSection *sections, Descriptor *descriptor) {
  const size_t name_len = strlen(name);
  return place_name(new_secret_name(name, name_len), name_len, sections, descriptor);
}

}  // namespace ks

#endif
