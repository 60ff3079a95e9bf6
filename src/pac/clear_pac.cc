// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// ks_clear_pac: one PAC out of the keystore, unless the sup state holds it.
//
//   descriptor  name length | 2                                        (2 bytes)
//   sections    name
//   reply       result, of 6 bytes as it is expected
//
// The operation builds and reads in place. Its companions are for callers that run the exchange themselves.
#include "pac/requests.h"
#include "sysmgr.h"
#include "transport/exchange.h"
#include "transport/trace.h"

KsResult ks_clear_pac_req(const uint8_t *aid, uint32_t aid_len, KsSection *section, KsNameDescriptor *descriptor) {
  return ks::aid_request(aid, aid_len, section, descriptor);
}

KsResult ks_clear_pac_resp(uint16_t, const void *payload) {
  return ks::reply_result(payload);
}

KsResult ks_clear_pac(const uint8_t *aid, uint32_t aid_len) {
  KS_TRACE_HERE(KS_SUBTYPE_NORMAL, ":\n");
  // DIFFERS(clear-pac-hold): the one check in front of those of the arguments, and the one 0 that is ever answered.
  // Levelled, bad arguments would be refused in this state, or another code would say that the PAC is held.
  if (sysmgr_supstate_get() == KS_SUPSTATE_HOLD) return KS_NOT_REGISTERED;
  if (!ks::is_aid(aid, aid_len)) return KS_INVALID_ARGS;

  ks::Exchange exchange(ks::kClearPac);
  ks::SectionList list(ks::kClearPac);
  // DIFFERS(clear-pac-no-list): most others answer KS_NO_MEMORY here. Levelled, this result would change from 2 to 4.
  if (!list.allocated()) return KS_FAILURE;
  KsNameDescriptor descriptor;
  if (const KsResult built = ks::aid_request(aid, aid_len, list.data(), &descriptor); built != KS_SUCCESS) return built;

  if (const KsResult sent = ks_exchange(exchange, descriptor, list); sent != KS_SUCCESS) return sent;

  if (exchange.size() != ks::kClearPac.reply_size) {  // only reported: the result word is there in any case
    KS_TRACE(KS_SUBTYPE_NORMAL, "Invalid Response Length :%d \n", exchange.size());
  }
  const KsResult result = ks::reply_result(exchange.payload());
  list.release();
  exchange.drop();
  KS_TRACE_HERE(KS_SUBTYPE_NORMAL, ":Return.\n");
  return result;
}
