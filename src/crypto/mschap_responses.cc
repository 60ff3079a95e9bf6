// The two responses of MS-CHAP version 2: to a challenge, and back to that response. Their descriptors begin alike,
// with the length that the reply is to have, and each length byte is followed by three that are not written.
//
//   descriptor  24 or 42, 16 bits | W | 28 or 36 | 16 | its offset | 16 | its offset | U | its offset
//               and for the authenticator's: | 24 | its offset            (28 or 36 bytes; offsets of 32 bits;
//                                            W: length of the wire name, U: of the user name, both in 8 bits)
//   sections    name | authenticator challenge | peer challenge | user name | NT response
//   reply       result | length | response
#include "crypto/request.h"
#include "ks_crypto.h"
#include "transport/exchange.h"

// build_challenges does all that both requests have.
template <typename Descriptor>
static KsResult build_challenges(const char *name, const uint8_t *authenticator_challenge,
                                 const uint8_t *peer_challenge, const char *user_name, uint16_t reply_len,
                                 KsSection *sections, Descriptor *descriptor) {
  const size_t name_len = strlen(name);
  // DIFFERS(name-copied-low16): W counts 8 bits of the length, the copy 16, as in DES; AES and hashes copy what W
  // counts.
  void *wire_name = ks::new_wire_name(KS_NAME_TAG_SECRET, name, ks::low16(name_len));
  if (const KsResult placed = ks::place_name(wire_name, name_len, sections, descriptor); placed != KS_SUCCESS) {
    return placed;
  }
  // DIFFERS(mschap-user-name-low8): a user name is cut by its length modulo 256, not refused; services that know this
  // get the same 0 to 255 bytes in the descriptor and the section.
  const uint8_t user_name_len = ks::low8(strlen(user_name));
  descriptor->reply_len = reply_len;
  descriptor->authenticator_challenge_len = KS_CHALLENGE_SIZE;
  descriptor->authenticator_challenge_offset = uint32_t{descriptor->name_len} + sizeof *descriptor;
  descriptor->peer_challenge_len = KS_CHALLENGE_SIZE;
  descriptor->peer_challenge_offset = descriptor->authenticator_challenge_offset + KS_CHALLENGE_SIZE;
  descriptor->user_name_len = user_name_len;
  descriptor->user_name_offset = descriptor->peer_challenge_offset + KS_CHALLENGE_SIZE;
  sections[1] = {authenticator_challenge, KS_CHALLENGE_SIZE};
  sections[2] = {peer_challenge, KS_CHALLENGE_SIZE};
  sections[3] = {user_name, user_name_len};
  return KS_SUCCESS;
}

KsResult ks_GenerateNTResponse_req(const char *name, const uint8_t *authenticator_challenge,
                                   const uint8_t *peer_challenge, const char *user_name, uint16_t reply_len,
                                   KsSection *sections, KsNtResponseDescriptor *descriptor) {
  return build_challenges(name, authenticator_challenge, peer_challenge, user_name, reply_len, sections, descriptor);
}

KsResult ks_GenerateNTResponse_resp(uint16_t, const void *payload, uint8_t *output, uint16_t expected_len) {
  return ks::read_exactly(payload, output, expected_len);
}

KsResult ks_GenerateNTResponse(const char *name, const uint8_t *authenticator_challenge, const uint8_t *peer_challenge,
                               const char *user_name, uint8_t *output) {
  if (!ks::is_name(name)) return KS_INVALID_ARGS;
  if (authenticator_challenge == nullptr) return KS_INVALID_ARGS;
  if (peer_challenge == nullptr) return KS_INVALID_ARGS;
  if (user_name == nullptr) return KS_INVALID_ARGS;
  if (output == nullptr) return KS_INVALID_ARGS;

  ks::Exchange exchange(ks::kNtResponse);
  ks::SectionList list(ks::kNtResponse);
  if (!list.allocated()) return KS_NO_MEMORY;
  KsNtResponseDescriptor descriptor;
  if (const KsResult built = ks_GenerateNTResponse_req(name, authenticator_challenge, peer_challenge, user_name,
                                                       KS_NT_RESPONSE_SIZE, list.data(), &descriptor);
      built != KS_SUCCESS) {
    return built;
  }

  if (const KsResult sent = exchange.run(&descriptor, list); sent != KS_SUCCESS) return sent;

  return ks_GenerateNTResponse_resp(exchange.size(), exchange.payload(), output, KS_NT_RESPONSE_SIZE);
}

KsResult ks_GenerateNTAuthenticatorResponse_req(const char *name, const uint8_t *nt_response,
                                                const uint8_t *peer_challenge, const uint8_t *authenticator_challenge,
                                                const char *user_name, uint16_t reply_len, KsSection *sections,
                                                KsAuthenticatorResponseDescriptor *descriptor) {
  if (const KsResult built =
          build_challenges(name, authenticator_challenge, peer_challenge, user_name, reply_len, sections, descriptor);
      built != KS_SUCCESS) {
    return built;
  }
  descriptor->nt_response_len = KS_NT_RESPONSE_SIZE;
  descriptor->nt_response_offset = descriptor->user_name_offset + descriptor->user_name_len;
  sections[4] = {nt_response, KS_NT_RESPONSE_SIZE};
  return KS_SUCCESS;
}

KsResult ks_GenerateNTAuthenticatorResponse_resp(uint16_t, const void *payload, uint8_t *output,
                                                 uint16_t expected_len) {
  return ks::read_exactly(payload, output, expected_len);
}

// DIFFERS(auth-response-order): the peer challenge is the earlier argument, as in the standard, and the later section,
// as in ks_GenerateNTResponse, whose arguments have the sections' order.
KsResult ks_GenerateAuthenticatorResponse(const char *name, const uint8_t *nt_response, const uint8_t *peer_challenge,
                                          const uint8_t *authenticator_challenge, const char *user_name,
                                          uint8_t *output) {
  if (!ks::is_name(name)) return KS_INVALID_ARGS;
  if (nt_response == nullptr) return KS_INVALID_ARGS;
  if (authenticator_challenge == nullptr) return KS_INVALID_ARGS;
  if (peer_challenge == nullptr) return KS_INVALID_ARGS;
  if (user_name == nullptr) return KS_INVALID_ARGS;
  if (output == nullptr) return KS_INVALID_ARGS;

  ks::Exchange exchange(ks::kAuthResponse);
  ks::SectionList list(ks::kAuthResponse);
  if (!list.allocated()) return KS_NO_MEMORY;
  KsAuthenticatorResponseDescriptor descriptor;
  if (const KsResult built =
          ks_GenerateNTAuthenticatorResponse_req(name, nt_response, peer_challenge, authenticator_challenge, user_name,
                                                 KS_AUTHENTICATOR_RESPONSE_SIZE, list.data(), &descriptor);
      built != KS_SUCCESS) {
    return built;
  }

  if (const KsResult sent = exchange.run(&descriptor, list); sent != KS_SUCCESS) return sent;

  return ks_GenerateNTAuthenticatorResponse_resp(exchange.size(), exchange.payload(), output,
                                                 KS_AUTHENTICATOR_RESPONSE_SIZE);
}
