// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// crypto.cc: the messages that compute with a stored key: ciphers, digests, HMACs and the functions of
// MS-CHAP.
//
// Each handler reads its descriptor and all its sections first, and answers KS_INVALID_ARGS unless they fit. Then it
// asks for the key, and then what is computed goes straight from the request into the reply. Nothing is logged: the
// counters tell how often a message failed.
#include <array>

#include "crypto/digests.h"
#include "crypto/hmac.h"
#include "crypto/mschap.h"
#include "handlers/handler.h"
#include "handlers/named_key.h"
#include "ks_crypto.h"

namespace ksd::handlers {
namespace {

using crypto::Algorithm;
using crypto::NtHash;
using Owner = KeyDemand::Owner;

// Cipher is what differs between the ciphers whose blocks are worked on each by itself.
struct Cipher {
  Algorithm algorithm;
  size_t block_size;
  bool may_be_empty;    // a request without data then has a reply without data
  KsResult unsuitable;  // the result for a secret that is no key of it
};

constexpr Cipher kAes{Algorithm::kAesEcb, crypto::kAesBlockSize, true, KS_KEY_LEN_UNSUPPORTED};
constexpr Cipher kDes{Algorithm::kDes, crypto::kDesBlockSize, false, KS_BAD_KEY};
constexpr Cipher kTripleDes{Algorithm::kTripleDes, crypto::kDesBlockSize, false, KS_BAD_KEY};

template <typename Descriptor, const Cipher &kCipher, typename Key, void (Key::*kRun)(Bytes, uint8_t *) const>
void ecb(Service &service, const Request &request, Reply &reply) {
  const auto descriptor = request.descriptor<Descriptor>();
  if (!descriptor) return reply.result(KS_INVALID_ARGS);
  const auto name = request_name(request, *descriptor);
  const auto data = request.section(descriptor->data_offset, descriptor->data_len);
  if (!name || !data || data->size() % kCipher.block_size != 0) return reply.result(KS_INVALID_ARGS);
  if (data->empty() && !kCipher.may_be_empty) return reply.result(KS_INVALID_ARGS);

  const NamedKey<Key> key(service, request, *name, {.algorithm = kCipher.algorithm, .unsuitable = kCipher.unsuitable});
  if (!key) return reply.result(key.result());
  ((*key).*kRun)(*data, reply.data_area(descriptor->data_len));
}

template <typename Key>
constexpr Handler aes_ecb = ecb<KsAesDescriptor, kAes, Key, &Key::ecb>;

template <void (crypto::DesKey::*kRun)(Bytes, uint8_t *) const>
constexpr Handler des = ecb<KsDesDescriptor, kDes, crypto::DesKey, kRun>;

template <void (crypto::TripleDesKey::*kRun)(Bytes, uint8_t *) const>
constexpr Handler triple_des = ecb<KsDesDescriptor, kTripleDes, crypto::TripleDesKey, kRun>;

// The reply is the IV to chain on with, and the data behind it; the two have one length of 16 bits, so the longest data
// of all, 65520 bytes, has no room there.
template <typename Key>
void aes_cbc(Service &service, const Request &request, Reply &reply) {
  const auto descriptor = request.descriptor<KsAesCbcDescriptor>();
  if (!descriptor) return reply.result(KS_INVALID_ARGS);
  const auto name = request_name(request, *descriptor);
  const auto iv = request.section(descriptor->iv_offset, descriptor->iv_len);
  const auto data = request.section(descriptor->data_offset, descriptor->data_len);
  if (!name || !iv || iv->size() != crypto::kAesBlockSize) return reply.result(KS_INVALID_ARGS);
  if (!data || data->empty() || data->size() % crypto::kAesBlockSize != 0) return reply.result(KS_INVALID_ARGS);
  const size_t reply_size = crypto::kAesBlockSize + data->size();
  if (reply_size > UINT16_MAX) return reply.result(KS_RPC_TOO_LARGE);

  const NamedKey<Key> key(service, request, *name,
                          {.algorithm = Algorithm::kAesCbc, .unsuitable = KS_KEY_LEN_UNSUPPORTED});
  if (!key) return reply.result(key.result());
  uint8_t *const chain = reply.data_area(static_cast<uint16_t>(reply_size));
  std::memcpy(chain, iv->data(), crypto::kAesBlockSize);
  key->cbc(chain, *data, chain + crypto::kAesBlockSize);
}

template <typename Key, Algorithm kAlgorithm>
void hmac(Service &service, const Request &request, Reply &reply) {
  const auto descriptor = request.descriptor<KsHmacDescriptor>();
  if (!descriptor) return reply.result(KS_INVALID_ARGS);
  const auto name = request_name(request, *descriptor);
  const auto data = request.section(descriptor->data_offset, descriptor->data_len);
  if (!name || !data || data->empty()) return reply.result(KS_INVALID_ARGS);

  const NamedKey<Key> key(service, request, *name, {.algorithm = kAlgorithm, .owner = Owner::kEither});
  if (!key) return reply.result(key.result());
  key->mac({*data}, reply.data_area(Key::kDigestSize));
}

// The secret stands between the two pieces, either of which may be empty: with the first one empty this is the digest
// that hides a password, with the second one empty the response authenticator (RFC 2865, sections 5.2 and 3). The
// digest of a secret alone is refused: one list of digests, made once, would find all secrets that are in it.
template <typename Digest, Algorithm kAlgorithm>
void hash(Service &service, const Request &request, Reply &reply) {
  const auto descriptor = request.descriptor<KsHashDescriptor>();
  if (!descriptor) return reply.result(KS_INVALID_ARGS);
  const auto name = request_name(request, *descriptor);
  const auto first = request.section(descriptor->first_offset, descriptor->first_len);
  const auto second = request.section(descriptor->second_offset, descriptor->second_len);
  if (!name || !first || !second || (first->empty() && second->empty())) return reply.result(KS_INVALID_ARGS);

  if (const KsResult allowed = allow_key(service, request, *name, {.algorithm = kAlgorithm}); allowed != KS_SUCCESS) {
    return reply.result(allowed);
  }
  vault::Entry entry;
  if (const KsResult found = find_key(service.store(), *name, &entry); found != KS_SUCCESS) {
    return reply.result(found);
  }
  crypto::digest_of<Digest>({*first, entry.secret->bytes(), *second}, reply.data_area(Digest::kDigestSize));
}

// read_challenges reads what the two Generate messages have in common, or gives nothing unless it fits.
template <typename Descriptor>
std::optional<crypto::Challenges> read_challenges(const Request &request, const Descriptor &descriptor) {
  const auto authenticator =
      request.section(descriptor.authenticator_challenge_offset, descriptor.authenticator_challenge_len);
  const auto peer = request.section(descriptor.peer_challenge_offset, descriptor.peer_challenge_len);
  const auto user_name = request.section(descriptor.user_name_offset, descriptor.user_name_len);
  if (!authenticator || authenticator->size() != crypto::kChallengeSize) return std::nullopt;
  if (!peer || peer->size() != crypto::kChallengeSize || !user_name) return std::nullopt;
  return crypto::Challenges{.authenticator = *authenticator, .peer = *peer, .user_name = *user_name};
}

void generate_nt_response(Service &service, const Request &request, Reply &reply) {
  const auto descriptor = request.descriptor<KsNtResponseDescriptor>();
  if (!descriptor || descriptor->reply_len != crypto::kNtResponseSize) return reply.result(KS_INVALID_ARGS);
  const auto name = request_name(request, *descriptor);
  const auto challenges = read_challenges(request, *descriptor);
  if (!name || !challenges) return reply.result(KS_INVALID_ARGS);

  const NamedKey<NtHash> password(service, request, *name, {.algorithm = Algorithm::kNtResponse});
  if (!password) return reply.result(password.result());
  crypto::nt_response(*password, *challenges, reply.data_area(crypto::kNtResponseSize));
}

void generate_authenticator_response(Service &service, const Request &request, Reply &reply) {
  const auto descriptor = request.descriptor<KsAuthenticatorResponseDescriptor>();
  if (!descriptor || descriptor->reply_len != crypto::kAuthenticatorResponseSize) return reply.result(KS_INVALID_ARGS);
  const auto name = request_name(request, *descriptor);
  const auto challenges = read_challenges(request, *descriptor);
  const auto response = request.section(descriptor->nt_response_offset, descriptor->nt_response_len);
  if (!name || !challenges || !response || response->size() != crypto::kNtResponseSize) {
    return reply.result(KS_INVALID_ARGS);
  }

  const NamedKey<NtHash> password(service, request, *name, {.algorithm = Algorithm::kAuthenticatorResponse});
  if (!password) return reply.result(password.result());
  crypto::authenticator_response(*password, *response, *challenges,
                                 reply.data_area(crypto::kAuthenticatorResponseSize));
}

// new_password_section finds the new password. Its length is told modulo 256: one of 256 bytes is told as 0, and ends
// with the message.
std::optional<Bytes> new_password_section(const Request &request, const KsNewPasswordDescriptor &descriptor) {
  constexpr size_t kLongest = 256;
  if (descriptor.new_password_len != 0) {
    return request.section(descriptor.new_password_offset, descriptor.new_password_len);
  }
  const auto longest = request.section(descriptor.new_password_offset, kLongest);
  const bool ends_message = size_t{descriptor.new_password_offset} + kLongest == request.message.size();
  return ends_message ? longest : std::nullopt;
}

// The stored password is the old one; the new one comes with the request.
void encrypt_new_password(Service &service, const Request &request, Reply &reply) {
  const auto descriptor = request.descriptor<KsNewPasswordDescriptor>();
  if (!descriptor) return reply.result(KS_INVALID_ARGS);
  const auto name = request_name(request, *descriptor);
  const auto new_password = new_password_section(request, *descriptor);
  if (!name || !new_password) return reply.result(KS_INVALID_ARGS);

  const NamedKey<NtHash> old_password(service, request, *name, {.algorithm = Algorithm::kNewPassword});
  if (!old_password) return reply.result(old_password.result());
  if (!crypto::new_password_block(*old_password, *new_password, reply.data_area(crypto::kPasswordBlockSize))) {
    reply.result(KS_INVALID_ARGS);  // not UTF-8
  }
}

void encrypt_old_hash(Service &service, const Request &request, Reply &reply) {
  const auto descriptor = request.descriptor<KsOldHashDescriptor>();
  if (!descriptor) return reply.result(KS_INVALID_ARGS);
  const auto new_name = request_name(request, *descriptor);
  const auto old_wire = request.section(descriptor->second_name_offset, descriptor->second_name_len);
  const auto old_name = old_wire ? entry_name(*old_wire) : std::nullopt;
  if (!new_name || !old_name) return reply.result(KS_INVALID_ARGS);

  const NamedKey<NtHash> new_password(service, request, *new_name, {.algorithm = Algorithm::kOldHash});
  if (!new_password) return reply.result(new_password.result());
  const NamedKey<NtHash> old_password(service, request, *old_name, {.algorithm = Algorithm::kOldHash});
  if (!old_password) return reply.result(old_password.result());
  crypto::old_hash_block(*new_password, *old_password, reply.data_area(crypto::kNtHashSize));
}

void get_master_key(Service &service, const Request &request, Reply &reply) {
  const auto descriptor = request.descriptor<KsMasterKeyDescriptor>();
  if (!descriptor) return reply.result(KS_INVALID_ARGS);
  const auto name = request_name(request, *descriptor);
  const auto response = request.section(descriptor->nt_response_offset, descriptor->nt_response_len);
  if (!name || !response || response->size() != crypto::kNtResponseSize) return reply.result(KS_INVALID_ARGS);

  const NamedKey<NtHash> password(service, request, *name, {.algorithm = Algorithm::kMasterKey});
  if (!password) return reply.result(password.result());
  crypto::master_key(*password, *response, reply.data_area(crypto::kMasterKeySize));
}

constexpr std::array kCryptoRows{
    Row{KS_OP_GENERATE_NT_RESPONSE, "NT response", generate_nt_response},
    Row{KS_OP_GENERATE_AUTH_RESPONSE, "authenticator response", generate_authenticator_response},
    Row{KS_OP_NEW_PASSWORD_ENCRYPTED, "new password encrypted", encrypt_new_password},
    Row{KS_OP_OLD_HASH_ENCRYPTED, "old hash encrypted", encrypt_old_hash},
    Row{KS_OP_GET_MASTER_KEY, "master key", get_master_key},
    Row{KS_OP_AES_ENCRYPT, "AES encrypt", aes_ecb<crypto::AesEncryptKey>},
    Row{KS_OP_AES_DECRYPT, "AES decrypt", aes_ecb<crypto::AesDecryptKey>},
    Row{KS_OP_AES_CBC_ENCRYPT, "AES CBC encrypt", aes_cbc<crypto::AesEncryptKey>},
    Row{KS_OP_AES_CBC_DECRYPT, "AES CBC decrypt", aes_cbc<crypto::AesDecryptKey>},
    Row{KS_OP_HMAC_MD5, "HMAC-MD5", hmac<crypto::HmacMd5Key, Algorithm::kHmacMd5>},
    Row{KS_OP_HMAC_SHA1, "HMAC-SHA1", hmac<crypto::HmacSha1Key, Algorithm::kHmacSha1>},
    Row{KS_OP_MD5, "MD5", hash<crypto::Md5, Algorithm::kMd5>},
    Row{KS_OP_SHA1, "SHA-1", hash<crypto::Sha1, Algorithm::kSha1>},
    Row{KS_OP_DES_ENCRYPT, "DES encrypt", des<&crypto::DesKey::encrypt>},
    Row{KS_OP_DES_DECRYPT, "DES decrypt", des<&crypto::DesKey::decrypt>},
    Row{KS_OP_3DES_ENCRYPT, "3DES encrypt", triple_des<&crypto::TripleDesKey::encrypt>},
    Row{KS_OP_3DES_DECRYPT, "3DES decrypt", triple_des<&crypto::TripleDesKey::decrypt>},
};

}  // namespace

std::span<const Row> crypto_rows() {
  return kCryptoRows;
}

}  // namespace ksd::handlers
