// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// The readers' walk, held to a model over all small inputs, and over random ones.
#include "pac/metadata.h"

#include "pac_fixture.h"

namespace ks {
static void PrintTo(PacWalk end, std::ostream *out) {
  static const char *const kNames[] = {"found",    "multiple opaques", "bad opaque", "multiple infos",
                                       "bad info", "unknown type",     "incomplete"};
  *out << kNames[static_cast<size_t>(end)];
}
}  // namespace ks

namespace {

using ks::PacWalk;
using pac::Bytes;
using pac::bytes;
using pac::kInfo;
using pac::kOpaque;
using pac::operator+;

struct Told {
  PacWalk end;
  size_t offset = 0;
  size_t size = 0;
  bool operator==(const Told &) const = default;
};

void PrintTo(const Told &told, std::ostream *out) {
  ks::PrintTo(told.end, out);
  *out << " at " << told.offset << ", " << told.size << " bytes";
}

// Model is the walk in the words of those who read the format: positions in a string, unbounded numbers, and marks.
Told modelled(const Bytes &meta, unsigned wanted) {
  struct {
    bool seen = false;
    size_t offset = 0, size = 0;
  } opaque, info;
  size_t at = 0;
  while (at < meta.size()) {
    const size_t left = meta.size() - at;
    const unsigned type = left >= 2 ? meta[at] * 256u + meta[at + 1] : 0xffff;
    if (type != 2 && type != 9) return {PacWalk::kUnknownType};
    auto &mark = type == 2 ? opaque : info;
    if (mark.seen) return {type == 2 ? PacWalk::kMultipleOpaques : PacWalk::kMultipleInfos};
    const bool fits = left >= 4 && meta[at + 2] * 256u + meta[at + 3] + 4 <= left;
    if (!fits) return {type == 2 ? PacWalk::kBadOpaqueLength : PacWalk::kBadInfoLength};
    mark = {true, at, meta[at + 2] * 256u + meta[at + 3] + 4};
    at += mark.size;
  }
  const auto &mark = wanted == 2 ? opaque : info;
  if (!mark.seen) return {PacWalk::kIncomplete};
  return {PacWalk::kFound, mark.offset, mark.size};
}

// Page holds one input after another against one guard page.
class Page {
 public:
  const uint8_t *hold(const Bytes &input) {
    uint8_t *at = page_.data() + page_.size() - input.size();
    if (!input.empty()) std::memcpy(at, input.data(), input.size());
    return at;
  }

