// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// ks_helpers.cc: ks.hpp for C programs. Each function takes its arguments over, runs the function of ks.hpp that bears
// its name, and hands out what comes of it. Outputs stay untouched unless that succeeds.
#include "ks_helpers.h"

#include "ks.hpp"

namespace {

ks::Bytes own(const KshBytes &bytes) {
  return {bytes.data, bytes.size};
}

KshBytes plain(ks::Bytes bytes) {
  return {bytes.data(), bytes.size()};
}

KshTlv plain(const ks::Tlv &tlv) {
  return {tlv.type, plain(tlv.value), plain(tlv.whole)};
}

int64_t seconds_or_0(const std::optional<ks::TimePoint> &time) {
  return time ? ks::detail::seconds_of(*time) : 0;
}

KsResult hand_out(ks::Result<ks::Buffer> made, KshBuffer *out) {
  if (!made) return made.code();
  out->size = made->size();
  out->data = made->release();
  return KS_SUCCESS;
}

KsResult hand_out(const ks::Result<ks::WireName> &made, KsWireName *name, uint32_t *name_len) {
  if (!made) return made.code();
  *name = *made->data();
  *name_len = made->size();
  return KS_SUCCESS;
}

template <typename Digest>
KsResult hand_out(const ks::Result<Digest> &made, uint8_t *output) {
  if (made) memcpy(output, made->data(), made->size());
  return made.code();
}

}  // namespace

void ksh_free_buffer(KshBuffer *buffer) {
  if (buffer == nullptr) return;
  free(buffer->data);
  *buffer = {};
}

KsResult ksh_make_pac_metadata(const void *opaque, size_t opaque_len, const KshPacInfo *info, KshBuffer *metadata) {
  if (info == nullptr || metadata == nullptr) return KS_INVALID_ARGS;
  if (info->expires < 0 || info->expires > int64_t{UINT32_MAX}) return KS_INVALID_ARGS;
  const ks::PacInfo told{ks::detail::time_of(static_cast<uint32_t>(info->expires)), own(info->identity),
                         own(info->a_id), own(info->issuer), info->type};
  return hand_out(ks::make_pac_metadata({opaque, opaque_len}, told), metadata);
}

KsResult ksh_append_tlv(KshBuffer *buffer, uint16_t type, const void *value, size_t value_len) {
  if (buffer == nullptr) return KS_INVALID_ARGS;
  uint8_t *const before = buffer->data;
  const KsResult appended = hand_out(ks::with_tlv({before, buffer->size}, type, {value, value_len}), buffer);
  if (appended == KS_SUCCESS) free(before);
  return appended;
}

KsResult ksh_next_tlv(KshBytes *rest, KshTlv *tlv) {
  if (rest == nullptr || tlv == nullptr) return KS_INVALID_ARGS;
  ks::TlvReader reader(own(*rest));
  const ks::Result<ks::Tlv> next = reader.next();
  if (!next) return next.code();
  *tlv = plain(*next);
  *rest = plain(reader.rest());
  return KS_SUCCESS;
}

KsResult ksh_parse_pac_metadata(const void *metadata, size_t metadata_len, KshPacParts *parts) {
  if (parts == nullptr) return KS_INVALID_ARGS;
  const ks::Result<ks::PacParts> parsed = ks::parse_pac_metadata({metadata, metadata_len});
  if (parsed) *parts = {plain(parsed->opaque), plain(parsed->info)};
  return parsed.code();
}

KsResult ksh_parse_pac_info(const void *tlv, size_t tlv_len, KshPacInfo *info) {
  if (info == nullptr) return KS_INVALID_ARGS;
  const ks::Result<ks::PacInfo> parsed = ks::parse_pac_info({tlv, tlv_len});
  if (parsed) {
    *info = {seconds_or_0(parsed->expires), plain(parsed->identity), plain(parsed->a_id), plain(parsed->issuer),
             parsed->type};
  }
  return parsed.code();
}

