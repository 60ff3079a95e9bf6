// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// ks_generate_random_number: nothing on the heap, one reply with one block.
//
//   descriptor  count | 3 bytes not written | request word       (8 bytes)
//   sections    none
//   reply       result | count, of which the low byte is read | bytes
#include "ks_device.h"
#include "transport/exchange.h"
#include "transport/trace.h"

namespace {

void describe(uint8_t count, uint32_t request_word, KsRandomDescriptor *descriptor) {
  descriptor->count = count;
  descriptor->request_word = request_word;
}

}  // namespace

void ks_generate_random_number_req(uint32_t count, uint32_t request_word, KsRandomDescriptor *descriptor) {
  describe(ks::low8(count), request_word, descriptor);
}

KsResult ks_generate_random_number_resp(uint16_t, const void *payload, uint8_t *output) {
  const KsResult result = ks::reply_result(payload);
  if (result != KS_SUCCESS) {
    KS_TRACE(KS_SUBTYPE_NORMAL, "Random number ret failed :%d, %16x \n", result, result);
    return result;
  }
  // DIFFERS(random-count-byte): every other reader takes 16 bits of length, most of them to compare. Levelled, a length
  // field of 0x0104 would copy 260 bytes where it copies 4.
  const uint8_t count = static_cast<const uint8_t *>(payload)[offsetof(ks::ReplyHead, len)];
  memcpy(output, ks::reply_data(payload), count);
  return KS_SUCCESS;
}

KsResult ks_generate_random_number(uint8_t *output, uint8_t count, uint32_t request_word) {
  if (output == nullptr || count == 0) return KS_INVALID_ARGS;

  ks::Exchange exchange(ks::kGenerateRandom);
  KsRandomDescriptor descriptor;
  describe(count, request_word, &descriptor);

  if (const KsResult sent = ks_exchange(exchange, descriptor); sent != KS_SUCCESS) return sent;

  return ks_generate_random_number_resp(exchange.size(), exchange.payload(), output);
}
