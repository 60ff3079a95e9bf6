// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// HMAC-MD5 and HMAC-SHA1 under a secret, and HMAC-SHA1 under a PAC's key.
//
//   descriptor  W | 6 | data length, 16 bits | data offset, 16 bits       (6 bytes; W: length of the wire name)
//   sections    name, of a secret or a PAC | data
//   reply       result | length | HMAC
#include "crypto/request.h"

namespace {

// Key is the entry whose key is used: its kind and its name.
struct Key {
  uint8_t tag;
  const void *name;
  uint8_t name_len;
};

Key secret(const char *name) {
  return {.tag = KS_NAME_TAG_SECRET, .name = name, .name_len = ks::low8(strlen(name))};
}

KsResult build(const Key &key, const uint8_t *data, uint16_t len, KsSection *sections, KsHmacDescriptor *descriptor) {
  constexpr auto kBuffer = ks::NameBuffer::kWireName;
  if (!ks::place_name(key.tag, key.name, key.name_len, kBuffer, sections, descriptor)) return KS_NO_MEMORY;
  return ks::place_data(data, len, sections, descriptor);
}

// OnFailedSend is what happens to the name's buffer when the request can't be sent.
enum class OnFailedSend { kFreeName, kKeepName };

KsResult run_hmac(const ks::Message<KsHmacDescriptor> &message, uint16_t hmac_len, OnFailedSend on_failed_send,
                  const Key &key, const uint8_t *data, uint16_t len, uint8_t *output) {
  if (data == nullptr) return KS_INVALID_ARGS;
  if (len == 0) return KS_INVALID_ARGS;
  if (len > ks::kMaxData) return KS_INVALID_ARGS;
  if (output == nullptr) return KS_INVALID_ARGS;

  ks::Request request(message);
  request.build(build, key, data, len);
  request.exchange();
  if (!request.sent() && on_failed_send == OnFailedSend::kKeepName) request.keep_names();
  return request.read(ks_hmac_md5_sha1_resp, output, hmac_len);
}

}  // namespace

KsResult ks_hmac_md5_sha1_req(const void *name, uint8_t name_len, const uint8_t *data, uint16_t len, uint32_t tag,
                              KsSection *sections, KsHmacDescriptor *descriptor) {
  return build({.tag = ks::low8(tag), .name = name, .name_len = name_len}, data, len, sections, descriptor);
}

KsResult ks_hmac_md5_sha1_resp(uint16_t, const void *payload, uint8_t *output, uint16_t expected_len) {
  return ks::read_exactly(payload, output, expected_len);
}

KsResult ks_hmac_md5(const char *name, const uint8_t *data, uint16_t len, uint8_t *output) {
  if (!ks::is_name(name)) return KS_INVALID_ARGS;
  // DIFFERS(hmac-md5-keeps-name): a name that couldn't be sent stays allocated; ks_hmac_sha1 frees it. Levelled, a
  // process would keep 35 bytes fewer for each failed send.
  return run_hmac(ks::kHmacMd5, KS_MD5_SIZE, OnFailedSend::kKeepName, secret(name), data, len, output);
}

KsResult ks_hmac_sha1(const char *name, const uint8_t *data, uint16_t len, uint8_t *output) {
  if (!ks::is_name(name)) return KS_INVALID_ARGS;
  return run_hmac(ks::kHmacSha1, KS_SHA1_SIZE, OnFailedSend::kFreeName, secret(name), data, len, output);
}

KsResult ks_hmac_sha1_for_pac(const uint8_t *aid, uint8_t aid_len, const uint8_t *data, uint16_t len, uint8_t *output) {
  if (!ks::is_aid(aid, aid_len)) return KS_INVALID_ARGS;
  // DIFFERS(hmac-pac-tag): the message of ks_hmac_sha1 but for the tag. Levelled, the service would use the key of the
  // secret of that name.
  const Key pac{.tag = KS_NAME_TAG_PAC, .name = aid, .name_len = aid_len};
  return run_hmac(ks::kHmacSha1, KS_SHA1_SIZE, OnFailedSend::kFreeName, pac, data, len, output);
}
