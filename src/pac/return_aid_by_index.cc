// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// ks_return_aid_by_index: the caller's PACs, one at a time, out of the service's one table of all entries.
//
//   descriptor  position                                               (2 bytes)
//   sections    none
//   reply       result | length | wire name
//
// The twin of ks_return_secret_handle_by_index, with the other tag, other words and other results.
#include "ks_pac.h"
#include "transport/exchange.h"
#include "transport/owned_block.h"
#include "transport/trace.h"

namespace {

// A length below that of a name's head tells nothing of tag and VDC: such an entry is not the caller's.
bool is_own_pac(const uint8_t *wire, uint16_t wire_len) {
  if (wire_len < KS_NAME_HEADER_SIZE) return false;
  return wire[0] == KS_NAME_TAG_PAC && (wire[2] << 8 | wire[3]) == vdc_id;
}

}  // namespace

KsResult ks_return_aid_by_index(uint16_t *index, uint8_t **aid, uint16_t *aid_len) {
  KS_TRACE_HERE(KS_SUBTYPE_NORMAL, "\n");
  if (index == nullptr || aid == nullptr || aid_len == nullptr) return KS_INVALID_ARGS;

  for (uint16_t position = *index;; ++position) {
    ks::Exchange exchange(ks::kAidByIndex);
    const KsIndexDescriptor descriptor = {.index = position};
    if (const KsResult sent = ks_exchange(exchange, descriptor); sent != KS_SUCCESS) return sent;

    const KsResult result = ks::reply_result(exchange.payload());
    // A success is believed to hold what its length says: the size, cut to 16 bits, shows 5 for a reply of 65,541.
    const uint16_t len = result == KS_SUCCESS ? ks::reply_len(exchange.payload())
                                              : ks::reported_len(exchange.size(), exchange.payload());
    // The name of the twin's reader, as promised: in the trace the two walks look alike here.
    KS_TRACE(KS_SUBTYPE_NORMAL, "%s: Ret :%d len:%d \n", "ks_return_secret_handle_by_index_resp", result, len);
    if (result != KS_SUCCESS) return result;

    ks::OwnedBlock name;  // declared behind the exchange: goes before its messages
    uint16_t name_len = 0;
    const KsResult copied = ks::copy_reply_data(exchange.payload(), name.place(), &name_len);
    if (copied != KS_SUCCESS) return copied;
    if (!is_own_pac(name.data(), name_len)) continue;

    const uint16_t own_len = ks::low16(name_len - size_t{KS_NAME_HEADER_SIZE});
    *aid = name.take();
    memmove(*aid, *aid + KS_NAME_HEADER_SIZE, own_len);
    (*aid)[own_len] = 0;
    *aid_len = own_len;
    *index = ks::low16(position + size_t{1});
    exchange.drop();
    KS_TRACE_HERE(KS_SUBTYPE_NORMAL, ":Return KS_SUCCESS.\n");
    return KS_SUCCESS;
  }
}
