// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "transport/reply.h"

#include <stdlib.h>

#include "transport/trace.h"

namespace ks {

KsResult copy_reply_data(const void *payload, uint8_t **out, uint16_t *out_len) {
  const uint16_t len = reply_len(payload);
  *out = static_cast<uint8_t *>(calloc(1, len));
  if (*out == nullptr) return KS_NO_MEMORY;
  memcpy(*out, reply_data(payload), len);
  *out_len = len;
  return KS_SUCCESS;
}

KsResult read_exactly(const void *payload, void *output, uint16_t expected_len) {
  if (const KsResult result = reply_result(payload); result != KS_SUCCESS) return result;
  const uint16_t len = reply_len(payload);
  if (len != expected_len) {
    KS_TRACE(KS_SUBTYPE_NORMAL, "Invalid buffer len :%d output data len :%d \n", expected_len, len);
    return KS_FAILURE;
  }
  memcpy(output, reply_data(payload), len);
  return KS_SUCCESS;
}

}  // namespace ks
