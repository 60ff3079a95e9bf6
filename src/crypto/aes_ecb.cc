// AES in ECB mode: a pair that differs in nothing but the opcode.
//
//   descriptor  W | 8 | data length, 16 bits | data offset, 32 bits       (8 bytes; W: length of the wire name)
//   sections    name | data
//   reply       result | length | data, as long as the input
#include "crypto/request.h"
#include "ks_crypto.h"
#include "transport/exchange.h"

static constexpr uint16_t kBlock = 16;

static KsResult build(const char *name, const uint8_t *input, uint16_t len, KsSection *sections,
                      KsAesDescriptor *descriptor) {
  const uint8_t name_len = ks::low8(strlen(name));
  void *wire_name = ks::new_wire_name(KS_NAME_TAG_SECRET, name, name_len);
  if (const KsResult placed = ks::place_name(wire_name, name_len, sections, descriptor); placed != KS_SUCCESS) {
    return placed;
  }
  descriptor->data_len = len;
  // DIFFERS(aes-wide-offset): 32 bits, where DES and HMACs have 16; the service reads the word.
  descriptor->data_offset = uint32_t{descriptor->name_len} + sizeof *descriptor;
  sections[1] = {input, len};
  return KS_SUCCESS;
}

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

static KsResult run_ecb(const ks::Message &message, const char *name, const uint8_t *input, uint8_t *output,
                        uint16_t len) {
  if (!ks::is_name(name)) return KS_INVALID_ARGS;
  if (input == nullptr) return KS_INVALID_ARGS;
  if (output == nullptr) return KS_INVALID_ARGS;
  // DIFFERS(aes-ecb-empty): 0 is a multiple too, and callers that encrypt what may be empty count on it; CBC and DES
  // refuse it.
  // DIFFERS(aes-no-limit): nor is there an upper bound, here and in CBC; files go through in large pieces.
  if (len % kBlock != 0) return KS_INVALID_ARGS;

  ks::Exchange exchange(message);
  ks::SectionList list(message);
  if (!list.allocated()) return KS_NO_MEMORY;
  KsAesDescriptor descriptor;
  if (const KsResult built = build(name, input, len, list.data(), &descriptor); built != KS_SUCCESS) return built;

  if (const KsResult sent = exchange.run(&descriptor, list); sent != KS_SUCCESS) return sent;

  return ks::read_exactly(exchange.payload(), output, len);  // what both readers are
}

// DIFFERS(aes-argument-order): the output stands before the length; in CBC, as in the hashes, it is last.
KsResult ks_aes_encrypt(const char *name, const uint8_t *input, uint8_t *output, uint16_t len) {
  return run_ecb(ks::kAesEncrypt, name, input, output, len);
}

KsResult ks_aes_decrypt(const char *name, const uint8_t *input, uint8_t *output, uint16_t len) {
  return run_ecb(ks::kAesDecrypt, name, input, output, len);
}
