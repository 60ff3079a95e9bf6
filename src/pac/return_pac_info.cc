// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// ks_return_pac_info and its cache half: a PAC's info TLV, from the cache or else from the keystore; the expiry in it;
// and the request as an exported builder. The twins of return_pac_opaque.cc.
//
//   descriptor  name length | 2                                        (2 bytes)
//   sections    name
//   reply       result | length | metadata: TLVs of type 2 and 9, in either order
#include "ks_secret.h"
#include "pac/metadata.h"
#include "pac/report.h"
#include "pac/requests.h"
#include "transport/exchange.h"
#include "transport/owned_block.h"

namespace {

// DIFFERS(info-walk-release): here it is a bad opaque that leaves both messages undropped for good, while all buffers
// go. Levelled, such a read would call mts_drop twice more.
constexpr bool keeps_messages_after(ks::PacWalk end) {
  return end == ks::PacWalk::kMultipleOpaques || end == ks::PacWalk::kBadOpaqueLength;
}

KsResult info_from_keystore(const uint8_t *aid, uint32_t aid_len, uint8_t **info, uint32_t *info_len) {
  ks::Exchange exchange(ks::kPacMetadata);
  ks::SectionList list(ks::kPacMetadata);
  if (!list.allocated()) return KS_NO_MEMORY;
  KsNameDescriptor descriptor;
  if (const KsResult built = ks::aid_request(aid, aid_len, list.data(), &descriptor); built != KS_SUCCESS) return built;

  if (const KsResult sent = ks_exchange(exchange, descriptor, list); sent != KS_SUCCESS) return sent;

  ks::OwnedBlock metadata;  // declared last: goes first
  uint16_t meta_len = 0;
  const KsResult read = ks_return_metadata_resp(exchange.size(), exchange.payload(), metadata.place(), &meta_len);
  if (read != KS_SUCCESS) return read;

  ks::PacTlvSpan found;
  const ks::PacWalk end = ks::ks_pac_metadata_walk(metadata.data(), meta_len, EAP_FAST_PAC_INFO, &found);
  if (end != ks::PacWalk::kFound) {
    ks::report_failed_walk(end);
    if (keeps_messages_after(end)) exchange.keep_messages();
    return KS_FAILURE;
  }
  if (const KsResult copied = ks::copy_tlv(found, info); copied != KS_SUCCESS) return copied;
  *info_len = found.size;
  list.release();  // here before the metadata, on the other paths behind it
  return KS_SUCCESS;
}

}  // namespace

KsResult ks_pac_info_req(const uint8_t *aid, uint32_t aid_len, KsSection *section, KsNameDescriptor *descriptor) {
  return ks::aid_request(aid, aid_len, section, descriptor);
}

KsResult ks_cache_get_pac_info(const uint8_t *aid, uint32_t aid_len, uint8_t **info, uint16_t *info_len) {
  uint8_t *name = ks::new_cache_name(aid, aid_len);
  if (name == nullptr) return KS_NO_MEMORY;
  ks::OwnedBlock metadata;
  uint16_t meta_len = 0;
  // DIFFERS(cache-info-name-byte): the name's length is cut to 8 bits here, and is whole in ks_cache_get_pac_opaque.
  // Levelled, an `aid_len` of 253 to 287 would be refused here, or let pass there.
  const KsResult read = ks_cache_read_pac(name, ks::wire_len(aid_len), metadata.place(), &meta_len);
  free(name);
  if (read != KS_SUCCESS) return read;
  KS_TRACE_HERE(KS_SUBTYPE_NORMAL, ":Found key in cache. Retreving PAC Info.");
  KS_TRACE_HERE(KS_SUBTYPE_NORMAL, ":Meta_len = %d.", meta_len);
  KS_TRACE_HERE(KS_SUBTYPE_NORMAL, ":Found key in cache. Retreving PAC Info.\n");
  KS_TRACE_HERE(KS_SUBTYPE_NORMAL, ":Meta_len = %d.\n", meta_len);

  ks::PacTlvSpan found;
  const ks::PacWalk end = ks::ks_pac_metadata_walk(metadata.data(), meta_len, EAP_FAST_PAC_INFO, &found);
  if (end != ks::PacWalk::kFound) {
    KS_TRACE(KS_SUBTYPE_NORMAL, ks::named_text(end), __func__, __LINE__);
    return KS_FAILURE;
  }
  if (const KsResult copied = ks::copy_tlv(found, info); copied != KS_SUCCESS) return copied;
  *info_len = found.size;
  metadata.release();
  KS_TRACE_HERE(KS_SUBTYPE_NORMAL, ":Return\n");
  return KS_SUCCESS;
}

KsResult ks_return_pac_info(const uint8_t *aid, uint32_t aid_len, uint8_t **info, uint32_t *info_len) {
  KS_TRACE_HERE(KS_SUBTYPE_NORMAL, "\n");
  if (!ks::is_aid(aid, aid_len) || info == nullptr || info_len == nullptr) return KS_INVALID_ARGS;

  // DIFFERS(info-single-reports): what ks_return_pac_opaque says twice and with a code, this read says once and
  // without. Levelled, there would be twice as many reports, and another text for a miss.
  if (!ks::opens_cache()) {
    KS_TRACE_HERE(KS_SUBTYPE_NORMAL, ":Cache absent. Using smartcard.");
  } else {
    uint8_t *cached = nullptr;
    uint16_t cached_len = 0;
    if (ks_cache_get_pac_info(aid, aid_len, &cached, &cached_len) == KS_SUCCESS) {
      KS_TRACE_HERE(KS_SUBTYPE_NORMAL, ":PAC info found in cache.");
      *info = cached;
      *info_len = cached_len;
      return KS_SUCCESS;
    }
    KS_TRACE_HERE(KS_SUBTYPE_NORMAL, ":PAC info not found in cache.");
    *info = nullptr;
    *info_len = 0;
  }

  const KsResult result = info_from_keystore(aid, aid_len, info, info_len);
  if (result == KS_SUCCESS) KS_TRACE_HERE(KS_SUBTYPE_NORMAL, ":Return.\n");
  return result;
}

uint32_t ks_get_pac_expiration(const uint8_t *aid, uint32_t aid_len) {
  ks::OwnedBlock info;
  uint32_t info_len = 0;
  if (ks_return_pac_info(aid, aid_len, info.place(), &info_len) != KS_SUCCESS) return 0;
  return ks::lifetime_in(info.data(), info_len);
}
