// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// keystore.h: what libks tells about the caller's entries, in the types of C++. Everything here throws Failure.
#ifndef TOOLS_KSCTL_KEYSTORE_H
#define TOOLS_KSCTL_KEYSTORE_H

#include <ks_api.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "pac_metadata.h"
#include "value.h"

namespace ksctl {

inline constexpr size_t kMostOfMetadata = UINT16_MAX;  // as a request tells their length in 16 bits

// Block owns what the library hands out.
template <typename Content>
struct Block {
  ~Block() { free(content); }
  Content *content = nullptr;
};

// secret_names walks over the caller's secrets. An entry that comes or goes meanwhile may be missed.
std::vector<std::string> secret_names();

bool secret_exists(const std::string &name);

// secret_metadata gives nothing for a secret that isn't there.
std::optional<Bytes> secret_metadata(const std::string &name);

// a_ids walks over the caller's PACs in the same way.
std::vector<Bytes> a_ids();

// Pac is a PAC as the keystore has it. What clients read is the cached copy, if there is one.
struct Pac {
  enum class Cached { kNo, kSame, kStale };

  Bytes a_id;
  Bytes metadata;
  std::optional<PacParts> parts;  // none: the metadata are damaged
  PacInfo info;
  Cached cached = Cached::kNo;
  uint32_t expires = 0;  // 0: no time could be told

  bool is_expired() const;
};

// find_pac gives nothing for a PAC that isn't there. The time of expiry is ks_get_pac_expiration's, unless that would
// read a stale copy.
std::optional<Pac> find_pac(const Bytes &a_id);

// remove_pac removes a PAC from cache and keystore, so that a reader finds it whole or not at all, whenever the work
// ends. False: there was none.
bool remove_pac(const Bytes &a_id);

// store_pac makes or replaces a PAC, of which no cached copy is left.
void store_pac(const Bytes &a_id, std::span<const uint8_t> key, const PacParts &parts);

// cache_pac writes the metadata of a PAC as they are in the keystore into the open cache. False: it went meanwhile.
bool cache_pac(const Pac &pac);

// forget_cached removes the cached copy of a PAC, if there is one.
void forget_cached(const Bytes &a_id);

// a_id_of reads an A-ID as commands print it, in hexadecimal, or a text behind "text:". Failure kUsage.
Bytes a_id_of(const std::string &given);

// a_id_fields are those by which a PAC is known in everything that is printed.
Object a_id_fields(const Bytes &a_id);

std::string hex(std::span<const uint8_t> bytes);

// unhex reads pairs of digits, into exactly `out` in the second form. False and nothing: there is something else.
std::optional<Bytes> unhex(std::string_view digits);
bool unhex(std::string_view digits, std::span<uint8_t> out);

// utc words a time as 2027-01-31T23:59:59Z.
std::string utc(uint32_t seconds);

std::string text(std::span<const uint8_t> bytes);

}  // namespace ksctl

#endif
