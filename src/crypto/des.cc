// DES and 3DES in ECB mode: four operations that differ in their row, and one of them in a step of its own.
//
//   descriptor  W | 6 | data length, 16 bits | data offset, 16 bits       (6 bytes; W: length of the wire name)
//   sections    name | data
//   reply       result | length | data, as long as the input
#include "crypto/request.h"
#include "ks_crypto.h"
#include "transport/exchange.h"
#include "transport/stderr_dump.h"

static constexpr uint16_t kBlock = 8;

KsResult ks_des_req(const char *name, const uint8_t *input, uint16_t input_len, KsSection *sections,
                    KsDesDescriptor *descriptor) {
  const size_t name_len = strlen(name);
  // DIFFERS(name-copied-low16): W counts 8 bits of the length, the copy 16; AES and hashes copy what W counts. Nothing
  // here guards the 35-byte buffer: callers who build requests themselves see to it.
  void *wire_name = ks::new_wire_name(KS_NAME_TAG_SECRET, name, ks::low16(name_len));
  if (const KsResult placed = ks::place_name(wire_name, name_len, sections, descriptor); placed != KS_SUCCESS) {
    return placed;
  }
  ks::place_data(input, input_len, sections, descriptor);
  return KS_SUCCESS;
}

KsResult ks_des_resp(uint16_t, const void *payload, uint8_t *output, uint16_t expected_len) {
  return ks::read_exactly(payload, output, expected_len);
}

// BeforeSend is a step between the building of the request and its sending.
using BeforeSend = void (*)(const KsDesDescriptor &descriptor, const ks::SectionList &list);

static void say_nothing(const KsDesDescriptor &, const ks::SectionList &) {}

static void dump_request(const KsDesDescriptor &descriptor, const ks::SectionList &list) {
  ks::dump_to_stderr(&descriptor, sizeof descriptor);
  for (uint32_t i = 0; i < list.count(); ++i) ks::dump_to_stderr(list.data()[i].data, list.data()[i].length);
}

static KsResult run_des(const ks::Message &message, BeforeSend before_send, const char *name, const uint8_t *input,
                        uint16_t input_len, uint8_t *output, uint16_t output_len) {
  // DIFFERS(des-name-low8): names of 257 to 287 bytes pass; only ks_aes_cbc_encrypt looks no further either.
  if (!ks::is_name_low8(name)) return KS_INVALID_ARGS;
  if (input == nullptr) return KS_INVALID_ARGS;
  if (output == nullptr) return KS_INVALID_ARGS;
  if (input_len == 0) return KS_INVALID_ARGS;
  if (input_len != output_len) return KS_INVALID_ARGS;
  if (input_len % kBlock != 0) return KS_INVALID_ARGS;
  if (input_len > ks::kMaxData) return KS_INVALID_ARGS;

  ks::Exchange exchange(message);
  ks::SectionList list(message);
  if (!list.allocated()) return KS_NO_MEMORY;
  KsDesDescriptor descriptor;
  if (const KsResult built = ks_des_req(name, input, input_len, list.data(), &descriptor); built != KS_SUCCESS) {
    return built;
  }
  before_send(descriptor, list);

  if (const KsResult sent = exchange.run(&descriptor, list); sent != KS_SUCCESS) return sent;

  return ks_des_resp(exchange.size(), exchange.payload(), output, input_len);
}

KsResult ks_des_ecb_encrypt(const char *name, const uint8_t *input, uint16_t input_len, uint8_t *output,
                            uint16_t output_len) {
  // DIFFERS(des-encrypt-dump): the one operation that prints its request; field staff compare it with the chip's log.
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
