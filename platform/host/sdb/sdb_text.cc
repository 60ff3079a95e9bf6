// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// sdb_text.cc: texts for codes.
#include <cstdio>
#include <cstring>

#include "sdb_codes.h"
#include "sdb_thread.h"

namespace sdb {

namespace {

void write_text(const Thread &thread, uint32_t code, char *out, size_t size) {
  if (const char *known = text_of_code(code)) {
    const bool tells_more = code != kOk && code == thread.failure_code;
    snprintf(out, size, "%s%s%s", known, tells_more ? ": " : "", tells_more ? thread.failure : "");
    return;
  }
  // Callers pass their own small result codes too: the text says what it would be as one of the system's.
  const char *system = code <= INT32_MAX ? strerrordesc_np(static_cast<int>(code)) : nullptr;
  if (system != nullptr) {
    snprintf(out, size, "Error %u (of the system: %s)", code, system);
  } else {
    snprintf(out, size, "Unknown error 0x%08x", code);
  }
}

}  // namespace

}  // namespace sdb

KS_EXPORT const char *syserr2str(uint32_t code) {
  sdb::Thread *thread = sdb::this_thread();
  if (thread == nullptr) {
    const char *known = sdb::text_of_code(code);
    return known != nullptr ? known : "Unknown error";
  }
  sdb::write_text(*thread, code, thread->text, sizeof thread->text);
  return thread->text;
}
