// HMAC-MD5 and HMAC-SHA1 under a secret, and HMAC-SHA1 under a PAC's key.
//
//   descriptor  W | 6 | data length, 16 bits | data offset, 16 bits       (6 bytes; W: length of the wire name)
//   sections    name, of a secret or a PAC | data
//   reply       result | length | HMAC
#include "crypto/request.h"
#include "ks_crypto.h"
#include "transport/exchange.h"

KsResult ks_hmac_md5_sha1_req(const void *name, uint8_t name_len, const uint8_t *data, uint16_t len, uint32_t tag,
                              KsSection *sections, KsHmacDescriptor *descriptor) {
  void *wire_name = ks::new_wire_name(ks::low8(tag), name, name_len);
  if (const KsResult placed = ks::place_name(wire_name, name_len, sections, descriptor); placed != KS_SUCCESS) {
    return placed;
  }
  ks::place_data(data, len, sections, descriptor);
  return KS_SUCCESS;
}

KsResult ks_hmac_md5_sha1_resp(uint16_t, const void *payload, uint8_t *output, uint16_t expected_len) {
  return ks::read_exactly(payload, output, expected_len);
}

// Key is the entry whose key is used: its kind and its name, which is good.
struct Key {
  uint8_t tag;
  const void *name;
  uint8_t name_len;
};

// OnFailedSend is what happens to the name's buffer when the request can't be sent.
enum class OnFailedSend { kFreeName, kKeepName };

static KsResult run_hmac(const ks::Message &message, uint16_t hmac_len, OnFailedSend on_failed_send, const Key &key,
                         const uint8_t *data, uint16_t len, uint8_t *output) {
  if (data == nullptr) return KS_INVALID_ARGS;
  if (len == 0) return KS_INVALID_ARGS;
  if (len > ks::kMaxData) return KS_INVALID_ARGS;
  if (output == nullptr) return KS_INVALID_ARGS;

  ks::Exchange exchange(message);
  ks::SectionList list(message);
  if (!list.allocated()) return KS_NO_MEMORY;
  KsHmacDescriptor descriptor;
  if (const KsResult built = ks_hmac_md5_sha1_req(key.name, key.name_len, data, len, key.tag, list.data(), &descriptor);
      built != KS_SUCCESS) {
    return built;
  }

  if (const KsResult sent = exchange.run(&descriptor, list); sent != KS_SUCCESS) {
    if (!exchange.sent() && on_failed_send == OnFailedSend::kKeepName) list.keep_names();
    return sent;
  }

  return ks_hmac_md5_sha1_resp(exchange.size(), exchange.payload(), output, hmac_len);
}

static Key secret(const char *name) {
  return {.tag = KS_NAME_TAG_SECRET, .name = name, .name_len = ks::low8(strlen(name))};
}

KsResult ks_hmac_md5(const char *name, const uint8_t *data, uint16_t len, uint8_t *output) {
  if (!ks::is_name(name)) return KS_INVALID_ARGS;
  // DIFFERS(hmac-md5-keeps-name): a name that couldn't be sent stays allocated; ks_hmac_sha1 frees it. As with the
  // hashes, traces of a device's heap are read against these blocks.
  return run_hmac(ks::kHmacMd5, KS_MD5_SIZE, OnFailedSend::kKeepName, secret(name), data, len, output);
}

KsResult ks_hmac_sha1(const char *name, const uint8_t *data, uint16_t len, uint8_t *output) {
  if (!ks::is_name(name)) return KS_INVALID_ARGS;
  return run_hmac(ks::kHmacSha1, KS_SHA1_SIZE, OnFailedSend::kFreeName, secret(name), data, len, output);
}

KsResult ks_hmac_sha1_for_pac(const uint8_t *aid, uint8_t aid_len, const uint8_t *data, uint16_t len, uint8_t *output) {
  if (!ks::is_aid(aid, aid_len)) return KS_INVALID_ARGS;
  // DIFFERS(hmac-pac-tag): the message of ks_hmac_sha1 but for the tag, by which the service takes a PAC's key.
  const Key pac{.tag = KS_NAME_TAG_PAC, .name = aid, .name_len = aid_len};
  return run_hmac(ks::kHmacSha1, KS_SHA1_SIZE, OnFailedSend::kFreeName, pac, data, len, output);
}
