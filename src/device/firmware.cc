// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// The two operations on the firmware: no descriptor, no sections.
//
//   reply to version and status   result | length, not read | version, 16 bits | status, 8 bits
//   reply to compaction           result
#include "ks_device.h"
#include "transport/exchange.h"
#include "transport/stderr_dump.h"
#include "transport/trace.h"

KsResult ks_return_fw_version_and_status_resp(uint16_t payload_size, const void *payload, uint16_t *version,
                                              uint32_t *status) {
  const KsResult result = ks::reply_result(payload);
  // DIFFERS(fw-status-dump): the only reader that prints its reply, on failures too. Levelled, nothing would stand on
  // standard error after the call.
  ks::dump_to_stderr(payload, payload_size);
  if (result == KS_SUCCESS) {
    memcpy(version, ks::reply_data(payload), sizeof *version);
    KS_TRACE(KS_SUBTYPE_NORMAL, "Version :%d \n", *version);
    *status = ks::reply_data(payload)[sizeof *version];
  }
  return result;
}

KsResult ks_return_fw_version_and_status(uint16_t *version, uint32_t *status) {
  if (version == nullptr || status == nullptr) return KS_INVALID_ARGS;

  ks::Exchange exchange(ks::kFwVersionStatus);
  if (const KsResult sent = ks_exchange(exchange); sent != KS_SUCCESS) return sent;

  return ks_return_fw_version_and_status_resp(exchange.size(), exchange.payload(), version, status);
}

KsResult ks_compact_fw_memory_resp(uint16_t, const void *payload) {
  return ks::reply_result(payload);
}

KsResult ks_compact_fw_memory(void) {
  ks::Exchange exchange(ks::kCompactFwMemory);
  if (const KsResult sent = ks_exchange(exchange); sent != KS_SUCCESS) return sent;

  return ks_compact_fw_memory_resp(exchange.size(), exchange.payload());
}
