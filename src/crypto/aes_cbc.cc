// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// AES in CBC mode: a pair that differs in its test of the name and in the order of the reader's copies.
//
//   descriptor  W | 12 | 16, length of the IV | 1 byte not written | IV offset, 16 bits | data length, 16 bits |
//               data offset, 32 bits                                      (12 bytes; W: length of the wire name)
//   sections    name | IV | data
//   reply       a KsAesCbcReply | data, as long as the input
#include "crypto/request.h"
#include "transport/trace.h"

namespace {

constexpr uint16_t kBlock = 16;
constexpr uint8_t kIvLen = sizeof(KsAesCbcReply::iv);
static_assert(offsetof(KsAesCbcReply, total_len) == offsetof(ks::ReplyHead, len));
static_assert(offsetof(KsAesCbcReply, iv) == sizeof(ks::ReplyHead));

KsResult build(const char *name, const uint8_t *iv, const uint8_t *input, uint16_t len, KsSection *sections,
               KsAesCbcDescriptor *descriptor) {
  if (!ks::place_secret(name, ks::NameBuffer::kWireName, sections, descriptor)) return KS_NO_MEMORY;
  descriptor->iv_len = kIvLen;
  descriptor->iv_offset = ks::low16(descriptor->name_len + sizeof *descriptor);
  descriptor->data_len = len;
  descriptor->data_offset = uint32_t{descriptor->iv_offset} + kIvLen;
  return ks::place_rest(sections, {{iv, kIvLen}, {input, len}});
}

// check_reply gives the final result; KS_SUCCESS means that the IV and `expected_len` bytes may be copied out.
KsResult check_reply(const void *payload, uint16_t expected_len) {
  if (const KsResult result = ks::reply_result(payload); result != KS_SUCCESS) return result;
  const int total_len = ks::reply_len(payload);
  if (total_len - kIvLen != expected_len) {
    // DIFFERS(aes-cbc-reported-length): the second number counts the IV, the first doesn't. Levelled, a reply of 15
    // bytes of data and the IV to a request of 16 would be reported with 15 and no longer with 31.
    KS_TRACE(KS_SUBTYPE_NORMAL, "Invalid buffer len :%d output data len :%d \n", expected_len, total_len);
    return KS_FAILURE;
  }
  return KS_SUCCESS;
}

void copy_iv(const void *payload, uint8_t *iv) {
  memcpy(iv, static_cast<const KsAesCbcReply *>(payload)->iv, kIvLen);
}

void copy_data(const void *payload, uint8_t *output, uint16_t len) {
  memcpy(output, static_cast<const KsAesCbcReply *>(payload) + 1, len);
}

// run_cbc is all of an operation but the test of the name, which comes first.
KsResult run_cbc(const ks::Message<KsAesCbcDescriptor> &message, decltype(&ks_aes_cbc_encrypt_resp) read,
                 const char *name, uint8_t *iv, const uint8_t *input, uint16_t len, uint8_t *output) {
  if (!ks::are_given(iv, input)) return KS_INVALID_ARGS;
  if (len == 0) return KS_INVALID_ARGS;
  if (len % kBlock != 0) return KS_INVALID_ARGS;
  if (output == nullptr) return KS_INVALID_ARGS;

  ks::Request request(message);
  request.build(build, name, iv, input, len);
  request.exchange();
  return request.read(read, output, iv, len);
}

}  // namespace

KsResult ks_aes_cbc_encrypt_req(const char *name, const uint8_t *iv, const uint8_t *input, uint16_t len,
                                KsSection *sections, KsAesCbcDescriptor *descriptor) {
  return build(name, iv, input, len, sections, descriptor);
}

KsResult ks_aes_cbc_decrypt_req(const char *name, const uint8_t *iv, const uint8_t *input, uint16_t len,
                                KsSection *sections, KsAesCbcDescriptor *descriptor) {
  return build(name, iv, input, len, sections, descriptor);
}

KsResult ks_aes_cbc_encrypt_resp(uint16_t, const void *payload, uint8_t *output, uint8_t *iv, uint16_t expected_len) {
  if (const KsResult result = check_reply(payload, expected_len); result != KS_SUCCESS) return result;
  copy_iv(payload, iv);
  copy_data(payload, output, expected_len);
  return KS_SUCCESS;
}

KsResult ks_aes_cbc_decrypt_resp(uint16_t, const void *payload, uint8_t *output, uint8_t *iv, uint16_t expected_len) {
  if (const KsResult result = check_reply(payload, expected_len); result != KS_SUCCESS) return result;
  // DIFFERS(aes-cbc-copy-order): the other way round than in encryption. Levelled, output and IV that overlap would
  // hold the data in the shared bytes, and no longer the IV.
  copy_data(payload, output, expected_len);
  copy_iv(payload, iv);
  return KS_SUCCESS;
}

KsResult ks_aes_cbc_encrypt(const char *name, uint8_t *iv, const uint8_t *input, uint16_t len, uint8_t *output) {
  // DIFFERS(aes-cbc-encrypt-name): decryption and ECB look at the whole length. Levelled, a name of 257 bytes would be
  // KS_INVALID_ARGS, where it goes out as its first byte.
  if (!ks::is_name_low8(name)) return KS_INVALID_ARGS;
  return run_cbc(ks::kAesCbcEncrypt, ks_aes_cbc_encrypt_resp, name, iv, input, len, output);
}

KsResult ks_aes_cbc_decrypt(const char *name, uint8_t *iv, const uint8_t *input, uint16_t len, uint8_t *output) {
  if (!ks::is_name(name)) return KS_INVALID_ARGS;
  return run_cbc(ks::kAesCbcDecrypt, ks_aes_cbc_decrypt_resp, name, iv, input, len, output);
}
