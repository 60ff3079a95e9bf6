// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// caller.h: on whose behalf the service works.
#ifndef SERVICE_BASE_CALLER_H
#define SERVICE_BASE_CALLER_H

#include <sys/types.h>

#include <cstdint>
#include <optional>

namespace ksd {

// Caller is who opened the connection, by the kernel's word (SO_PEERCRED), with what the configuration maps it to.
struct Caller {
  uid_t uid = 0;
  pid_t pid = 0;
  uid_t counted_as = 0;            // whose quotas are used: those of `uid`, or of the user whose containers it is for
  std::optional<uint16_t> vdc_id;  // none: an unmapped user, who may not use any name
  bool administrator = false;      // may act for any VDC

  bool may_use(uint16_t vdc) const { return administrator || (vdc_id && *vdc_id == vdc); }
};

}  // namespace ksd

#endif
