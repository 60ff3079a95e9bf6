// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// A C++ program that uses what ks.hpp has, and has names of its own where ks_api.h has common ones.
#define KS_HIDE_GLOBALS
#include <host_mts.h>
#include <ks_helpers.h>

#include <ks.hpp>
#include <string>
#include <vector>
#if defined(__cpp_lib_span)
#include <span>
#endif

namespace {

const std::string vdc_id = "its own";

int app_uuid() {
  return 7;
}

ks::Result<> provision(const std::vector<uint8_t> &aid, const std::string &identity) {
  ks::PacInfo info;
  info.expires = std::chrono::system_clock::now() + std::chrono::hours(24);
  info.identity = identity;
  ks::Result<ks::Buffer> metadata = ks::make_pac_metadata("opaque", info);
  if (!metadata) return metadata.code();
  if (const ks::Result<> stored = ks::store_pac(aid, "key", *metadata); !stored) return stored;
  return ks::cache_put(aid, *metadata);
}

int use() {
  const std::vector<uint8_t> aid = {1, 2, 3};
  if (!provision(aid, vdc_id)) return app_uuid();
  const ks::Result<ks::Pac> pac = ks::read_pac(aid);
  const ks::Result<ks::PacInfo> told = pac->info();
  const ks::Result<bool> there = ks::pac_exists(aid);
  const auto expiry = ks::pac_expiry(aid);
  const auto digest = ks::hmac_sha1("secret", std::array<std::byte, 2>());
  ks::TlvReader reader(pac->info_tlv().value);
  if (!told || !there.ok() || !*there || !expiry || ks::has_expired(*expiry) || !digest || !reader.next()) return 1;
#if defined(__cpp_lib_span)
  if (ks::Bytes(std::span(aid)) != ks::Bytes(aid)) return 1;
#endif
  const ks::Result<ks::WireName> name = ks::WireName::of_secret("secret");
  return name && ks::cache_clear(aid) && ks::clear_pac(aid) && ks::cache_warm(aid) && ks::clear_expired_pacs() ? 0 : 1;
}

}  // namespace

static_assert(!std::is_convertible_v<ks::Result<bool>, bool> && !std::is_constructible_v<bool, ks::Result<bool>>,
              "whether there is an answer isn't taken for the answer");

int main() {
  return ks::start(1) ? use() : 1;
}
