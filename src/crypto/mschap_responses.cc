// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// The two responses of MS-CHAP version 2: to a challenge, and back to that response. Their descriptors begin alike,
// with the length that the reply is to have, and each length byte is followed by three that are not written.
//
//   descriptor  24 or 42, 16 bits | W | 28 or 36 | 16 | its offset | 16 | its offset | U | its offset
//               and for the authenticator's: | 24 | its offset            (28 or 36 bytes; offsets of 32 bits;
//                                            W: length of the wire name, U: of the user name, both in 8 bits)
//   sections    name | authenticator challenge | peer challenge | user name | NT response
//   reply       result | length | response
#include "crypto/request.h"

namespace {

// build_challenges does all that both requests have.
template <typename Descriptor>
KsResult build_challenges(const char *name, const uint8_t *authenticator_challenge, const uint8_t *peer_challenge,
                          const char *user_name, uint16_t reply_len, KsSection *sections, Descriptor *descriptor) {
  if (!ks::place_secret_low16(name, sections, descriptor)) return KS_NO_MEMORY;
  // DIFFERS(mschap-user-name-low8): a user name is cut by its length modulo 256, where the names of secrets are refused
  // when they are too long. Levelled, a user name of 256 bytes would be refused or go out whole, and no longer empty.
  const uint8_t user_name_len = ks::low8(strlen(user_name));
  descriptor->reply_len = reply_len;
  descriptor->authenticator_challenge_len = KS_CHALLENGE_SIZE;
  descriptor->authenticator_challenge_offset = uint32_t{descriptor->name_len} + sizeof *descriptor;
  descriptor->peer_challenge_len = KS_CHALLENGE_SIZE;
  descriptor->peer_challenge_offset = descriptor->authenticator_challenge_offset + KS_CHALLENGE_SIZE;
  descriptor->user_name_len = user_name_len;
  descriptor->user_name_offset = descriptor->peer_challenge_offset + KS_CHALLENGE_SIZE;
  return ks::place_rest(
      sections,
      {{authenticator_challenge, KS_CHALLENGE_SIZE}, {peer_challenge, KS_CHALLENGE_SIZE}, {user_name, user_name_len}});
}

KsResult build_response(const char *name, const uint8_t *nt_response, const uint8_t *peer_challenge,
                        const uint8_t *authenticator_challenge, const char *user_name, uint16_t reply_len,
                        KsSection *sections, KsAuthenticatorResponseDescriptor *descriptor) {
  const KsResult built =
      build_challenges(name, authenticator_challenge, peer_challenge, user_name, reply_len, sections, descriptor);
  if (built != KS_SUCCESS) return built;
  descriptor->nt_response_len = KS_NT_RESPONSE_SIZE;
  descriptor->nt_response_offset = descriptor->user_name_offset + descriptor->user_name_len;
  sections[4] = {nt_response, KS_NT_RESPONSE_SIZE};
  return KS_SUCCESS;
}

}  // namespace

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
  if (!ks::are_given(authenticator_challenge, peer_challenge, user_name, output)) return KS_INVALID_ARGS;

  ks::Request request(ks::kNtResponse);
  request.build(build_challenges<KsNtResponseDescriptor>, name, authenticator_challenge, peer_challenge, user_name,
                uint16_t{KS_NT_RESPONSE_SIZE});
  request.exchange();
  return request.read(ks_GenerateNTResponse_resp, output, KS_NT_RESPONSE_SIZE);
}

KsResult ks_GenerateNTAuthenticatorResponse_req(const char *name, const uint8_t *nt_response,
                                                const uint8_t *peer_challenge, const uint8_t *authenticator_challenge,
                                                const char *user_name, uint16_t reply_len, KsSection *sections,
                                                KsAuthenticatorResponseDescriptor *descriptor) {
  return build_response(name, nt_response, peer_challenge, authenticator_challenge, user_name, reply_len, sections,
                        descriptor);
}

KsResult ks_GenerateNTAuthenticatorResponse_resp(uint16_t, const void *payload, uint8_t *output,
                                                 uint16_t expected_len) {
  return ks::read_exactly(payload, output, expected_len);
}

// DIFFERS(auth-response-order): the peer challenge is the earlier argument, as in the standard, and the later section,
// as in ks_GenerateNTResponse, whose arguments have the sections' order. Levelled in either way, the service would take
// one challenge for the other and compute another response.
KsResult ks_GenerateAuthenticatorResponse(const char *name, const uint8_t *nt_response, const uint8_t *peer_challenge,
                                          const uint8_t *authenticator_challenge, const char *user_name,
                                          uint8_t *output) {
  if (!ks::is_name(name)) return KS_INVALID_ARGS;
  if (!ks::are_given(nt_response, authenticator_challenge, peer_challenge, user_name, output)) return KS_INVALID_ARGS;

  ks::Request request(ks::kAuthResponse);
  request.build(build_response, name, nt_response, peer_challenge, authenticator_challenge, user_name,
                uint16_t{KS_AUTHENTICATOR_RESPONSE_SIZE});
  request.exchange();
  return request.read(ks_GenerateNTAuthenticatorResponse_resp, output, KS_AUTHENTICATOR_RESPONSE_SIZE);
}
