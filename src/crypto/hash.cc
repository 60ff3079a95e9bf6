// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// MD5 and SHA-1 over up to two pieces of data, with a secret taking part.
//
//   descriptor  W | 10 | first length | first offset | second length | second offset, 16 bits each
//                                                                         (10 bytes; W: length of the wire name)
//   sections    name | first piece | second piece
//   reply       result | length | digest
//
// An absent piece keeps its section and its fields, with a length of 0 and whatever pointer the caller gave.
#include "crypto/request.h"

namespace {

bool is_present(const uint8_t *piece, uint16_t len) {
  return piece != nullptr && len != 0;
}

// WithoutName is what happens when the name can't be allocated.
enum class WithoutName { kGiveUp, kSendEmpty };

KsResult run_hash(const ks::Message<KsHashDescriptor> &message, uint16_t digest_len, WithoutName without_name,
                  const char *name, const uint8_t *first, uint16_t first_len, const uint8_t *second,
                  uint16_t second_len, uint8_t *output) {
  if (!ks::is_name(name)) return KS_INVALID_ARGS;
  // DIFFERS(hash-one-piece): one present piece is enough and the other's pointer isn't looked at, where DES, AES and
  // HMACs refuse every null pointer. Levelled, a digest over one piece would be KS_INVALID_ARGS.
  if (!is_present(first, first_len) && !is_present(second, second_len)) return KS_INVALID_ARGS;
  if (uint32_t{first_len} + second_len > ks::kMaxData) return KS_INVALID_ARGS;
  if (output == nullptr) return KS_INVALID_ARGS;

  ks::Request request(message);
  // DIFFERS(hash-keeps-name): the name is never released, whatever comes. Levelled, a process would keep W bytes fewer
  // for each digest.
  request.keep_names();
  if (without_name == WithoutName::kGiveUp) {
    request.build(ks_hash_md5_sha1_req, name, first, first_len, second, second_len);
  } else {
    request.build_or_send_empty(ks_hash_md5_sha1_req, name, first, first_len, second, second_len);
  }
  request.exchange();
  return request.read(ks_hash_md5_sha1_resp, output, digest_len);
}

}  // namespace

KsResult ks_hash_md5_sha1_req(const char *name, const uint8_t *first, uint16_t first_len, const uint8_t *second,
                              uint16_t second_len, KsSection *sections, KsHashDescriptor *descriptor) {
  // DIFFERS(hash-exact-name): a buffer that ends with the name. Levelled, each digest would leave 35 bytes allocated,
  // whatever the name's length.
  if (!ks::place_secret(name, ks::NameBuffer::kExact, sections, descriptor)) return KS_NO_MEMORY;
  descriptor->first_len = first_len;
  descriptor->first_offset = ks::low16(descriptor->name_len + sizeof *descriptor);
  descriptor->second_len = second_len;
  descriptor->second_offset = ks::low16(size_t{descriptor->first_offset} + first_len);
  return ks::place_rest(sections, {{first, first_len}, {second, second_len}});
}

KsResult ks_hash_md5_sha1_resp(uint16_t, const void *payload, uint8_t *output, uint16_t expected_len) {
  return ks::read_exactly(payload, output, expected_len);
}

KsResult ks_md5_hash(const char *name, const uint8_t *first, uint16_t first_len, const uint8_t *second,
                     uint16_t second_len, uint8_t *output) {
  return run_hash(ks::kMd5, KS_MD5_SIZE, WithoutName::kGiveUp, name, first, first_len, second, second_len, output);
}

KsResult ks_sha1_hash(const char *name, const uint8_t *first, uint16_t first_len, const uint8_t *second,
                      uint16_t second_len, uint8_t *output) {
  // DIFFERS(sha1-sends-without-name): every other operation gives up when the name can't be allocated. Levelled, the
  // answer would be KS_NO_MEMORY, where it is the service's to three empty sections and an unwritten descriptor.
  return run_hash(ks::kSha1, KS_SHA1_SIZE, WithoutName::kSendEmpty, name, first, first_len, second, second_len, output);
}
