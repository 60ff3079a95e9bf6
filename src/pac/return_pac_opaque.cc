// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// ks_return_pac_opaque and its cache half: a PAC's opaque TLV, from the cache or else from the keystore.
//
//   descriptor  name length | 2                                        (2 bytes)
//   sections    name, on the stack
//   reply       result | length | metadata: TLVs of type 2 and 9, in either order
//
// return_pac_info.cc holds the twins. They differ in which TLV is wanted, in what they report, in where the name lies,
// and in what a failed walk leaves behind.
#include "ks_secret.h"
#include "pac/metadata.h"
#include "pac/report.h"
#include "pac/requests.h"
#include "sdb.h"
#include "transport/exchange.h"
#include "transport/owned_block.h"

namespace {

// Release is what goes after a failed walk of the keystore's metadata, and in which order.
enum class Release : uint8_t {
  kMetadataListMessages,
  kListMessagesMetadata,
  kMetadataOnly,  // the list and both messages stay for good
};

// DIFFERS(opaque-walk-release): ks_return_pac_info frees every buffer whatever the damage; here it decides what goes
// and when. Levelled, other blocks and messages would be left, and mts_drop be called before or behind other releases.
constexpr Release release_after(ks::PacWalk end) {
  switch (end) {
    case ks::PacWalk::kMultipleInfos:
    case ks::PacWalk::kBadInfoLength:
      return Release::kMetadataOnly;
    case ks::PacWalk::kUnknownType:
      return Release::kListMessagesMetadata;
    default:
      return Release::kMetadataListMessages;
  }
}

// What the cache half reports of a failed walk, without and with a line end.
struct TwiceReported {
  const char *first;
  const char *second;
};

#define TWICE(text) \
  { "%s(%d)" text, "%s(%d)" text "\n" }

// In the order of ks::PacWalk.
constexpr TwiceReported kFailedWalkTexts[] = {
    {nullptr, nullptr},
    TWICE(":Multiple Opaques present in PAC metadata."),
    TWICE(":Bad TLV length in PAC-opaque meta data."),
    TWICE(":Multiple Infos present in PAC metadata."),
    // DIFFERS(opaque-walk-words): for the next two ends the other readers say what is wrong. Levelled, both texts
    // change.
    TWICE(":Multiple Infos present in PAC metadata."),  // an info of a bad length
    TWICE(":tlv->type is EAP_FAST_PAC_OPAQUE."),        // a TLV of an unknown type
    TWICE(":Incomplete PAC metadata received from keystore."),
};

#undef TWICE

KsResult opaque_from_keystore(const uint8_t *aid, uint32_t aid_len, uint8_t **opaque, uint32_t *opaque_len) {
  ks::Exchange exchange(ks::kPacMetadata);
  // DIFFERS(opaque-stack-name): the one name that isn't on the heap. Levelled, a read would allocate once more, and
  // could fail at that.
  constexpr uint32_t kOwnsNothing = 0;
  ks::SectionList list(ks::kPacMetadata, kOwnsNothing);
  if (!list.allocated()) return KS_NO_MEMORY;
  KsWireName name = {};
  ks::fill_wire_name(&name, KS_NAME_TAG_PAC, aid, aid_len);
  const KsNameDescriptor descriptor = {ks::wire_len(aid_len), sizeof descriptor};
  *list.data() = {&name, descriptor.name_len};

  if (const KsResult sent = ks_exchange(exchange, descriptor, list); sent != KS_SUCCESS) return sent;

  ks::OwnedBlock metadata;  // declared last: goes first
  uint16_t meta_len = 0;
  const KsResult read = ks_return_metadata_resp(exchange.size(), exchange.payload(), metadata.place(), &meta_len);
  if (read != KS_SUCCESS) return read;

  ks::PacTlvSpan found;
  const ks::PacWalk end = ks::ks_pac_metadata_walk(metadata.data(), meta_len, EAP_FAST_PAC_OPAQUE, &found);
  if (end != ks::PacWalk::kFound) {
    ks::report_failed_walk(end);
    switch (release_after(end)) {
      case Release::kMetadataListMessages:
        break;
      case Release::kListMessagesMetadata:
        list.release();
        exchange.drop();
        break;
      case Release::kMetadataOnly:
        list.keep_all();
        exchange.keep_messages();
        break;
    }
    return KS_FAILURE;
  }
  if (const KsResult copied = ks::copy_tlv(found, opaque); copied != KS_SUCCESS) return copied;
  *opaque_len = found.size;
  list.release();  // here before the metadata, on the other paths behind it
  return KS_SUCCESS;
}

}  // namespace

