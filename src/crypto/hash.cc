// MD5 and SHA-1 over up to two pieces of data, with a secret taking part.
//
//   descriptor  W | 10 | first length | first offset | second length | second offset, 16 bits each
//                                                                         (10 bytes; W: length of the wire name)
//   sections    name | first piece | second piece
//   reply       result | length | digest
//
// An absent piece keeps its section and its fields, with a length of 0 and whatever pointer the caller gave.
#include "crypto/request.h"
#include "ks_crypto.h"
#include "transport/exchange.h"

KsResult ks_hash_md5_sha1_req(const char *name, const uint8_t *first, uint16_t first_len, const uint8_t *second,
                              uint16_t second_len, KsSection *sections, KsHashDescriptor *descriptor) {
  const uint8_t name_len = ks::low8(strlen(name));
  // DIFFERS(hash-exact-name): a buffer that ends with the name, not one of 35 bytes, as it is never given back.
  void *wire_name = ks::new_exact_wire_name(KS_NAME_TAG_SECRET, name, name_len);
  if (const KsResult placed = ks::place_name(wire_name, name_len, sections, descriptor); placed != KS_SUCCESS) {
    return placed;
  }
  descriptor->first_len = first_len;
  descriptor->first_offset = ks::low16(descriptor->name_len + sizeof *descriptor);
  descriptor->second_len = second_len;
  descriptor->second_offset = ks::low16(size_t{descriptor->first_offset} + first_len);
  sections[1] = {first, first_len};
  sections[2] = {second, second_len};
  return KS_SUCCESS;
}

KsResult ks_hash_md5_sha1_resp(uint16_t, const void *payload, uint8_t *output, uint16_t expected_len) {
  return ks::read_exactly(payload, output, expected_len);
}

static bool is_present(const uint8_t *piece, uint16_t len) {
  return piece != nullptr && len != 0;
}

// WithoutName is what happens when the name can't be allocated.
enum class WithoutName { kGiveUp, kSendEmpty };

static KsResult run_hash(const ks::Message &message, uint16_t digest_len, WithoutName without_name, const char *name,
                         const uint8_t *first, uint16_t first_len, const uint8_t *second, uint16_t second_len,
                         uint8_t *output) {
  if (!ks::is_name(name)) return KS_INVALID_ARGS;
  // DIFFERS(hash-one-piece): one present piece is enough, for callers with nothing else to add; the other's pointer is
  // not looked at, where DES, AES and HMACs refuse every null pointer.
  if (!is_present(first, first_len) && !is_present(second, second_len)) return KS_INVALID_ARGS;
  if (uint32_t{first_len} + second_len > ks::kMaxData) return KS_INVALID_ARGS;
  if (output == nullptr) return KS_INVALID_ARGS;

  ks::Exchange exchange(message);
  ks::SectionList list(message);
  if (!list.allocated()) return KS_NO_MEMORY;
  // DIFFERS(hash-keeps-name): never released, whatever comes; traces of a device's heap are read against these blocks.
  list.keep_names();
  KsHashDescriptor descriptor;
  const KsResult built = ks_hash_md5_sha1_req(name, first, first_len, second, second_len, list.data(), &descriptor);
  if (built != KS_SUCCESS && without_name == WithoutName::kGiveUp) return built;

  if (const KsResult sent = exchange.run(&descriptor, list); sent != KS_SUCCESS) return sent;

  return ks_hash_md5_sha1_resp(exchange.size(), exchange.payload(), output, digest_len);
}

KsResult ks_md5_hash(const char *name, const uint8_t *first, uint16_t first_len, const uint8_t *second,
                     uint16_t second_len, uint8_t *output) {
  return run_hash(ks::kMd5, KS_MD5_SIZE, WithoutName::kGiveUp, name, first, first_len, second, second_len, output);
}

KsResult ks_sha1_hash(const char *name, const uint8_t *first, uint16_t first_len, const uint8_t *second,
                      uint16_t second_len, uint8_t *output) {
  // DIFFERS(sha1-sends-without-name): every other operation gives up; callers here are promised the service's answer,
  // to three empty sections and a descriptor that nothing has written.
  return run_hash(ks::kSha1, KS_SHA1_SIZE, WithoutName::kSendEmpty, name, first, first_len, second, second_len, output);
}
