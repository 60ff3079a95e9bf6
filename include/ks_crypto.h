/* ks_crypto.h: cryptography on keys that stay in the keystore. The caller names a stored secret (or a PAC, where it
 * says so) and gives data; the keystore computes and sends back nothing but the outcome. */
#ifndef KS_CRYPTO_H
#define KS_CRYPTO_H

#include "ks_types.h"

/* The records of the requests. Lengths are in bytes, offsets count from the descriptor's first byte, and both are in
 * the processor's own byte order. Reserved bytes are not written; the service ignores them. */

/* KsDesDescriptor describes a DES or 3DES request: a name and the data. */
typedef KsNameDataDescriptor KsDesDescriptor;

/* KsAesDescriptor describes an AES request without an IV. */
typedef struct {
  uint8_t name_len;
  uint8_t name_offset; /* 8 */
  uint16_t data_len;
  uint32_t data_offset; /* name_len + 8; wider than in KsDesDescriptor */
} KsAesDescriptor;

KS_STATIC_ASSERT(sizeof(KsAesDescriptor) == 8);
KS_STATIC_ASSERT(offsetof(KsAesDescriptor, data_len) == 2);
KS_STATIC_ASSERT(offsetof(KsAesDescriptor, data_offset) == 4);

/* KsAesCbcDescriptor describes an AES request with an IV. */
typedef struct {
  uint8_t name_len;
  uint8_t name_offset; /* 12 */
  uint8_t iv_len;      /* 16 */
  uint8_t reserved;
  uint16_t iv_offset; /* name_len + 12 */
  uint16_t data_len;
  uint32_t data_offset; /* name_len + 28 */
} KsAesCbcDescriptor;

KS_STATIC_ASSERT(sizeof(KsAesCbcDescriptor) == 12);
KS_STATIC_ASSERT(offsetof(KsAesCbcDescriptor, iv_len) == 2);
KS_STATIC_ASSERT(offsetof(KsAesCbcDescriptor, iv_offset) == 4);
KS_STATIC_ASSERT(offsetof(KsAesCbcDescriptor, data_len) == 6);
KS_STATIC_ASSERT(offsetof(KsAesCbcDescriptor, data_offset) == 8);

/* KsHashDescriptor describes a digest over up to two pieces of data with a secret taking part. An absent piece has its
 * fields all the same, with a length of 0. */
typedef struct {
  uint8_t name_len;
  uint8_t name_offset; /* 10 */
  uint16_t first_len;
  uint16_t first_offset; /* name_len + 10 */
  uint16_t second_len;
  uint16_t second_offset; /* name_len + 10 + first_len */
} KsHashDescriptor;

KS_STATIC_ASSERT(sizeof(KsHashDescriptor) == 10);
KS_STATIC_ASSERT(offsetof(KsHashDescriptor, first_len) == 2);
KS_STATIC_ASSERT(offsetof(KsHashDescriptor, first_offset) == 4);
KS_STATIC_ASSERT(offsetof(KsHashDescriptor, second_len) == 6);
KS_STATIC_ASSERT(offsetof(KsHashDescriptor, second_offset) == 8);

/* KsHmacDescriptor describes an HMAC request: a name, of a secret or a PAC, and the data. */
typedef KsNameDataDescriptor KsHmacDescriptor;

/* KsNtResponseDescriptor describes a request for an NT response. */
typedef struct {
  uint16_t reply_len; /* 24: how long the reply's data is to be */
  uint8_t name_len;
  uint8_t name_offset;                 /* 28 */
  uint8_t authenticator_challenge_len; /* 16 */
  uint8_t reserved1[3];
  uint32_t authenticator_challenge_offset; /* name_len + 28 */
  uint8_t peer_challenge_len;              /* 16 */
  uint8_t reserved2[3];
  uint32_t peer_challenge_offset; /* name_len + 44 */
  uint8_t user_name_len;          /* the low 8 bits of the length */
  uint8_t reserved3[3];
  uint32_t user_name_offset; /* name_len + 60 */
} KsNtResponseDescriptor;

KS_STATIC_ASSERT(sizeof(KsNtResponseDescriptor) == 28);
KS_STATIC_ASSERT(offsetof(KsNtResponseDescriptor, name_len) == 2);
KS_STATIC_ASSERT(offsetof(KsNtResponseDescriptor, name_offset) == 3);
KS_STATIC_ASSERT(offsetof(KsNtResponseDescriptor, authenticator_challenge_len) == 4);
KS_STATIC_ASSERT(offsetof(KsNtResponseDescriptor, authenticator_challenge_offset) == 8);
KS_STATIC_ASSERT(offsetof(KsNtResponseDescriptor, peer_challenge_len) == 12);
KS_STATIC_ASSERT(offsetof(KsNtResponseDescriptor, peer_challenge_offset) == 16);
KS_STATIC_ASSERT(offsetof(KsNtResponseDescriptor, user_name_len) == 20);
KS_STATIC_ASSERT(offsetof(KsNtResponseDescriptor, user_name_offset) == 24);

