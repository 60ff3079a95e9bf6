// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// ks_store_pac: the one operation that brings a PAC into the keystore.
//
//   descriptor  name | key | metadata, each a length and an offset   (20 bytes)
//   sections    name | the caller's key | opaque and info, gathered
//   reply       result
#include "ks_pac.h"
#include "pac/tlv.h"
#include "transport/exchange.h"
#include "transport/trace.h"

namespace {

constexpr uint32_t kOwnedSections = 0b101;  // the name and the metadata; the key is the caller's

// is_tlv_of tells whether the bytes are exactly one TLV of that type, mandatory bit included.
bool is_tlv_of(uint16_t type, const uint8_t *tlv, uint32_t len) {
  return len >= sizeof(KsPacTlv) && ks::tlv_type(tlv) == type && ks::tlv_size(tlv) == len;
}

}  // namespace

KsResult ks_store_pac_req(const uint8_t *aid, uint32_t aid_len, const uint8_t *pac_key, uint32_t pac_key_len,
                          const uint8_t *opaque, uint32_t opaque_len, const uint8_t *info, uint32_t info_len,
                          KsSection *sections, KsStorePacDescriptor *descriptor) {
  void *name = ks::new_wire_name(KS_NAME_TAG_PAC, aid, aid_len, ks::NameBuffer::kWireName);
  if (name == nullptr) return KS_NO_MEMORY;
  if (!is_tlv_of(EAP_FAST_PAC_OPAQUE, opaque, opaque_len) || !is_tlv_of(EAP_FAST_PAC_INFO, info, info_len)) {
    free(name);
    return KS_INVALID_ARGS;
  }
  const uint32_t metadata_len = opaque_len + info_len;
  auto *metadata = static_cast<uint8_t *>(calloc(1, metadata_len));
  if (metadata == nullptr) {
    free(name);
    return KS_NO_MEMORY;
  }
  memcpy(metadata, opaque, opaque_len);
  memcpy(metadata + opaque_len, info, info_len);

  descriptor->name_len = ks::wire_len(aid_len);
  descriptor->name_offset = sizeof *descriptor;
  descriptor->key_len = pac_key_len;
  descriptor->key_offset = descriptor->name_len + uint32_t{sizeof *descriptor};
  descriptor->metadata_len = metadata_len;
  descriptor->metadata_offset = descriptor->key_offset + pac_key_len;
  sections[0] = {name, descriptor->name_len};
  sections[1] = {pac_key, pac_key_len};
  sections[2] = {metadata, metadata_len};
  return KS_SUCCESS;
}

KsResult ks_store_pac_resp(uint16_t, const void *payload) {
  return ks::reply_result(payload);
}

KsResult ks_store_pac(const uint8_t *aid, uint32_t aid_len, const uint8_t *pac_key, uint32_t pac_key_len,
                      const uint8_t *opaque, uint32_t opaque_len, const uint8_t *info, uint32_t info_len) {
  KS_TRACE_HERE(KS_SUBTYPE_NORMAL, "\n");
  if (!ks::is_aid(aid, aid_len)) return KS_INVALID_ARGS;
  if (pac_key == nullptr || pac_key_len == 0) return KS_INVALID_ARGS;
  if (opaque == nullptr || opaque_len == 0) return KS_INVALID_ARGS;
  if (info == nullptr || info_len == 0) return KS_INVALID_ARGS;

  ks::Exchange exchange(ks::kStorePac);
  ks::SectionList list(ks::kStorePac, kOwnedSections);
  if (!list.allocated()) return KS_NO_MEMORY;
  KsStorePacDescriptor descriptor;
  if (const KsResult built = ks_store_pac_req(aid, aid_len, pac_key, pac_key_len, opaque, opaque_len, info, info_len,
                                              list.data(), &descriptor);
      built != KS_SUCCESS) {
    return built;
  }

  if (const KsResult sent = ks_exchange(exchange, descriptor, list); sent != KS_SUCCESS) return sent;

  const KsResult result = ks::reply_result(exchange.payload());  // in place, as the request is not
  list.release();
  exchange.drop();
  KS_TRACE_HERE(KS_SUBTYPE_NORMAL, ":Return.\n");
  return result;
}
