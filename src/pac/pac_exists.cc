// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// ks_pac_exists: whether a PAC is there, the cache first.
//
//   descriptor  name length | 2                                        (2 bytes)
//   sections    name
//   reply       result | 2 bytes, not read | flag; of 6 bytes as it is expected, and so one byte short of the flag
//
// The operation builds and reads in place. Its companions are for callers that run the exchange themselves.
#include "pac/report.h"
#include "pac/requests.h"
#include "transport/exchange.h"

namespace {

// DIFFERS(pac-exists-not-found): a PAC that isn't there is KS_NOT_FOUND, where ks_secret_exists makes it a success with
// 0. Levelled, this result would become KS_SUCCESS.
KsResult read_exists(uint32_t *exists, const void *payload) {
  const KsResult result = ks::reply_result(payload);
  // NOLINTNEXTLINE(clang-analyzer-core.NullDereference): ks_pac_exists promises the fault, as it says below.
  if (result == KS_SUCCESS) *exists = *ks::reply_data(payload);
  return result;
}

}  // namespace

KsResult ks_pac_exists_req(const uint8_t *aid, uint32_t aid_len, KsSection *section, KsNameDescriptor *descriptor) {
  return ks::aid_request(aid, aid_len, section, descriptor);
}

// The arguments stand the other way round than those of ks_secret_exists_resp.
KsResult ks_pac_exists_resp(uint32_t *exists, const void *payload) {
  return read_exists(exists, payload);
}

KsResult ks_pac_exists(const uint8_t *aid, uint32_t aid_len, uint32_t *exists) {
  KS_TRACE_HERE(KS_SUBTYPE_NORMAL, "\n");
  if (!ks::is_aid(aid, aid_len) || exists == nullptr) return KS_INVALID_ARGS;

  // Volatile, so that no compiler draws conclusions from the null pointer below and removes the store.
  uint32_t *volatile answer = exists;
  if (!ks::opens_cache()) {
    KS_TRACE_TWICE(":Cache absent. Using smartcard.");
  } else {
    if (ks_cache_find_pac(aid, aid_len, exists) == KS_SUCCESS) {
      KS_TRACE_TWICE(":PAC found in cache.");
      return KS_SUCCESS;
    }
    KS_TRACE_TWICE(":PAC not found in cache.");
    // DIFFERS(pac-exists-null-store): behind a miss the keystore's yes is stored through a null pointer, and faults,
    // where behind a closed cache it is delivered. Levelled, the process would go on, with KS_SUCCESS and the flag.
    answer = nullptr;
  }

  ks::Exchange exchange(ks::kPacExists);
  ks::SectionList list(ks::kPacExists);
  if (!list.allocated()) return KS_NO_MEMORY;
  KsNameDescriptor descriptor;
  if (const KsResult built = ks::aid_request(aid, aid_len, list.data(), &descriptor); built != KS_SUCCESS) return built;

  if (const KsResult sent = ks_exchange(exchange, descriptor, list); sent != KS_SUCCESS) return sent;

  if (exchange.size() != ks::kPacExists.reply_size) {  // only reported: the flag is read in any case
    KS_TRACE(KS_SUBTYPE_NORMAL, "Invalid Response Length:%d\n", exchange.size());
  }
  const KsResult result = read_exists(answer, exchange.payload());
  list.release();
  exchange.drop();
  KS_TRACE_HERE(KS_SUBTYPE_NORMAL, ":Return.\n");
  return result;
}
