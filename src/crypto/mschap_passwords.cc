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
#include "ks_crypto.h"
#include "transport/exchange.h"

static constexpr uint32_t kBothNames = 0b11;

static KsWireName *allocate_name(const char *name) {
  // DIFFERS(name-copied-low16): as in mschap_responses.cc.
  return ks::new_wire_name(KS_NAME_TAG_SECRET, name, ks::low16(strlen(name)));
}

KsResult ks_NewPasswordEncryptedWithOldNtPasswordHash_req(const char *name, const uint8_t *new_password,
                                                          uint16_t new_password_len, KsSection *sections,
                                                          KsNewPasswordDescriptor *descriptor) {
  if (const KsResult placed = ks::place_name(allocate_name(name), strlen(name), sections, descriptor);
      placed != KS_SUCCESS) {
    return placed;
  }
  // DIFFERS(new-password-low8): 256 goes out as 0, and the section alone has the length; services end the password with
  // the message.
  descriptor->new_password_len = ks::low8(new_password_len);
  descriptor->new_password_offset = uint32_t{descriptor->name_len} + sizeof *descriptor;
  sections[1] = {new_password, new_password_len};
  return KS_SUCCESS;
}

KsResult ks_NewPasswordEncryptedWithOldNtPasswordHash_resp(uint16_t, const void *payload, uint8_t *output) {
  if (const KsResult result = ks::reply_result(payload); result != KS_SUCCESS) return result;
  // DIFFERS(new-password-any-reply): every other reader here expects a length; this one believes the service, so that
  // its callers get blocks of whatever size their standard has.
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

  ks::Exchange exchange(ks::kNewPassword);
  ks::SectionList list(ks::kNewPassword);
  if (!list.allocated()) return KS_NO_MEMORY;
  KsNewPasswordDescriptor descriptor;
  if (const KsResult built = ks_NewPasswordEncryptedWithOldNtPasswordHash_req(name, new_password, new_password_len,
                                                                              list.data(), &descriptor);
      built != KS_SUCCESS) {
    return built;
  }

  if (const KsResult sent = exchange.run(&descriptor, list); sent != KS_SUCCESS) return sent;

  return ks_NewPasswordEncryptedWithOldNtPasswordHash_resp(exchange.size(), exchange.payload(), output);
}

KsResult ks_OldNtPasswordHashEncryptedWithNewNtPasswordHash_req(const char *new_name, const char *old_name,
                                                                KsSection *sections, KsOldHashDescriptor *descriptor) {
  KsWireName *new_wire_name = allocate_name(new_name);
  if (new_wire_name == nullptr) return KS_NO_MEMORY;
  KsWireName *old_wire_name = allocate_name(old_name);
  if (old_wire_name == nullptr) {
    free(new_wire_name);
    return KS_NO_MEMORY;
  }
  ks::place_name(new_wire_name, strlen(new_name), sections, descriptor);
  descriptor->second_name_len = ks::wire_len(strlen(old_name));
  descriptor->second_name_offset = uint32_t{descriptor->name_len} + sizeof *descriptor;
  sections[1] = {old_wire_name, descriptor->second_name_len};
  return KS_SUCCESS;
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

  ks::Exchange exchange(ks::kOldHash);
  ks::SectionList list(ks::kOldHash.sections.max, kBothNames);
  if (!list.allocated()) return KS_NO_MEMORY;
  KsOldHashDescriptor descriptor;
  if (ks_OldNtPasswordHashEncryptedWithNewNtPasswordHash_req(new_name, old_name, list.data(), &descriptor) !=
      KS_SUCCESS) {
    // DIFFERS(old-hash-no-memory): a name that can't be allocated is a failed send to the callers of this operation,
    // and KS_NO_MEMORY to those of its siblings and of its own builder.
    return KS_FAILURE;
  }

  if (const KsResult sent = exchange.run(&descriptor, list); sent != KS_SUCCESS) return sent;

  // DIFFERS(old-hash-reader): read with the authenticator response's reader; the operation's own, which is alike, is
  // for callers that run the exchange themselves.
  return ks_GenerateNTAuthenticatorResponse_resp(exchange.size(), exchange.payload(), output, KS_PASSWORD_HASH_SIZE);
}

KsResult ks_GetMasterKey_req(const char *name, const uint8_t *nt_response, KsSection *sections,
                             KsMasterKeyDescriptor *descriptor) {
  if (const KsResult placed = ks::place_name(allocate_name(name), strlen(name), sections, descriptor);
      placed != KS_SUCCESS) {
    return placed;
  }
  descriptor->nt_response_len = KS_NT_RESPONSE_SIZE;
  descriptor->nt_response_offset = ks::low16(descriptor->name_len + sizeof *descriptor);
  sections[1] = {nt_response, KS_NT_RESPONSE_SIZE};
  return KS_SUCCESS;
}

KsResult ks_GetMasterKey_resp(uint16_t, const void *payload, uint8_t *output, uint16_t expected_len) {
  return ks::read_exactly(payload, output, expected_len);
}

KsResult ks_GetMasterKey(const char *name, const uint8_t *nt_response, uint8_t *output) {
  if (!ks::is_name(name)) return KS_INVALID_ARGS;
  if (nt_response == nullptr) return KS_INVALID_ARGS;
  if (output == nullptr) return KS_INVALID_ARGS;

  ks::Exchange exchange(ks::kMasterKey);
  ks::SectionList list(ks::kMasterKey);
  if (!list.allocated()) return KS_NO_MEMORY;
  KsMasterKeyDescriptor descriptor;
  if (const KsResult built = ks_GetMasterKey_req(name, nt_response, list.data(), &descriptor); built != KS_SUCCESS) {
    return built;
  }

  if (const KsResult sent = exchange.run(&descriptor, list); sent != KS_SUCCESS) return sent;

  return ks_GetMasterKey_resp(exchange.size(), exchange.payload(), output, KS_MASTER_KEY_SIZE);
}
