// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// ks_return_secret_handle_by_index: the caller's secrets, one at a time, out of the service's one table of all entries.
//
//   descriptor  position                                               (2 bytes)
//   sections    none
//   reply       result | length | wire name
//
// The service filters nothing: a call asks for entry after entry until one has the tag and the VDC.
#include "ks_api.h"
#include "transport/exchange.h"
#include "transport/owned_block.h"
#include "transport/trace.h"

namespace {

// An entry that is too short for a name's head has neither tag nor VDC to be known by.
bool is_secret(const uint8_t *wire, uint16_t wire_len) {
  return wire_len >= KS_NAME_HEADER_SIZE && wire[0] == KS_NAME_TAG_SECRET;
}

bool is_own(const uint8_t *wire) {
  return (wire[2] << 8 | wire[3]) == vdc_id;
}

// cut_to_name moves the name to the start of its buffer, as a text: the head leaves room for the terminator.
void cut_to_name(uint8_t *wire, uint16_t wire_len) {
  const uint16_t name_len = ks::low16(wire_len - size_t{KS_NAME_HEADER_SIZE});
  memmove(wire, wire + KS_NAME_HEADER_SIZE, name_len);
  wire[name_len] = 0;
}

}  // namespace

void ks_return_secret_handle_by_index_req(uint16_t index, KsIndexDescriptor *descriptor) {
  descriptor->index = index;
}

KsResult ks_return_secret_handle_by_index_resp(uint16_t payload_size, const void *payload, uint8_t **name,
                                               uint16_t *name_len) {
  const KsResult result = ks::reply_result(payload);
  const uint16_t len = result == KS_SUCCESS ? ks::reply_len(payload) : ks::reported_len(payload_size, payload);
  KS_TRACE(KS_SUBTYPE_NORMAL, "%s: Ret :%d len:%d \n", __func__, result, len);
  if (result != KS_SUCCESS) return result;

  return ks::copy_reply_data(payload, name, name_len);
}

KsResult ks_return_secret_handle_by_index(uint16_t *index, char **name) {
  if (index == nullptr || name == nullptr) {
    KS_TRACE(KS_SUBTYPE_NORMAL, "Invalid arguments \n");
    return KS_INVALID_ARGS;
  }

  for (uint16_t position = *index;; ++position) {
    ks::Exchange exchange(ks::kSecretByIndex);
    KsIndexDescriptor descriptor;
    ks_return_secret_handle_by_index_req(position, &descriptor);
    if (const KsResult sent = ks_exchange(exchange, descriptor); sent != KS_SUCCESS) return sent;

    ks::OwnedBlock entry;  // declared behind the exchange: goes before its messages
    uint16_t len = 0;
    const KsResult read =
        ks_return_secret_handle_by_index_resp(exchange.size(), exchange.payload(), entry.place(), &len);
    if (read != KS_SUCCESS) return read;
    KS_TRACE(KS_SUBTYPE_NORMAL, "Received a key \n");

    if (!is_secret(entry.data(), len)) {
      KS_TRACE(KS_SUBTYPE_NORMAL, "Key not a password \n");
      continue;
    }
    KS_TRACE(KS_SUBTYPE_NORMAL, "Key is a password \n");
    if (!is_own(entry.data())) {
      // DIFFERS(foreign-secret-two-texts): any other entry has one text. Levelled, the history of a walk would hold one
      // report fewer for each secret of another VDC.
      KS_TRACE(KS_SUBTYPE_NORMAL, "Key not a password \n");
      continue;
    }

    cut_to_name(*entry.place(), len);
    *index = ks::low16(position + size_t{1});
    *name = reinterpret_cast<char *>(entry.take());
    return KS_SUCCESS;
  }
}
