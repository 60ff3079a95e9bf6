// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "transport/trace.h"

#include <stdarg.h>
#include <stdio.h>
#include <string.h>

namespace ks {

void record_history(uint32_t subtype, const char *format, ...) {
  KsHistRecord record;
  record.subtype = subtype;
  va_list arguments;
  va_start(arguments, format);
  if (vsnprintf(record.text, sizeof record.text, format, arguments) < 0) record.text[0] = '\0';
  va_end(arguments);
  const size_t used = sizeof record.subtype + strlen(record.text) + 1;
  static_cast<void>(sdwrap_hist_event(KS_HIST_EVENT, static_cast<uint32_t>(used), &record));
}

}  // namespace ks
