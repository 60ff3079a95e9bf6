// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// cached.h: the entries of the PAC cache, as libsdb walks over them.
#ifndef TOOLS_KSCTL_CACHED_H
#define TOOLS_KSCTL_CACHED_H

#include <optional>
#include <vector>

#include "pac_metadata.h"

namespace ksctl {

// CachedEntry is an entry by its key. One whose key isn't a PAC's has no A-ID.
struct CachedEntry {
  Bytes key;
  uint16_t vdc = 0;
  Bytes a_id;
  bool damaged = false;
  size_t metadata_size = 0;
  bool has_t_prf = false;

  bool is_own() const;
};

// require_cache throws, with libsdb's reason, unless the library has the cache open.
void require_cache();

// cached_entries walks over all entries, other VDCs' too. Failure kFailed, with libsdb's reason.
std::vector<CachedEntry> cached_entries();

// remove_entry removes one. Failure kFailed, with libsdb's reason.
void remove_entry(const CachedEntry &entry);

}  // namespace ksctl

#endif
