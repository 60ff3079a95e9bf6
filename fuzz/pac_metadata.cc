// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// pac_metadata: arbitrary bytes as the metadata of a PAC, from the keystore and from the cache.
//
//   input     identity, counted | metadata
//   property  each of the four readers hands out exactly the TLV that a second reading of the metadata finds, or
//             nothing; the readers of ks.hpp find what they find, and read back what is made of their findings; none of
//             them, nor ks_sw_pac_still_valid, looks behind the end
#include <optional>
#include <string>

#include "ks.hpp"
#include "support/platform.h"

namespace {

using fuzz::Bytes;
using fuzz::require;

constexpr uint8_t kAid[] = {'a', 'i', 'd'};
constexpr uint8_t kOpaque = 2;
constexpr uint8_t kInfo = 9;

uint16_t big_endian(Bytes at) {
  return static_cast<uint16_t>(at[0] << 8 | at[1]);
}

// expected reads all TLVs: each is an opaque or an info, there is at most one of each, and nothing is left over.
std::optional<Bytes> expected(Bytes metadata, uint8_t wanted) {
  std::optional<Bytes> seen[2];
  while (!metadata.empty()) {
    if (metadata.size() < 4) return std::nullopt;
    const uint16_t type = big_endian(metadata);
    const size_t size = size_t{4} + big_endian(metadata.subspan(2));
    if ((type != kOpaque && type != kInfo) || size > metadata.size()) return std::nullopt;
    std::optional<Bytes> &place = seen[type == kInfo];
    if (place) return std::nullopt;
    place = metadata.first(size);
    metadata = metadata.subspan(size);
  }
  return seen[wanted == kInfo];
}

template <typename Length>
void check_reader(KsResult (*read)(const uint8_t *, uint32_t, uint8_t **, Length *), Bytes metadata, uint8_t wanted) {
  uint8_t *tlv = nullptr;
  Length length = 0;
  const KsResult result = read(kAid, sizeof kAid, &tlv, &length);
  const std::optional<Bytes> found = expected(metadata, wanted);
  require((result == KS_SUCCESS) == found.has_value(), "a reader succeeds where the wanted TLV is and all is whole");
  if (found) require(fuzz::same({tlv, length}, *found), "a reader hands out the whole TLV and nothing else");
  if (!found) require(tlv == nullptr, "a reader that fails hands nothing out");
}

// check_helpers reads the metadata with ks.hpp. `expiry` is what the library tells of it.
void check_helpers(Bytes metadata, uint32_t expiry) {
  static fuzz::Guarded memory;
  const auto parts = ks::parse_pac_metadata({memory.copy(metadata), metadata.size()});
  const std::optional<Bytes> opaque = expected(metadata, kOpaque);
  const std::optional<Bytes> info = expected(metadata, kInfo);
  require(parts.ok() == (opaque && info), "metadata with both TLVs comes apart, and no other");
  if (!parts) return;
  require(parts->opaque.whole == ks::Bytes(*opaque) && parts->info.whole == ks::Bytes(*info), "into these TLVs");

  const auto told = ks::parse_pac_info(parts->info.whole);
  if (!told) return;
  require((told->expires ? ks::detail::seconds_of(*told->expires) : 0) == expiry, "the library tells the same time");
  const auto made = ks::make_pac_metadata(parts->opaque.value, *told);
  require(made.ok() || parts->opaque.value.empty(), "what was read can be made");
  if (!made) return;
  const auto again = ks::parse_pac_info(ks::parse_pac_metadata(*made)->info.whole);
  require(again && again->expires == told->expires && again->type == told->type && again->a_id == told->a_id &&
              ks::detail::without_nul(told->identity) == again->identity &&
              ks::detail::without_nul(told->issuer) == again->issuer,
          "what is made is read as it was told");
}

// with_head puts the head of a reply or of a cached value in front.
std::vector<uint8_t> with_head(std::vector<uint8_t> head, Bytes metadata) {
  head.insert(head.end(), metadata.begin(), metadata.end());
  return head;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const fuzz::Run run;
  fuzz::Input input(data, size);
  const Bytes identity = input.counted();
  const Bytes metadata = input.bytes(UINT16_MAX);
  const auto low = static_cast<uint8_t>(metadata.size());
  const auto high = static_cast<uint8_t>(metadata.size() >> 8);

  fuzz::reply_with(with_head({1, 0, 0, 0, low, high}, metadata));
  fuzz::cache_with(std::nullopt);
  check_reader(ks_return_pac_opaque, metadata, kOpaque);
  check_reader(ks_return_pac_info, metadata, kInfo);
  const uint32_t expiry = ks_get_pac_expiration(kAid, sizeof kAid);
  if (expiry != 0) require(expected(metadata, kInfo).has_value(), "only an info tells of an expiry");
  check_helpers(metadata, expiry);

  std::vector<uint8_t> head(22);
  head[0] = low;
  head[1] = high;
  fuzz::cache_with(with_head(head, metadata));
  check_reader(ks_cache_get_pac_opaque, metadata, kOpaque);
  check_reader(ks_cache_get_pac_info, metadata, kInfo);

  static fuzz::Guarded memory;
  const std::string text(identity.begin(), std::find(identity.begin(), identity.end(), 0));
  const uint32_t valid =
      ks_sw_pac_still_valid(memory.copy(metadata), static_cast<uint16_t>(metadata.size()), text.c_str());
  require(valid <= 1, "a PAC is valid or isn't");
  const bool is_there = std::search(metadata.begin(), metadata.end(), text.begin(), text.end()) != metadata.end();
  require(valid == 0 || text.empty() || is_there, "a PAC is valid for an identity that is in it");
  return 0;
}