KsResult ks_cache_get_pac_opaque(const uint8_t *aid, uint32_t aid_len, uint8_t **opaque, uint16_t *opaque_len) {
  uint8_t *name = ks::new_cache_name(aid, aid_len);
  if (name == nullptr) return KS_NO_MEMORY;
  ks::OwnedBlock metadata;
  uint16_t meta_len = 0;
  const KsResult read = ks_cache_read_pac(name, aid_len + KS_NAME_HEADER_SIZE, metadata.place(), &meta_len);
  free(name);
  if (read != KS_SUCCESS) return read;
  KS_TRACE_HERE(KS_SUBTYPE_NORMAL, ":Found key in cache. Retreving PAC opaque.");
  KS_TRACE_HERE(KS_SUBTYPE_NORMAL, ":Meta_len = %d.", meta_len);
  KS_TRACE_HERE(KS_SUBTYPE_NORMAL, ":Found key in cache. Retreving PAC opaque.\n");
  KS_TRACE_HERE(KS_SUBTYPE_NORMAL, ":Meta_len = %d.\n", meta_len);

  // DIFFERS(opaque-walk-trace): the only reader that reports each TLV. Levelled, these reports would be missing.
  ks::PacMetadataWalk walk(metadata.data(), meta_len);
  while (walk.next()) {
    if (walk.type() == EAP_FAST_PAC_OPAQUE) {
      KS_TRACE_TWICE(":tlv->type is EAP_FAST_PAC_OPAQUE.Meta_len = %d", meta_len);
      if (walk.has_length()) KS_TRACE_TWICE(":Opaque_len is %d.", walk.length());
    } else if (walk.type() == EAP_FAST_PAC_INFO) {
      KS_TRACE_TWICE(":tlv->type is EAP_FAST_PAC_INFO.");
      if (walk.has_length()) KS_TRACE_HERE(KS_SUBTYPE_NORMAL, ":Info_len is %d", walk.length());
    }
  }
  ks::PacTlvSpan found;
  const ks::PacWalk end = walk.end(EAP_FAST_PAC_OPAQUE, &found);
  if (end != ks::PacWalk::kFound) {
    const TwiceReported &text = kFailedWalkTexts[static_cast<size_t>(end)];
    KS_TRACE(KS_SUBTYPE_NORMAL, text.first, __func__, __LINE__);
    KS_TRACE(KS_SUBTYPE_NORMAL, text.second, __func__, __LINE__);
    return KS_FAILURE;
  }

  if (const KsResult copied = ks::copy_tlv(found, opaque); copied != KS_SUCCESS) return copied;
  *opaque_len = found.size;
  metadata.release();
  KS_TRACE_HERE(KS_SUBTYPE_NORMAL, ":Return\n");
  return KS_SUCCESS;
}

KsResult ks_return_pac_opaque(const uint8_t *aid, uint32_t aid_len, uint8_t **opaque, uint32_t *opaque_len) {
  KS_TRACE_HERE(KS_SUBTYPE_NORMAL, "\n");
  if (!ks::is_aid(aid, aid_len) || opaque == nullptr || opaque_len == nullptr) return KS_INVALID_ARGS;

  if (!ks::opens_cache()) {
    KS_TRACE_TWICE(":Cache absent. Using smartcard.");
  } else {
    uint8_t *cached = nullptr;
    uint16_t cached_len = 0;
    const KsResult asked = ks_cache_get_pac_opaque(aid, aid_len, &cached, &cached_len);
    if (asked == KS_SUCCESS) {
      KS_TRACE_TWICE(":PAC found in cache.");
      *opaque = cached;
      *opaque_len = cached_len;
      return KS_SUCCESS;
    }
    // The platform's words for a number that is no code of the platform: so the text is promised.
    KS_TRACE_TWICE(":PAC not found in cache.Error = %d(%s)", asked, syserr2str(asked));
    *opaque = nullptr;
    *opaque_len = 0;
  }

  const KsResult result = opaque_from_keystore(aid, aid_len, opaque, opaque_len);
  if (result == KS_SUCCESS) KS_TRACE_HERE(KS_SUBTYPE_NORMAL, ":Return.\n");
  return result;
}
