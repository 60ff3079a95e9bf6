// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// name.h: the names in requests: how they are read, and who may use them.
#ifndef SERVICE_HANDLERS_NAME_H
#define SERVICE_HANDLERS_NAME_H

#include <optional>

#include "base/entry_name.h"
#include "handlers/request.h"
#include "handlers/service.h"

namespace ksd::handlers {

// request_name decodes the wire name of `length` bytes at `offset`, or gives nothing when it is out of bounds or
// malformed.
inline std::optional<EntryName> request_name(const Request &request, size_t offset, size_t length) {
  const std::optional<Bytes> wire = request.section(offset, length);
  return wire ? entry_name(*wire) : std::nullopt;
}

// request_name decodes the name that a descriptor points to first.
template <typename Descriptor>
std::optional<EntryName> request_name(const Request &request, const Descriptor &descriptor) {
  return request_name(request, descriptor.name_offset, descriptor.name_len);
}

// allowed_name tells whether the caller may use `name`, and counts and logs the attempt when not. Every handler asks it
// before it asks the store, and then answers as for a name that isn't there.
inline bool allowed_name(Service &service, const Request &request, const EntryName &name) {
  if (request.caller.may_use(name.vdc_id)) return true;
  service.refused_name(request.caller);
  return false;
}

}  // namespace ksd::handlers

#endif
