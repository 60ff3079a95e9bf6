// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// metadata.h: the one walk over a PAC's metadata for its four readers. They differ in what they report and release, so
// the walk itself does neither.
#ifndef PAC_METADATA_H
#define PAC_METADATA_H

#include "pac/tlv.h"

namespace ks {

// PacWalk is how a walk ends. Every end but kFound is a KS_FAILURE of the read.
enum class PacWalk : uint8_t {
  kFound,
  kMultipleOpaques,
  kBadOpaqueLength,
  kMultipleInfos,
  kBadInfoLength,
  kUnknownType,
  kIncomplete,  // all is well, but the wanted TLV isn't there
};

// PacTlvSpan is a TLV within the metadata, header included.
struct PacTlvSpan {
  const uint8_t *at = nullptr;
  uint16_t size = 0;
};

// PacMetadataWalk goes through metadata one TLV at a time, so that a reader may look on. All of it is judged, whichever
// TLV is wanted: damage behind a good TLV fails the read.
//
// A TLV that doesn't fit into what is left has a bad length, also when its length and header together pass 16 bits, and
// when not even its length is there. Where not even its type is there, the type is unknown.
class PacMetadataWalk {
 public:
  PacMetadataWalk(const uint8_t *meta, uint16_t meta_len) : position_(meta), remaining_(meta_len) {}

  // next judges one more TLV, and the accessors below tell about it, good or bad. It is false at the end of the
  // metadata and behind a TLV that failed the walk.
  bool next();
  uint16_t type() const { return type_; }
  bool has_length() const { return has_length_; }  // false: the walk has failed before the length counted
  uint16_t length() const { return length_; }

  // end tells how the walk ended for a reader that wants the TLV of type `wanted`, and where that TLV is.
  PacWalk end(uint16_t wanted, PacTlvSpan *found) const;

 private:
  PacWalk judge();
  PacWalk judge_known(PacTlvSpan *seen, PacWalk multiple, PacWalk bad_length);

  const uint8_t *position_;
  uint16_t remaining_;
  uint16_t type_ = 0;
  uint16_t length_ = 0;
  bool has_length_ = false;
  PacWalk judgement_ = PacWalk::kFound;
  PacTlvSpan opaque_;
  PacTlvSpan info_;
};

// ks_pac_metadata_walk is the walk for readers that only want its end.
PacWalk ks_pac_metadata_walk(const uint8_t *meta, uint16_t meta_len, uint16_t wanted, PacTlvSpan *found);

// named_text is the report of a failed walk that begins with its function's name and line.
const char *named_text(PacWalk end);

// report_failed_walk reports a failed walk as the two public reads do: the same text, without a name.
void report_failed_walk(PacWalk end);

// copy_tlv allocates exactly the TLV's size, stores the block in `out` even when there is none, and copies the TLV.
KsResult copy_tlv(const PacTlvSpan &tlv, uint8_t **out);

// lifetime_in returns the time of expiry in an info TLV of `info_len` bytes, or 0 where none can be told.
uint32_t lifetime_in(const uint8_t *info, uint32_t info_len);

}  // namespace ks

#endif
