// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// requests.h: what the requests of the secret store have in common.
#ifndef SECRET_REQUESTS_H
#define SECRET_REQUESTS_H

#include "ks_secret.h"
#include "transport/request.h"

namespace ks {

// new_secret_name allocates a secret's wire name. Operations bound the length; for those who build a request themselves
// with a longer name the buffer is as long as that.
inline void *new_secret_name(const char *name, size_t name_len) {
  return new_wire_name(KS_NAME_TAG_SECRET, name, name_len, NameBuffer::kAtLeast);
}

// place_secret allocates the name and begins a request with it. False: there is no memory for it.
template <typename Descriptor>
bool place_secret(const char *name, KsSection *sections, Descriptor *descriptor) {
  return place_name(KS_NAME_TAG_SECRET, name, strlen(name), NameBuffer::kAtLeast, sections, descriptor);
}

// build_name fills the request that carries a secret's name and nothing else.
inline KsResult build_name(const char *name, KsSection *section, KsNameDescriptor *descriptor) {
  return place_secret(name, section, descriptor) ? KS_SUCCESS : KS_NO_MEMORY;
}

// report_bad_arguments and report_no_list say why an operation ends before it has sent anything, in the words that most
// of them have, and give the result that goes with it. The reports name no function.
KsResult report_bad_arguments();
KsResult report_no_list();

}  // namespace ks

#endif