KsResult ksh_pac_wire_name(const void *aid, size_t aid_len, KsWireName *name, uint32_t *name_len) {
  if (name == nullptr || name_len == nullptr) return KS_INVALID_ARGS;
  return hand_out(ks::WireName::of_pac({aid, aid_len}), name, name_len);
}

KsResult ksh_secret_wire_name(const char *secret, KsWireName *name, uint32_t *name_len) {
  if (name == nullptr || name_len == nullptr) return KS_INVALID_ARGS;
  return hand_out(ks::WireName::of_secret(secret), name, name_len);
}

KsResult ksh_cache_clear(const void *aid, size_t aid_len) {
  return ks::cache_clear({aid, aid_len}).code();
}

KsResult ksh_cache_put(const void *aid, size_t aid_len, const void *metadata, size_t metadata_len) {
  return ks::cache_put({aid, aid_len}, {metadata, metadata_len}).code();
}

KsResult ksh_cache_warm(const void *aid, size_t aid_len) {
  return ks::cache_warm({aid, aid_len}).code();
}

KsResult ksh_store_pac(const void *aid, size_t aid_len, const void *pac_key, size_t pac_key_len, const void *metadata,
                       size_t metadata_len) {
  return ks::store_pac({aid, aid_len}, {pac_key, pac_key_len}, {metadata, metadata_len}).code();
}

KsResult ksh_clear_pac(const void *aid, size_t aid_len) {
  return ks::clear_pac({aid, aid_len}).code();
}

KsResult ksh_read_pac(const void *aid, size_t aid_len, KshBuffer *metadata) {
  if (metadata == nullptr) return KS_INVALID_ARGS;
  ks::Result<ks::Pac> pac = ks::read_pac({aid, aid_len});
  if (!pac) return pac.code();
  return hand_out((*std::move(pac)).metadata(), metadata);
}

KsResult ksh_pac_exists(const void *aid, size_t aid_len, uint32_t *exists) {
  if (exists == nullptr) return KS_INVALID_ARGS;
  const ks::Result<bool> there = ks::pac_exists({aid, aid_len});
  if (there.ok()) *exists = *there ? 1 : 0;
  return there.code();
}

KsResult ksh_pac_expiry(const void *aid, size_t aid_len, int64_t *expires) {
  if (expires == nullptr) return KS_INVALID_ARGS;
  const ks::Result<std::optional<ks::TimePoint>> expiry = ks::pac_expiry({aid, aid_len});
  if (expiry) *expires = seconds_or_0(*expiry);
  return expiry.code();
}

KsResult ksh_clear_expired_pacs(int64_t now, uint32_t *removed) {
  if (removed == nullptr) return KS_INVALID_ARGS;
  *removed = 0;
  return ks::detail::clear_expired_pacs(now, *removed);
}

KsResult ksh_md5(const char *name, const void *first, size_t first_len, const void *second, size_t second_len,
                 uint8_t *output) {
  if (output == nullptr) return KS_INVALID_ARGS;
  return hand_out(ks::md5(name, {first, first_len}, {second, second_len}), output);
}

KsResult ksh_sha1(const char *name, const void *first, size_t first_len, const void *second, size_t second_len,
                  uint8_t *output) {
  if (output == nullptr) return KS_INVALID_ARGS;
  return hand_out(ks::sha1(name, {first, first_len}, {second, second_len}), output);
}

KsResult ksh_hmac_md5(const char *name, const void *data, size_t data_len, uint8_t *output) {
  if (output == nullptr) return KS_INVALID_ARGS;
  return hand_out(ks::hmac_md5(name, {data, data_len}), output);
}

KsResult ksh_hmac_sha1(const char *name, const void *data, size_t data_len, uint8_t *output) {
  if (output == nullptr) return KS_INVALID_ARGS;
  return hand_out(ks::hmac_sha1(name, {data, data_len}), output);
}

KsResult ksh_hmac_sha1_for_pac(const void *aid, size_t aid_len, const void *data, size_t data_len, uint8_t *output) {
  if (output == nullptr) return KS_INVALID_ARGS;
  return hand_out(ks::hmac_sha1_for_pac({aid, aid_len}, {data, data_len}), output);
}
