// AES in CBC mode: a pair that differs in its test of the name and in the order of the reader's copies.
//
//   descriptor  W | 12 | 16, length of the IV | 1 byte not written | IV offset, 16 bits | data length, 16 bits |
//               data offset, 32 bits                                      (12 bytes; W: length of the wire name)
//   sections    name | IV | data
//   reply       result | length, which counts the IV too | IV to chain with | data, as long as the input
#include "crypto/request.h"
#include "ks_crypto.h"
#include "transport/exchange.h"
#include "transport/trace.h"

static constexpr uint16_t kBlock = 16;
static constexpr uint8_t kIvLen = 16;

static KsResult build(const char *name, const uint8_t *iv, const uint8_t *input, uint16_t len, KsSection *sections,
                      KsAesCbcDescriptor *descriptor) {
  const uint8_t name_len = ks::low8(strlen(name));
  void *wire_name = ks::new_wire_name(KS_NAME_TAG_SECRET, name, name_len);
  if (const KsResult placed = ks::place_name(wire_name, name_len, sections, descriptor); placed != KS_SUCCESS) {
    return placed;
  }
  descriptor->iv_len = kIvLen;
  descriptor->iv_offset = ks::low16(descriptor->name_len + sizeof *descriptor);
  descriptor->data_len = len;
  descriptor->data_offset = uint32_t{descriptor->iv_offset} + kIvLen;
  sections[1] = {iv, kIvLen};
  sections[2] = {input, len};
  return KS_SUCCESS;
}

KsResult ks_aes_cbc_encrypt_req(const char *name, const uint8_t *iv, const uint8_t *input, uint16_t len,
                                KsSection *sections, KsAesCbcDescriptor *descriptor) {
  return build(name, iv, input, len, sections, descriptor);
}

KsResult ks_aes_cbc_decrypt_req(const char *name, const uint8_t *iv, const uint8_t *input, uint16_t len,
                                KsSection *sections, KsAesCbcDescriptor *descriptor) {
  return build(name, iv, input, len, sections, descriptor);
}

// check_reply gives the final result; KS_SUCCESS means that the IV and `expected_len` bytes may be copied out.
static KsResult check_reply(const void *payload, uint16_t expected_len) {
  if (const KsResult result = ks::reply_result(payload); result != KS_SUCCESS) return result;
  const int total_len = ks::reply_len(payload);
  if (total_len - kIvLen != expected_len) {
    // DIFFERS(aes-cbc-reported-length): the second number counts the IV, the first doesn't; log filters know both.
    KS_TRACE(KS_SUBTYPE_NORMAL, "Invalid buffer len :%d output data len :%d \n", expected_len, total_len);
    return KS_FAILURE;
  }
  return KS_SUCCESS;
}

static void copy_iv(const void *payload, uint8_t *iv) {
  memcpy(iv, ks::reply_data(payload), kIvLen);
}

static void copy_data(const void *payload, uint8_t *output, uint16_t len) {
  memcpy(output, ks::reply_data(payload) + kIvLen, len);
}

KsResult ks_aes_cbc_encrypt_resp(uint16_t, const void *payload, uint8_t *output, uint8_t *iv, uint16_t expected_len) {
  if (const KsResult result = check_reply(payload, expected_len); result != KS_SUCCESS) return result;
  copy_iv(payload, iv);
  copy_data(payload, output, expected_len);
  return KS_SUCCESS;
}

KsResult ks_aes_cbc_decrypt_resp(uint16_t, const void *payload, uint8_t *output, uint8_t *iv, uint16_t expected_len) {
  if (const KsResult result = check_reply(payload, expected_len); result != KS_SUCCESS) return result;
  // DIFFERS(aes-cbc-copy-order): the other way round than in encryption, for callers whose output and IV overlap.
  copy_data(payload, output, expected_len);
  copy_iv(payload, iv);
  return KS_SUCCESS;
}

using Reader = decltype(&ks_aes_cbc_encrypt_resp);

// run_cbc is all of an operation but the test of the name, which comes first.
static KsResult run_cbc(const ks::Message &message, Reader read, const char *name, uint8_t *iv, const uint8_t *input,
                        uint16_t len, uint8_t *output) {
  if (iv == nullptr) return KS_INVALID_ARGS;
  if (input == nullptr) return KS_INVALID_ARGS;
  if (len == 0) return KS_INVALID_ARGS;
  if (len % kBlock != 0) return KS_INVALID_ARGS;
  if (output == nullptr) return KS_INVALID_ARGS;

  ks::Exchange exchange(message);
  ks::SectionList list(message);
  if (!list.allocated()) return KS_NO_MEMORY;
  KsAesCbcDescriptor descriptor;
  if (const KsResult built = build(name, iv, input, len, list.data(), &descriptor); built != KS_SUCCESS) return built;

  if (const KsResult sent = exchange.run(&descriptor, list); sent != KS_SUCCESS) return sent;

  return read(exchange.size(), exchange.payload(), output, iv, len);
}

KsResult ks_aes_cbc_encrypt(const char *name, uint8_t *iv, const uint8_t *input, uint16_t len, uint8_t *output) {
  // DIFFERS(aes-cbc-encrypt-name): 257 bytes pass and go out as 1, for callers with long padded names; decryption and
  // ECB refuse them.
  if (!ks::is_name_low8(name)) return KS_INVALID_ARGS;
  return run_cbc(ks::kAesCbcEncrypt, ks_aes_cbc_encrypt_resp, name, iv, input, len, output);
}

KsResult ks_aes_cbc_decrypt(const char *name, uint8_t *iv, const uint8_t *input, uint16_t len, uint8_t *output) {
  if (!ks::is_name(name)) return KS_INVALID_ARGS;
  return run_cbc(ks::kAesCbcDecrypt, ks_aes_cbc_decrypt_resp, name, iv, input, len, output);
}
