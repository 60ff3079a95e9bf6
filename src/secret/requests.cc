// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "secret/requests.h"

#include "transport/trace.h"

namespace ks {

KsResult report_bad_arguments() {
  KS_TRACE(KS_SUBTYPE_NORMAL, "Invalid Arguments \n");
  return KS_INVALID_ARGS;
}

KsResult report_no_list() {
  KS_TRACE(KS_SUBTYPE_NORMAL, "Memory Allocation failed \n");
  return KS_NO_MEMORY;
}

}  // namespace ks
