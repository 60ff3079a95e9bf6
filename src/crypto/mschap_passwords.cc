// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// The change of a password in MS-CHAP version 2, in two operations, and the master key of MPPE.
//
//   new password   descriptor  W | 8 | length, low 8 bits | 1 byte not written | offset, 32 bits     (8 bytes)
//                  sections    name of the old password | new password
//                  reply       result | length | data, however long
//   old hash       descriptor  W1 | 8 | W2 | 1 byte not written | offset of name 2, 32 bits          (8 bytes)
//                  sections    name of the new password | name of the old password
//                  reply       result | length | 16 bytes
//   master key     descriptor  W | 6 | 24 | 1 byte not written | offset, 16 bits                     (6 bytes)
//                  sections    name | NT response
//                  reply       result | length | 16 bytes
//
// W is the length of a wire name, counted in 8 bits; names are copied by 16 bits of their length.
#include "crypto/request.h"

namespace {

constexpr uint32_t kBothNames = 0b11;

KsResult build_new_password(const char *name, const uint8_t *new_password, uint16_t new_password_len,
                            KsSection *sections, KsNewPasswordDescriptor *descriptor) {
  if (!ks::place_secret_low16(name, sections, descriptor)) return KS_NO_MEMORY;
  // DIFFERS(new-password-low8): 256 goes out as 0, and the section alone has the length; every other length in a
  // descriptor is as wide as its argument. Levelled, the offset behind it would stand further back in the descriptor.
  descriptor->new_password_len = ks::low8(new_password_len);
  descriptor->new_password_offset = uint32_t{descriptor->name_len} + sizeof *descriptor;
  return ks::place_rest(sections, {{new_password, new_password_len}});
}

KsResult build_old_hash(const char *new_name, const char *old_name, KsSection *sections,
                        KsOldHashDescriptor *descriptor) {
  const auto new_wire_name = [](const char *name) {
    return ks::new_wire_name(KS_NAME_TAG_SECRET, name, ks::low16(strlen(name)), ks::NameBuffer::kWireName);
  };
  void *first = new_wire_name(new_name);
  if (first == nullptr) return KS_NO_MEMORY;
  void *second = new_wire_name(old_name);
  if (second == nullptr) {
    free(first);
    return KS_NO_MEMORY;
  }
  descriptor->name_len = ks::wire_len(strlen(new_name));
  descriptor->name_offset = sizeof *descriptor;
  descriptor->second_name_len = ks::wire_len(strlen(old_name));
  descriptor->second_name_offset = uint32_t{descriptor->name_len} + sizeof *descriptor;
  sections[0] = {first, descriptor->name_len};
  return ks::place_rest(sections, {{second, descriptor->second_name_len}});
}

KsResult build_master_key(const char *name, const uint8_t *nt_response, KsSection *sections,
                          KsMasterKeyDescriptor *descriptor) {
  if (!ks::place_secret_low16(name, sections, descriptor)) return KS_NO_MEMORY;
  descriptor->nt_response_len = KS_NT_RESPONSE_SIZE;
  descriptor->nt_response_offset = ks::low16(descriptor->name_len + sizeof *descriptor);
  return ks::place_rest(sections, {{nt_response, KS_NT_RESPONSE_SIZE}});
}

}  // namespace

KsResult ks_NewPasswordEncryptedWithOldNtPasswordHash_req(const char *name, const uint8_t *new_password,
                                                          uint16_t new_password_len, KsSection *sections,
                                                          KsNewPasswordDescriptor *descriptor) {
  return build_new_password(name, new_password, new_password_len, sections, descriptor);
}

KsResult ks_NewPasswordEncryptedWithOldNtPasswordHash_resp(uint16_t, const void *payload, uint8_t *output) {
  if (const KsResult result = ks::reply_result(payload); result != KS_SUCCESS) return result;
  // DIFFERS(new-password-any-reply): every other reader here expects a length. Levelled, a block of any other length
  // than the expected one would be KS_FAILURE and not be copied.
  memcpy(output, ks::reply_data(payload), ks::reply_len(payload));
  return KS_SUCCESS;
}

KsResult ks_NewPasswordEncryptedWithOldNtPasswordHash(const char *name, const uint8_t *new_password,
                                                      uint16_t new_password_len, uint8_t *output) {
  if (!ks::is_name(name)) return KS_INVALID_ARGS;
  if (new_password == nullptr) return KS_INVALID_ARGS;
  if (new_password_len == 0) return KS_INVALID_ARGS;
  if (new_password_len > KS_NEW_PASSWORD_MAX) return KS_INVALID_ARGS;
  if (output == nullptr) return KS_INVALID_ARGS;

  ks::Request request(ks::kNewPassword);
  request.build(build_new_password, name, new_password, new_password_len);
  request.exchange();
  return request.read(ks_NewPasswordEncryptedWithOldNtPasswordHash_resp, output);
}

KsResult ks_OldNtPasswordHashEncryptedWithNewNtPasswordHash_req(const char *new_name, const char *old_name,
                                                                KsSection *sections, KsOldHashDescriptor *descriptor) {
  return build_old_hash(new_name, old_name, sections, descriptor);
}

KsResult ks_OldNtPasswordHashEncryptedWithNewNtPasswordHash_resp(uint16_t, const void *payload, uint8_t *output,
                                                                 uint16_t expected_len) {
  return ks::read_exactly(payload, output, expected_len);
}

KsResult ks_OldNtPasswordHashEncryptedWithNewNtPasswordHash(const char *new_name, const char *old_name,
                                                            uint8_t *output) {
  if (!ks::is_name(new_name)) return KS_INVALID_ARGS;
  if (!ks::is_name(old_name)) return KS_INVALID_ARGS;
  if (output == nullptr) return KS_INVALID_ARGS;

  ks::Request request(ks::kOldHash, kBothNames);
  if (!request.has_list()) return KS_NO_MEMORY;
  request.build(build_old_hash, new_name, old_name);
  // DIFFERS(old-hash-no-memory): the siblings, and this operation's own builder, answer KS_NO_MEMORY. Levelled, a name
  // that can't be allocated would give 4, where it gives what a failed exchange gives.
  if (request.failed()) return KS_FAILURE;
  request.exchange();
  // DIFFERS(old-hash-reader): the other operations read with the reader of their own or of their group. Levelled, a
  // program with a function in the place of one of the two readers would see this operation enter the other.
  return request.read(ks_GenerateNTAuthenticatorResponse_resp, output, KS_PASSWORD_HASH_SIZE);
}

KsResult ks_GetMasterKey_req(const char *name, const uint8_t *nt_response, KsSection *sections,
                             KsMasterKeyDescriptor *descriptor) {
  return build_master_key(name, nt_response, sections, descriptor);
}

KsResult ks_GetMasterKey_resp(uint16_t, const void *payload, uint8_t *output, uint16_t expected_len) {
  return ks::read_exactly(payload, output, expected_len);
}

KsResult ks_GetMasterKey(const char *name, const uint8_t *nt_response, uint8_t *output) {
  if (!ks::is_name(name)) return KS_INVALID_ARGS;
  if (!ks::are_given(nt_response, output)) return KS_INVALID_ARGS;

  ks::Request request(ks::kMasterKey);
  request.build(build_master_key, name, nt_response);
  request.exchange();
  return request.read(ks_GetMasterKey_resp, output, KS_MASTER_KEY_SIZE);
}
