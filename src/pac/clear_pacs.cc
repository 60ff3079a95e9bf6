// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// The two walks that remove PACs from the keystore. The cache stays as it is.
//
//   descriptor  name length | 2                                        (2 bytes), for the metadata of each PAC
//   sections    name
//   reply       result | length | metadata
#include "pac/requests.h"
#include "transport/exchange.h"
#include "transport/owned_block.h"
#include "transport/trace.h"

KsResult ks_clear_old_pacs(const char *i_id) {
  KS_TRACE_HERE(KS_SUBTYPE_NORMAL, "\n");

  uint16_t cursor = 0;
  ks::SectionList list(ks::kPacMetadata);  // one for the whole walk
  if (!list.allocated()) return KS_NO_MEMORY;
  for (;;) {
    ks::OwnedBlock metadata;
    ks::OwnedBlock aid;  // goes before the metadata, and both before the list unless it is released by name
    uint16_t meta_len = 0;
    uint16_t aid_len = 0;
    const KsResult next = ks_return_aid_by_index(&cursor, aid.place(), &aid_len);
    if (next == KS_NO_MORE_ENTRIES) return KS_SUCCESS;
    if (next != KS_SUCCESS) return next;

    KsNameDescriptor descriptor;
    if (const KsResult built = ks::aid_request(aid.data(), aid_len, list.data(), &descriptor); built != KS_SUCCESS) {
      list.release();
      return built;
    }
    ks::Exchange exchange(ks::kPacMetadata);
    if (const KsResult sent = ks_exchange(exchange, descriptor, list); sent != KS_SUCCESS) {
      list.release();
      return sent;
    }
    // DIFFERS(clear-old-pacs-keeps): neither message of a PAC's metadata is ever dropped, and further down its name is
    // not freed. Levelled, each PAC would cause two calls of mts_drop more, and leave one block less.
    exchange.keep_messages();
    KsResult read = ks::reply_result(exchange.payload());  // in place, and so is what follows
    if (read == KS_SUCCESS) read = ks::copy_reply_data(exchange.payload(), metadata.place(), &meta_len);
    if (read != KS_SUCCESS) {
      KS_TRACE(KS_SUBTYPE_NORMAL, "PAC metadata retrieval from hw keystore failed, status %d.", read);
      return read;
    }

    // DIFFERS(clear-old-pacs-cursor): behind a PAC that stays, the next position is passed over. Levelled, one call
    // would ask for more positions and could remove more PACs.
    const bool stays =
        ks_sw_pac_still_valid(metadata.data(), meta_len, i_id) == 1 || ks_clear_pac(aid.data(), aid_len) != KS_SUCCESS;
    if (stays) ++cursor;
    *list.data() = {};  // forgets the name
  }
}

KsResult ks_clear_all_pacs(void) {
  for (;;) {
    uint16_t cursor = 0;  // from the start each time, so that a table that closes up hides nothing
    ks::OwnedBlock aid;
    uint16_t aid_len = 0;
    const KsResult next = ks_return_aid_by_index(&cursor, aid.place(), &aid_len);
    if (next == KS_NO_MORE_ENTRIES) return KS_SUCCESS;
    if (next != KS_SUCCESS) return next;

    if (const KsResult cleared = ks_clear_pac(aid.data(), aid_len); cleared != KS_SUCCESS) return cleared;
  }
}
