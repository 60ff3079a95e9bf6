// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// DES and 3DES in ECB mode: four operations that differ in their row, and one of them in a step of its own.
//
//   descriptor  W | 6 | data length, 16 bits | data offset, 16 bits       (6 bytes; W: length of the wire name)
//   sections    name | data
//   reply       result | length | data, as long as the input
#include "crypto/request.h"
#include "transport/stderr_dump.h"

namespace {

constexpr uint16_t kBlock = 8;

using Request = ks::Request<KsDesDescriptor>;

// BeforeSend is a step between the building of the request and its sending.
using BeforeSend = void (*)(const Request &request);

void say_nothing(const Request &) {}

void dump_request(const Request &request) {
  const ks::SectionList &list = request.list();
  ks::dump_to_stderr(&request.descriptor(), sizeof(KsDesDescriptor));
  for (uint32_t i = 0; i < list.count(); ++i) ks::dump_to_stderr(list.data()[i].data, list.data()[i].length);
}

KsResult run_des(const ks::Message<KsDesDescriptor> &message, BeforeSend before_send, const char *name,
                 const uint8_t *input, uint16_t input_len, uint8_t *output, uint16_t output_len) {
  // DIFFERS(des-name-low8): all but these four and ks_aes_cbc_encrypt look at the whole length. Levelled, names of 257
  // to 287 bytes would be KS_INVALID_ARGS here and not be sent.
  if (!ks::is_name_low8(name)) return KS_INVALID_ARGS;
  if (!ks::are_given(input, output)) return KS_INVALID_ARGS;
  if (input_len == 0) return KS_INVALID_ARGS;
  if (input_len != output_len) return KS_INVALID_ARGS;
  if (input_len % kBlock != 0) return KS_INVALID_ARGS;
  if (input_len > ks::kMaxData) return KS_INVALID_ARGS;

  Request request(message);
  request.build(ks_des_req, name, input, input_len);
  if (!request.failed()) before_send(request);
  request.exchange();
  return request.read(ks_des_resp, output, input_len);
}

}  // namespace

KsResult ks_des_req(const char *name, const uint8_t *input, uint16_t input_len, KsSection *sections,
                    KsDesDescriptor *descriptor) {
  if (!ks::place_secret_low16(name, sections, descriptor)) return KS_NO_MEMORY;
  return ks::place_data(input, input_len, sections, descriptor);
}

KsResult ks_des_resp(uint16_t, const void *payload, uint8_t *output, uint16_t expected_len) {
  return ks::read_exactly(payload, output, expected_len);
}

KsResult ks_des_ecb_encrypt(const char *name, const uint8_t *input, uint16_t input_len, uint8_t *output,
                            uint16_t output_len) {
  // DIFFERS(des-encrypt-dump): the one operation that prints its request. Levelled, the key's name and the plaintext
  // would no longer stand on standard error, or those of the three siblings would, too.
  return run_des(ks::kDesEncrypt, dump_request, name, input, input_len, output, output_len);
}

KsResult ks_des_ecb_decrypt(const char *name, const uint8_t *input, uint16_t input_len, uint8_t *output,
                            uint16_t output_len) {
  return run_des(ks::kDesDecrypt, say_nothing, name, input, input_len, output, output_len);
}

KsResult ks_3des_ecb_encrypt(const char *name, const uint8_t *input, uint16_t input_len, uint8_t *output,
                             uint16_t output_len) {
  return run_des(ks::k3desEncrypt, say_nothing, name, input, input_len, output, output_len);
}

KsResult ks_3des_ecb_decrypt(const char *name, const uint8_t *input, uint16_t input_len, uint8_t *output,
                             uint16_t output_len) {
  return run_des(ks::k3desDecrypt, say_nothing, name, input, input_len, output, output_len);
}