 private:
  scripted::Guarded page_{Bytes(4096)};
};

Told walked(Page &page, const Bytes &meta, uint16_t wanted) {
  const uint8_t *at = page.hold(meta);
  ks::PacTlvSpan found;
  const PacWalk end = ks::ks_pac_metadata_walk(at, static_cast<uint16_t>(meta.size()), wanted, &found);
  if (end != PacWalk::kFound) return {end};
  return {end, static_cast<size_t>(found.at - at), found.size};
}

TEST(PacMetadataWalk, AgreesWithTheModelOnAllSmallInputs) {
  const Bytes alphabet = {0x00, 0x02, 0x04, 0x09, 0xff};
  Page page;
  std::array<int, 7> ends = {};
  for (size_t size = 0; size <= 8; ++size) {
    std::vector<size_t> digits(size, 0);
    Bytes meta(size, alphabet[0]);
    for (bool more = true; more;) {
      for (const uint16_t wanted : {uint16_t{2}, uint16_t{9}}) {
        const Told told = modelled(meta, wanted);
        ASSERT_EQ(walked(page, meta, wanted), told) << testing::PrintToString(meta) << " for " << wanted;
        ++ends[static_cast<size_t>(told.end)];
      }
      more = false;
      for (size_t i = 0; i < size && !more; ++i) {
        digits[i] = (digits[i] + 1) % alphabet.size();
        meta[i] = alphabet[digits[i]];
        more = digits[i] != 0;
      }
    }
  }
  for (const int count : ends) EXPECT_GT(count, 0) << "an end that no input comes to";
}

TEST(PacMetadataWalk, AgreesWithTheModelOnRandomInputs) {
  uint32_t seed = 4851;
  const auto random = [&seed](uint32_t below) { return (seed = seed * 1664525 + 1013904223) / 65536 % below; };
  Page page;
  int found = 0;
  for (int round = 0; round < 60'000; ++round) {
    Bytes meta;
    for (uint32_t tlvs = random(4); tlvs > 0; --tlvs) {
      const size_t length = random(20);
      const auto declared = random(6) == 0 ? random(0x10000) : static_cast<uint32_t>(length);
      const uint32_t type = random(10) == 0 ? random(0x10000) : (random(2) == 0 ? 2 : 9);
      meta = meta + Bytes{static_cast<uint8_t>(type >> 8), static_cast<uint8_t>(type),
                          static_cast<uint8_t>(declared >> 8), static_cast<uint8_t>(declared)};
      meta.resize(meta.size() + length, static_cast<uint8_t>(random(256)));
    }
    if (random(4) == 0) meta.resize(random(static_cast<uint32_t>(meta.size()) + 1));
    const auto wanted = static_cast<uint16_t>(random(2) == 0 ? 2 : 9);
    const Told told = modelled(meta, wanted);
    ASSERT_EQ(walked(page, meta, wanted), told) << testing::PrintToString(meta) << " for " << wanted;
    found += told.end == PacWalk::kFound;
  }
  EXPECT_GT(found, 3'000);
}

TEST(PacMetadataWalk, NeverFollowsALengthThatWraps) {
  for (unsigned length = 0xfffc; length <= 0xffff; ++length) {
    Bytes meta(0xffff, 0);  // as large as metadata can be
    meta[1] = 2;
    meta[2] = static_cast<uint8_t>(length >> 8);
    meta[3] = static_cast<uint8_t>(length);
    scripted::Guarded guarded(meta);
    ks::PacTlvSpan found;
    EXPECT_EQ(ks::ks_pac_metadata_walk(guarded.data(), 0xffff, 2, &found), PacWalk::kBadOpaqueLength);
  }
}

TEST(PacMetadataWalk, TakesTheLargestTlvThatFits) {
  Bytes meta(0xffff, 0);
  meta[1] = 9;
  meta[2] = 0xff;
  meta[3] = 0xfb;
  scripted::Guarded guarded(meta);
  ks::PacTlvSpan found;
  EXPECT_EQ(ks::ks_pac_metadata_walk(guarded.data(), 0xffff, 9, &found), PacWalk::kFound);
  EXPECT_EQ(found.at, guarded.data());
  EXPECT_EQ(found.size, 0xffff);
}

TEST(PacMetadataWalk, ReadsNothingOfEmptyMetadata) {
  ks::PacTlvSpan found;
  EXPECT_EQ(ks::ks_pac_metadata_walk(nullptr, 0, 2, &found), PacWalk::kIncomplete);
  EXPECT_EQ(ks::ks_pac_metadata_walk(nullptr, 0, 9, &found), PacWalk::kIncomplete);
}

TEST(PacMetadataWalk, FindsEitherTlvInEitherOrder) {
  Page page;
  EXPECT_EQ(walked(page, kOpaque + kInfo, 2), (Told{PacWalk::kFound, 0, 7}));
  EXPECT_EQ(walked(page, kOpaque + kInfo, 9), (Told{PacWalk::kFound, 7, 12}));
  EXPECT_EQ(walked(page, kInfo + kOpaque, 2), (Told{PacWalk::kFound, 12, 7}));
  EXPECT_EQ(walked(page, kInfo + kOpaque, 9), (Told{PacWalk::kFound, 0, 12}));
}

}  // namespace
