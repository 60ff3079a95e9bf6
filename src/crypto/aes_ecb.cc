// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// AES in ECB mode: a pair that differs in nothing but the opcode and the reader.
//
//   descriptor  W | 8 | data length, 16 bits | data offset, 32 bits       (8 bytes; W: length of the wire name)
//   sections    name | data
//   reply       result | length | data, as long as the input
#include "crypto/request.h"

namespace {

constexpr uint16_t kBlock = 16;

KsResult build(const char *name, const uint8_t *input, uint16_t len, KsSection *sections, KsAesDescriptor *descriptor) {
  if (!ks::place_secret(name, ks::NameBuffer::kWireName, sections, descriptor)) return KS_NO_MEMORY;
  descriptor->data_len = len;
  // DIFFERS(aes-wide-offset): DES and the HMACs have 16 bits. Levelled, the descriptor would be 6 bytes long and the
  // sections stand two bytes earlier in the message.
  descriptor->data_offset = uint32_t{descriptor->name_len} + sizeof *descriptor;
  return ks::place_rest(sections, {{input, len}});
}

KsResult run_ecb(const ks::Message<KsAesDescriptor> &message, decltype(&ks_aes_encrypt_resp) read, const char *name,
                 const uint8_t *input, uint8_t *output, uint16_t len) {
  if (!ks::is_name(name)) return KS_INVALID_ARGS;
  if (!ks::are_given(input, output)) return KS_INVALID_ARGS;
  // DIFFERS(aes-ecb-empty): CBC and DES refuse a length of 0. Levelled, it would be KS_INVALID_ARGS and not be sent.
  // DIFFERS(aes-no-limit): here and in CBC there is no upper bound. Levelled, more than 1,024 bytes would be
  // KS_INVALID_ARGS, as they are for DES, digests and HMACs.
  if (len % kBlock != 0) return KS_INVALID_ARGS;

  ks::Request request(message);
  request.build(build, name, input, len);
  request.exchange();
  return request.read(read, output, len);
}

}  // namespace

KsResult ks_aes_encrypt_req(const char *name, const uint8_t *input, uint16_t len, KsSection *sections,
                            KsAesDescriptor *descriptor) {
  return build(name, input, len, sections, descriptor);
}

KsResult ks_aes_decrypt_req(const char *name, const uint8_t *input, uint16_t len, KsSection *sections,
                            KsAesDescriptor *descriptor) {
  return build(name, input, len, sections, descriptor);
}

KsResult ks_aes_encrypt_resp(uint16_t, const void *payload, uint8_t *output, uint16_t expected_len) {
  return ks::read_exactly(payload, output, expected_len);
}

KsResult ks_aes_decrypt_resp(uint16_t, const void *payload, uint8_t *output, uint16_t expected_len) {
  return ks::read_exactly(payload, output, expected_len);
}

// DIFFERS(aes-argument-order): the output stands before the length; in CBC, as in the hashes, it is last. Levelled,
// programs that call these would no longer compile, or pass a pointer for a length.
KsResult ks_aes_encrypt(const char *name, const uint8_t *input, uint8_t *output, uint16_t len) {
  return run_ecb(ks::kAesEncrypt, ks_aes_encrypt_resp, name, input, output, len);
}

KsResult ks_aes_decrypt(const char *name, const uint8_t *input, uint8_t *output, uint16_t len) {
  return run_ecb(ks::kAesDecrypt, ks_aes_decrypt_resp, name, input, output, len);
}
