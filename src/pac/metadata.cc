// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "pac/metadata.h"

#include <stdlib.h>
#include <string.h>

#include "transport/trace.h"

namespace ks {

namespace {

// In the order of PacWalk. The public reads report these without the name.
constexpr const char *kNamedTexts[] = {
    nullptr,
    "%s(%d):Multiple Opaques present in PAC metadata.",
    "%s(%d):Bad TLV length in PAC-opaque meta data.",
    "%s(%d):Multiple Infos present in PAC metadata.",
    "%s(%d):Bad TLV length in PAC-Info meta data.",
    "%s(%d):Unknown PAC TLV type in meta data.",
    "%s(%d):Incomplete PAC metadata received from keystore.",
};

}  // namespace

const char *named_text(PacWalk end) {
  return kNamedTexts[static_cast<size_t>(end)];
}

bool PacMetadataWalk::next() {
  if (judgement_ != PacWalk::kFound || remaining_ == 0) return false;
  judgement_ = judge();
  if (judgement_ == PacWalk::kFound) {
    const uint32_t size = tlv_size(position_);
    position_ += size;
    remaining_ = static_cast<uint16_t>(remaining_ - size);
  }
  return true;
}

PacWalk PacMetadataWalk::judge() {
  constexpr uint16_t kNoType = 0;
  type_ = remaining_ < sizeof(KsPacTlv::type) ? kNoType : tlv_type(position_);
  has_length_ = false;
  if (type_ == EAP_FAST_PAC_OPAQUE) return judge_known(&opaque_, PacWalk::kMultipleOpaques, PacWalk::kBadOpaqueLength);
  if (type_ == EAP_FAST_PAC_INFO) return judge_known(&info_, PacWalk::kMultipleInfos, PacWalk::kBadInfoLength);
  return PacWalk::kUnknownType;
}

// A second TLV of a kind is one too many before its length is looked at.
PacWalk PacMetadataWalk::judge_known(PacTlvSpan *seen, PacWalk multiple, PacWalk bad_length) {
  if (seen->at != nullptr) return multiple;
  if (remaining_ < sizeof(KsPacTlv)) return bad_length;
  length_ = tlv_length(position_);
  has_length_ = true;
  if (tlv_size(position_) > remaining_) return bad_length;
  *seen = {position_, static_cast<uint16_t>(tlv_size(position_))};
  return PacWalk::kFound;
}

PacWalk PacMetadataWalk::end(uint16_t wanted, PacTlvSpan *found) const {
  if (judgement_ != PacWalk::kFound) return judgement_;
  *found = wanted == EAP_FAST_PAC_OPAQUE ? opaque_ : info_;
  return found->at != nullptr ? PacWalk::kFound : PacWalk::kIncomplete;
}

PacWalk ks_pac_metadata_walk(const uint8_t *meta, uint16_t meta_len, uint16_t wanted, PacTlvSpan *found) {
  PacMetadataWalk walk(meta, meta_len);
  while (walk.next()) {
  }
  return walk.end(wanted, found);
}

// The texts take no arguments behind the name's, and so none at all here.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
void report_failed_walk(PacWalk end) {
  constexpr size_t kName = sizeof "%s(%d):" - 1;
  KS_TRACE(KS_SUBTYPE_NORMAL, named_text(end) + kName);
}
#pragma GCC diagnostic pop

KsResult copy_tlv(const PacTlvSpan &tlv, uint8_t **out) {
  *out = static_cast<uint8_t *>(malloc(tlv.size));
  if (*out == nullptr) return KS_NO_MEMORY;
  memcpy(*out, tlv.at, tlv.size);
  return KS_SUCCESS;
}

uint32_t lifetime_in(const uint8_t *info, uint32_t info_len) {
  if (info_len < sizeof(KsPacTlv)) return 0;
  if (tlv_type(info) != EAP_FAST_PAC_INFO || tlv_size(info) != info_len) return 0;

  const uint8_t *position = tlv_value(info);
  uint32_t remaining = tlv_length(info);
  while (remaining >= sizeof(KsPacTlv) && tlv_size(position) <= remaining) {
    if (inner_type(position) == EAP_FAST_PAC_LIFETIME) {  // the first one is final, even if its size is wrong
      return tlv_length(position) == sizeof(uint32_t) ? be32(tlv_value(position)) : 0;
    }
    remaining -= tlv_size(position);
    position += tlv_size(position);
  }
  return 0;
}

}  // namespace ks
