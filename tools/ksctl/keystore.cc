// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "keystore.h"

#include <fmt/format.h>
#include <mts.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <ctime>
#include <ks.hpp>

#include "library.h"

namespace ksctl {
namespace {

// What a PAC is called in messages to a person.
std::string called(const Bytes &a_id) {
  return "PAC " + hex(a_id);
}

// cache_name is what the cache knows a PAC by.
ks::WireName cache_name(const Bytes &a_id) {
  return *ks::WireName::of_pac(a_id);
}

// The library's own reads of a PAC ask the cache first, so this one runs the exchange itself, with the companions that
// the library has for that. Nothing, for a PAC that isn't there.
std::optional<Bytes> metadata_in_keystore(const Bytes &a_id) {
  Block<void> name;
  KsSection section = {};
  KsNameDescriptor descriptor;
  require(ks_pac_info_req(a_id.data(), static_cast<uint32_t>(a_id.size()), &section, &descriptor), called(a_id));
  name.content = const_cast<void *>(section.data);

  KsSendOptions options = {};
  options.select = 1;
  options.sections = &section;
  options.section_count = 1;
  KsMtsMessage sent;
  if (mts_send(ks_mts_q, KS_SERVICE_NODE, KS_SERVICE_SAP, KS_OP_RETURN_METADATA, &descriptor, sizeof descriptor, &sent,
               0, &options) == MTS_FAILED) {
    require(KS_FW_COMM_ERROR, called(a_id));
  }
  KsRecvOptions reply = {};
  reply.select = 1;
  reply.token = mts_rr_token_get(&sent);
  KsMtsMessage received;
  const uint32_t outcome = mts_recv(ks_mts_q, &received, &reply);
  mts_drop(ks_mts_q, &sent);
  if (outcome == MTS_FAILED) require(KS_FW_COMM_ERROR, called(a_id));

  const auto *payload = static_cast<const uint8_t *>(mts_payload_get(&received));
  const size_t size = mts_payload_size(&received);
  KsResult result = KS_FAILURE;
  uint16_t length = 0;
  std::memcpy(&result, payload, sizeof result);
  const size_t head = sizeof result + sizeof length;
  if (result == KS_SUCCESS && size >= head) std::memcpy(&length, payload + sizeof result, sizeof length);
  if (result == KS_SUCCESS && size < head + length) result = KS_BAD_RESPONSE_FORMAT;  // no length is believed
  Bytes metadata;
  if (result == KS_SUCCESS) metadata.assign(payload + head, payload + head + length);
  mts_drop(ks_mts_q, &received);
  if (result == KS_NOT_FOUND) return std::nullopt;
  require(result, called(a_id));
  return metadata;
}

Pac::Cached compare_with_cache(const Bytes &a_id, const Bytes &metadata) {
  if (is_cache_present() == 0) return Pac::Cached::kNo;
  const ks::WireName name = cache_name(a_id);
  Block<uint8_t> copy;
  uint16_t size = 0;
  const KsResult result = ks_cache_read_pac(name.data(), name.size(), &copy.content, &size);
  if (result == KS_NOT_FOUND) return Pac::Cached::kNo;
  const bool same =
      result == KS_SUCCESS && std::equal(metadata.begin(), metadata.end(), copy.content, copy.content + size);
  return same ? Pac::Cached::kSame : Pac::Cached::kStale;
}

}  // namespace

std::vector<std::string> secret_names() {
  std::vector<std::string> names;
  uint16_t index = 0;
  while (true) {
    Block<char> name;
    const KsResult result = ks_return_secret_handle_by_index(&index, &name.content);
    if (result == KS_NO_MORE_ENTRIES) return names;
    require(result, "the list of secrets");
    names.emplace_back(name.content);
  }
}

bool secret_exists(const std::string &name) {
  uint32_t exists = 0;
  require(ks_secret_exists(name.c_str(), &exists), name);
  return exists != 0;
}

std::optional<Bytes> secret_metadata(const std::string &name) {
  Block<uint8_t> metadata;
  uint16_t size = 0;
  const KsResult result = ks_return_metadata(name.c_str(), &metadata.content, &size);
  if (result == KS_NOT_FOUND) return std::nullopt;
  require(result, name);
  return Bytes(metadata.content, metadata.content + size);
}

std::vector<Bytes> a_ids() {
  std::vector<Bytes> all;
  uint16_t index = 0;
  while (true) {
    Block<uint8_t> a_id;
    uint16_t size = 0;
    const KsResult result = ks_return_aid_by_index(&index, &a_id.content, &size);
    if (result == KS_NO_MORE_ENTRIES) return all;
    require(result, "the list of PACs");
    all.emplace_back(a_id.content, a_id.content + size);
  }
}

bool Pac::is_expired() const {
  return expires != 0 && static_cast<int64_t>(expires) <= static_cast<int64_t>(std::time(nullptr));
}

std::optional<Pac> find_pac(const Bytes &a_id) {
  std::optional<Bytes> metadata = metadata_in_keystore(a_id);
  if (!metadata) return std::nullopt;
  Pac pac;
  pac.a_id = a_id;
  pac.metadata = std::move(*metadata);
  pac.parts = pac_parts(pac.metadata);
  if (pac.parts) pac.info = parse_pac_info(pac.parts->info);
  pac.cached = compare_with_cache(a_id, pac.metadata);
  pac.expires = pac.cached == Pac::Cached::kStale
                    ? pac.info.expires.value_or(0)
                    : ks_get_pac_expiration(a_id.data(), static_cast<uint32_t>(a_id.size()));
  return pac;
}

bool remove_pac(const Bytes &a_id) {
  forget_cached(a_id);
  const KsResult result = ks_clear_pac(a_id.data(), static_cast<uint32_t>(a_id.size()));
  if (result == KS_NOT_REGISTERED) {
    throw Failure(Exit::kNotAllowed,
                  fmt::format("{}: the sup state holds every PAC; remove it when that has changed", called(a_id)));
  }
  if (result != KS_NOT_FOUND) require(result, called(a_id));
  forget_cached(a_id);  // what a reader may have cached in between
  return result == KS_SUCCESS;
}

void store_pac(const Bytes &a_id, std::span<const uint8_t> key, const PacParts &parts) {
  const Bytes opaque = pac_tlv(EAP_FAST_PAC_OPAQUE, parts.opaque);
  const Bytes info = pac_tlv(EAP_FAST_PAC_INFO, parts.info);
  forget_cached(a_id);
  require(ks_store_pac(a_id.data(), static_cast<uint32_t>(a_id.size()), key.data(), static_cast<uint32_t>(key.size()),
                       opaque.data(), static_cast<uint32_t>(opaque.size()), info.data(),
                       static_cast<uint32_t>(info.size())),
          called(a_id));
  forget_cached(a_id);
}

bool cache_pac(const Pac &pac) {
  const ks::WireName name = cache_name(pac.a_id);
  const auto write = [&](const Bytes &metadata) {
    const KsResult result =
        ks_cache_pac_write(name.data(), name.size(), metadata.data(), static_cast<uint16_t>(metadata.size()));
    if (result == KS_FAILURE) {
      throw Failure(Exit::kFailed,
                    fmt::format("{}: the cache takes no entry; `ksctl cache list` says how it is", called(pac.a_id)));
    }
    require(result, called(pac.a_id));
  };
  write(pac.metadata);
  // What is in the keystore by now is what the cache has to hold.
  const std::optional<Bytes> now = metadata_in_keystore(pac.a_id);
  if (!now) forget_cached(pac.a_id);
  if (now && *now != pac.metadata) write(*now);
  return now.has_value();
}

void forget_cached(const Bytes &a_id) {
  if (!ks::cache_clear(a_id)) {
    throw Failure(Exit::kFailed, fmt::format("{}: its cached copy can't be removed; `ksctl cache list` says how the "
                                             "cache is",
                                             called(a_id)));
  }
}

Bytes a_id_of(const std::string &given) {
  constexpr std::string_view kText = "text:";
  Bytes a_id;
  if (given.starts_with(kText)) {
    a_id.assign(given.begin() + kText.size(), given.end());
  } else if (const std::optional<Bytes> bytes = unhex(given)) {
    a_id = *bytes;
  } else {
    throw Failure(Exit::kUsage, fmt::format("A-ID: {} isn't hexadecimal; write text:{} for a text", given, given));
  }
  if (a_id.empty() || a_id.size() > KS_PAC_NAME_MAX) {
    throw Failure(Exit::kUsage, fmt::format("A-ID: of {} bytes; it has 1 to {}", a_id.size(), KS_PAC_NAME_MAX));
  }
  return a_id;
}

Object a_id_fields(const Bytes &a_id) {
  return {{"a_id", hex(a_id)}, {"a_id_text", text(a_id)}};
}

std::optional<Bytes> unhex(std::string_view digits) {
  Bytes bytes(digits.size() / 2);
  return unhex(digits, bytes) ? std::optional(bytes) : std::nullopt;
}

bool unhex(std::string_view digits, std::span<uint8_t> out) {
  if (digits.size() != 2 * out.size()) return false;
  for (size_t i = 0; i < out.size(); ++i) {
    const char *const at = digits.data() + 2 * i;
    if (std::from_chars(at, at + 2, out[i], 16).ptr != at + 2) return false;
  }
  return true;
}

std::string utc(uint32_t seconds) {
  const time_t time = seconds;
  tm parts{};
  gmtime_r(&time, &parts);
  char words[32];
  std::strftime(words, sizeof words, "%Y-%m-%dT%H:%M:%SZ", &parts);
  return words;
}

std::string hex(std::span<const uint8_t> bytes) {
  return fmt::format("{:02x}", fmt::join(bytes, ""));
}

std::string text(std::span<const uint8_t> bytes) {
  return {bytes.begin(), bytes.end()};
}

}  // namespace ksctl
