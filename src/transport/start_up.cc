// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// start_up.cc: ks_init, which binds the message queue, learns the VDC and opens the cache.
//
// Opening the cache is a step from this folder up into another: callers are promised that a started library has tried
// to. It goes by the cache's public header.
#include "ks_api.h"
#include "mts.h"
#include "sysmgr.h"
#include "transport/trace.h"

KsResult ks_init(uint32_t first, uint32_t uuid, uint32_t third) {
  const KsBindTemplate bind = {.word0 = 1, .word1 = 0, .word2 = 1024, .app_uuid = uuid, .word4 = 0, .word5 = 15};
  app_uuid = uuid;
  ks_mts_q = mts_bind(1, first, &bind, third);
  if (ks_mts_q == MTS_FAILED) {
    KS_TRACE(KS_SUBTYPE_NORMAL, "mts_bind failed \n");
    return KS_FAILURE;
  }

  vdc_id = static_cast<uint16_t>(sysmgr_vdc_get());
  KS_TRACE(KS_SUBTYPE_NORMAL, "mts_bind succeeded \n");
  static_cast<void>(ks_sdb_init(app_uuid));  // a library without its cache is fully started: readers try again
  return KS_SUCCESS;
}