/* KsAuthenticatorResponseDescriptor describes a request for an authenticator response. */
typedef struct {
  uint16_t reply_len; /* 42: how long the reply's data is to be */
  uint8_t name_len;
  uint8_t name_offset;                 /* 36 */
  uint8_t authenticator_challenge_len; /* 16 */
  uint8_t reserved1[3];
  uint32_t authenticator_challenge_offset; /* name_len + 36 */
  uint8_t peer_challenge_len;              /* 16 */
  uint8_t reserved2[3];
  uint32_t peer_challenge_offset; /* name_len + 52 */
  uint8_t user_name_len;          /* the low 8 bits of the length */
  uint8_t reserved3[3];
  uint32_t user_name_offset; /* name_len + 68 */
  uint8_t nt_response_len;   /* 24 */
  uint8_t reserved4[3];
  uint32_t nt_response_offset; /* name_len + 68 + user_name_len */
} KsAuthenticatorResponseDescriptor;

KS_STATIC_ASSERT(sizeof(KsAuthenticatorResponseDescriptor) == 36);
KS_STATIC_ASSERT(offsetof(KsAuthenticatorResponseDescriptor, name_len) == 2);
KS_STATIC_ASSERT(offsetof(KsAuthenticatorResponseDescriptor, name_offset) == 3);
KS_STATIC_ASSERT(offsetof(KsAuthenticatorResponseDescriptor, authenticator_challenge_len) == 4);
KS_STATIC_ASSERT(offsetof(KsAuthenticatorResponseDescriptor, authenticator_challenge_offset) == 8);
KS_STATIC_ASSERT(offsetof(KsAuthenticatorResponseDescriptor, peer_challenge_len) == 12);
KS_STATIC_ASSERT(offsetof(KsAuthenticatorResponseDescriptor, peer_challenge_offset) == 16);
KS_STATIC_ASSERT(offsetof(KsAuthenticatorResponseDescriptor, user_name_len) == 20);
KS_STATIC_ASSERT(offsetof(KsAuthenticatorResponseDescriptor, user_name_offset) == 24);
KS_STATIC_ASSERT(offsetof(KsAuthenticatorResponseDescriptor, nt_response_len) == 28);
KS_STATIC_ASSERT(offsetof(KsAuthenticatorResponseDescriptor, nt_response_offset) == 32);

/* KsNewPasswordDescriptor describes a request to encrypt a new password under the stored old one. */
typedef struct {
  uint8_t name_len;
  uint8_t name_offset;      /* 8 */
  uint8_t new_password_len; /* the low 8 bits: 0 stands for 256, and the password ends with the message */
  uint8_t reserved;
  uint32_t new_password_offset; /* name_len + 8 */
} KsNewPasswordDescriptor;

KS_STATIC_ASSERT(sizeof(KsNewPasswordDescriptor) == 8);
KS_STATIC_ASSERT(offsetof(KsNewPasswordDescriptor, new_password_len) == 2);
KS_STATIC_ASSERT(offsetof(KsNewPasswordDescriptor, new_password_offset) == 4);

/* KsOldHashDescriptor describes a request of two names: of the new password and of the old one, in this order. */
typedef struct {
  uint8_t name_len;
  uint8_t name_offset; /* 8 */
  uint8_t second_name_len;
  uint8_t reserved;
  uint32_t second_name_offset; /* name_len + 8 */
} KsOldHashDescriptor;

KS_STATIC_ASSERT(sizeof(KsOldHashDescriptor) == 8);
KS_STATIC_ASSERT(offsetof(KsOldHashDescriptor, second_name_len) == 2);
KS_STATIC_ASSERT(offsetof(KsOldHashDescriptor, second_name_offset) == 4);

/* KsMasterKeyDescriptor describes a request for the master key of an NT response. */
typedef struct {
  uint8_t name_len;
  uint8_t name_offset;     /* 6 */
  uint8_t nt_response_len; /* 24 */
  uint8_t reserved;
  uint16_t nt_response_offset; /* name_len + 6 */
} KsMasterKeyDescriptor;

KS_STATIC_ASSERT(sizeof(KsMasterKeyDescriptor) == 6);
KS_STATIC_ASSERT(offsetof(KsMasterKeyDescriptor, nt_response_len) == 2);
KS_STATIC_ASSERT(offsetof(KsMasterKeyDescriptor, nt_response_offset) == 4);

#endif
