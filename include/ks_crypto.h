/* SPDX-FileCopyrightText: 2026 The ks developers
 * SPDX-License-Identifier: Apache-2.0 */

/* ks_crypto.h: cryptography on keys that stay in the keystore. The caller names a stored secret (or a PAC, where it
 * says so) and gives data; the keystore computes and sends back nothing but the outcome. */
#ifndef KS_CRYPTO_H
#define KS_CRYPTO_H

#include "ks_types.h"

/* The records of the requests. Lengths are in bytes, offsets count from the descriptor's first byte, and both are in
 * the processor's own byte order. Reserved bytes are not written; the service ignores them. */

/* For every operation here: KS_FAILURE is a failed exchange, or a reply whose data has not the length that was asked
 * for (ks_NewPasswordEncryptedWithOldNtPasswordHash takes any). Whether the name exists (KS_NOT_FOUND) and its key
 * suits (KS_BAD_KEY, KS_KEY_LEN_UNSUPPORTED) only the service knows: its answer comes back unchanged. The `_resp`
 * functions do not read `payload_size`. */

/* The most bytes of data that DES, digests and HMACs take in one call. AES takes what 16 bits count. The limit is the
 * library's: the keystore daemon computes over what 16 bits count in all of them. */
#define KS_DATA_MAX 1024

/* --- DES and 3DES, ECB mode */

/* KsDesDescriptor describes a DES or 3DES request: a name and the data. */
typedef KsNameDataDescriptor KsDesDescriptor;

/* ks_des_ecb_encrypt encrypts `input_len` bytes of `input` into `output` with single DES under the secret `name`, a key
 * of 8 bytes. `input_len` is a multiple of 8 from 8 to 1024. `output_len` is the size of `output` and must equal
 * `input_len`: a larger buffer is refused too.
 *
 * KS_INVALID_ARGS: a pointer is NULL, or a length is none of these. KS_BAD_KEY: the secret is of another size.
 * NOTE: each call prints its whole request (descriptor, wire name and plaintext) to standard error, each byte as
 * "%2x ", with no newline, before it is sent. Its three siblings don't.
 * NOTE: the check of the name looks at the low 8 bits of its length only, while all of it (up to 65,535 bytes) is
 * copied into a buffer for 31. Names of 257 to 287 bytes and the like pass the check and damage the heap: keep to 31.
 * So do the three siblings. */
KS_EXPORT KsResult ks_des_ecb_encrypt(const char *name, const uint8_t *input, uint16_t input_len, uint8_t *output,
                                      uint16_t output_len);

/* ks_des_ecb_decrypt decrypts likewise, and prints nothing. */
KS_EXPORT KsResult ks_des_ecb_decrypt(const char *name, const uint8_t *input, uint16_t input_len, uint8_t *output,
                                      uint16_t output_len);

/* ks_3des_ecb_encrypt encrypts likewise with 3DES, and prints nothing. The key is of 24 bytes; or of 16, whose first 8
 * are the third part, too. */
KS_EXPORT KsResult ks_3des_ecb_encrypt(const char *name, const uint8_t *input, uint16_t input_len, uint8_t *output,
                                       uint16_t output_len);

/* ks_3des_ecb_decrypt decrypts likewise with 3DES, and prints nothing. The key is as in ks_3des_ecb_encrypt. */
KS_EXPORT KsResult ks_3des_ecb_decrypt(const char *name, const uint8_t *input, uint16_t input_len, uint8_t *output,
                                       uint16_t output_len);

/* ks_des_req builds the request of all four: allocates the wire name, fills the two entries of `sections` (name, data)
 * and `descriptor`. The caller frees the name through `sections[0]`. It checks nothing.
 *
 * KS_NO_MEMORY: the name can't be allocated; nothing is written. */
KS_EXPORT KsResult ks_des_req(const char *name, const uint8_t *input, uint16_t input_len, KsSection *sections,
                              KsDesDescriptor *descriptor);

/* ks_des_resp reads the reply of all four: copies its data to `output` and returns its result.
 *
 * KS_FAILURE: the data is not `expected_len` long; nothing is written. */
KS_EXPORT KsResult ks_des_resp(uint16_t payload_size, const void *payload, uint8_t *output, uint16_t expected_len);

/* --- AES, ECB and CBC mode */

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

/* ks_aes_encrypt encrypts `len` bytes of `input` into `output` (as long) with AES in ECB mode under the secret `name`,
 * a key of 16, 24 or 32 bytes. `len` is a multiple of 16; there is no upper bound but its 16 bits.
 *
 * KS_INVALID_ARGS: a pointer is NULL, the name is not 1 to 31 bytes, or `len` is no multiple of 16.
 * KS_KEY_LEN_UNSUPPORTED: the secret is of another size.
 * NOTE: a `len` of 0 is sent like any other; the CBC operations refuse it. The output stands before the length here,
 * and behind it in the CBC operations. */
KS_EXPORT KsResult ks_aes_encrypt(const char *name, const uint8_t *input, uint8_t *output, uint16_t len);

/* ks_aes_decrypt decrypts likewise. */
KS_EXPORT KsResult ks_aes_decrypt(const char *name, const uint8_t *input, uint8_t *output, uint16_t len);

/* ks_aes_encrypt_req builds a request: allocates the wire name, fills the two entries of `sections` (name, data) and
 * `descriptor`. The caller frees the name through `sections[0]`. It checks nothing.
 *
 * KS_NO_MEMORY: the name can't be allocated; nothing is written.
 * NOTE: the low 8 bits of the name's length are copied into a buffer for 31. A name whose low 8 bits say 32 to 255
 * damages the heap; one of 257 bytes is taken by its first. */
KS_EXPORT KsResult ks_aes_encrypt_req(const char *name, const uint8_t *input, uint16_t len, KsSection *sections,
                                      KsAesDescriptor *descriptor);

/* ks_aes_decrypt_req builds the same request: the direction lies in the opcode alone. */
KS_EXPORT KsResult ks_aes_decrypt_req(const char *name, const uint8_t *input, uint16_t len, KsSection *sections,
                                      KsAesDescriptor *descriptor);

/* ks_aes_encrypt_resp reads a reply: copies its data to `output` and returns its result.
 *
 * KS_FAILURE: the data is not `expected_len` long; nothing is written. */
KS_EXPORT KsResult ks_aes_encrypt_resp(uint16_t payload_size, const void *payload, uint8_t *output,
                                       uint16_t expected_len);

/* ks_aes_decrypt_resp does the same. */
KS_EXPORT KsResult ks_aes_decrypt_resp(uint16_t payload_size, const void *payload, uint8_t *output,
                                       uint16_t expected_len);

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

/* KsAesCbcReply is what a reply to such a request begins with, at any alignment. The data follows it: as many bytes as
 * `total_len` says without the IV. */
typedef struct {
  KsResult result;
  uint16_t total_len; /* 16 more than the data's length */
  uint8_t iv[16];     /* to chain with */
} __attribute__((packed)) KsAesCbcReply;

KS_STATIC_ASSERT(sizeof(KsAesCbcReply) == 22);
KS_STATIC_ASSERT(offsetof(KsAesCbcReply, total_len) == 4);
KS_STATIC_ASSERT(offsetof(KsAesCbcReply, iv) == 6);

/* ks_aes_cbc_encrypt encrypts `len` bytes of `input` into `output` (as long) with AES in CBC mode under the secret
 * `name`, a key of 16, 24 or 32 bytes. `iv` is 16 bytes, in and out: on success it holds the value to chain with, so
 * that a long text is encrypted by passing the same buffer from call to call. After a failure it is unchanged and the
 * call may be repeated. `len` is a multiple of 16 and not 0.
 *
 * KS_INVALID_ARGS: a pointer is NULL, the name is refused, or `len` is none of these. KS_KEY_LEN_UNSUPPORTED: the
 * secret is of another size.
 * NOTE: the low 8 bits of the name's length decide: of a name of 257 to 287 bytes only the first 1 to 31 are used.
 * ks_aes_cbc_decrypt refuses such a name.
 * NOTE: a reply counts the IV in its 16 bits of length, so a `len` above 65,504 can't be answered: the keystore daemon
 * refuses it with KS_RPC_TOO_LARGE.
 * NOTE: where `output` and `iv` overlap, the data is written last. */
KS_EXPORT KsResult ks_aes_cbc_encrypt(const char *name, uint8_t *iv, const uint8_t *input, uint16_t len,
                                      uint8_t *output);

/* ks_aes_cbc_decrypt decrypts likewise.
 *
 * KS_INVALID_ARGS: as there, and a name that is not 1 to 31 bytes.
 * NOTE: where `output` and `iv` overlap, the IV is written last. */
KS_EXPORT KsResult ks_aes_cbc_decrypt(const char *name, uint8_t *iv, const uint8_t *input, uint16_t len,
                                      uint8_t *output);

/* ks_aes_cbc_encrypt_req builds a request: allocates the wire name, fills the three entries of `sections` (name, IV,
 * data) and `descriptor`. The caller frees the name through `sections[0]`. It checks nothing.
 *
 * KS_NO_MEMORY: the name can't be allocated; nothing is written.
 * NOTE: a name whose low 8 bits of length say 32 to 255 damages the heap, as in ks_aes_encrypt_req. */
KS_EXPORT KsResult ks_aes_cbc_encrypt_req(const char *name, const uint8_t *iv, const uint8_t *input, uint16_t len,
                                          KsSection *sections, KsAesCbcDescriptor *descriptor);

/* ks_aes_cbc_decrypt_req builds the same request: the direction lies in the opcode alone. */
KS_EXPORT KsResult ks_aes_cbc_decrypt_req(const char *name, const uint8_t *iv, const uint8_t *input, uint16_t len,
                                          KsSection *sections, KsAesCbcDescriptor *descriptor);

/* ks_aes_cbc_encrypt_resp reads a reply: copies its first 16 bytes to `iv`, then the rest to `output`, and returns its
 * result.
 *
 * KS_FAILURE: the data without the IV is not `expected_len` long; nothing is written. */
KS_EXPORT KsResult ks_aes_cbc_encrypt_resp(uint16_t payload_size, const void *payload, uint8_t *output, uint8_t *iv,
                                           uint16_t expected_len);

/* ks_aes_cbc_decrypt_resp does the same in the other order: `output` first, then `iv`. */
KS_EXPORT KsResult ks_aes_cbc_decrypt_resp(uint16_t payload_size, const void *payload, uint8_t *output, uint8_t *iv,
                                           uint16_t expected_len);

/* --- Digests and HMACs */

#define KS_MD5_SIZE 16  /* bytes of an MD5 digest or HMAC */
#define KS_SHA1_SIZE 20 /* bytes of a SHA-1 digest or HMAC */

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

/* ks_md5_hash writes to `output` (16 bytes) the MD5 digest over two pieces of data with the secret `name` taking part;
 * the keystore daemon digests first piece, secret, second piece. One piece may be absent, its length 0. The lengths
 * come to KS_DATA_MAX at most.
 *
 * KS_INVALID_ARGS: the name is not 1 to 31 bytes, both pieces are absent, they are too long, or `output` is NULL.
 * NOTE: RADIUS packets may have 4,096 bytes (RFC 2865, section 3). Keep them to KS_DATA_MAX by short EAP fragments
 * (Framed-MTU); or run the exchange with ks_hash_md5_sha1_req, which isn't held to it. So it is with their
 * Message-Authenticator, ks_hmac_md5 and ks_hmac_md5_sha1_req.
 * NOTE: one present piece is enough and the other isn't looked at: a NULL pointer with a length other than 0 goes to
 * the message service as it is.
 * NOTE: once the request is built, the wire name (the name's length plus 4 bytes) stays allocated, whatever comes of
 * the exchange. A call that is refused, or ends without memory, leaves nothing. */
KS_EXPORT KsResult ks_md5_hash(const char *name, const uint8_t *first, uint16_t first_len, const uint8_t *second,
                               uint16_t second_len, uint8_t *output);

/* ks_sha1_hash does the same with SHA-1; `output` is 20 bytes.
 *
 * NOTE: the wire name stays allocated as there. When it can't be allocated, the request goes out all the same, with an
 * empty section list and a descriptor of arbitrary content; the service's answer to that is the result. ks_md5_hash
 * gives KS_NO_MEMORY. */
KS_EXPORT KsResult ks_sha1_hash(const char *name, const uint8_t *first, uint16_t first_len, const uint8_t *second,
                                uint16_t second_len, uint8_t *output);

/* ks_hash_md5_sha1_req builds the request of both: allocates the wire name in exactly its own length, fills the three
 * entries of `sections` (name, first piece, second piece) and `descriptor`. The caller frees the name through
 * `sections[0]`. It checks nothing and takes the low 8 bits of the name's length.
 *
 * KS_NO_MEMORY: the name can't be allocated; nothing is written. */
KS_EXPORT KsResult ks_hash_md5_sha1_req(const char *name, const uint8_t *first, uint16_t first_len,
                                        const uint8_t *second, uint16_t second_len, KsSection *sections,
                                        KsHashDescriptor *descriptor);

/* ks_hash_md5_sha1_resp reads the reply of both: copies the digest to `output` and returns the reply's result.
 *
 * KS_FAILURE: the data is not `expected_len` long; nothing is written. */
KS_EXPORT KsResult ks_hash_md5_sha1_resp(uint16_t payload_size, const void *payload, uint8_t *output,
                                         uint16_t expected_len);

/* KsHmacDescriptor describes an HMAC request: a name, of a secret or a PAC, and the data. */
typedef KsNameDataDescriptor KsHmacDescriptor;

/* ks_hmac_md5 writes to `output` (16 bytes) the HMAC-MD5 of `len` bytes of `data`, 1 to 1,024, under the secret `name`.
 *
 * KS_INVALID_ARGS: the name is not 1 to 31 bytes, a pointer is NULL, or `len` is 0 or above 1,024.
 * NOTE: the wire name (35 bytes) stays allocated when the request can't be sent. */
KS_EXPORT KsResult ks_hmac_md5(const char *name, const uint8_t *data, uint16_t len, uint8_t *output);

/* ks_hmac_sha1 does the same with SHA-1 and leaves nothing allocated; `output` is 20 bytes. */
KS_EXPORT KsResult ks_hmac_sha1(const char *name, const uint8_t *data, uint16_t len, uint8_t *output);

/* ks_hmac_sha1_for_pac is ks_hmac_sha1 with the key of the PAC whose A-ID is the `aid_len` bytes (1 to 31, of any
 * value) at `aid`. It always asks the keystore, never the PAC cache. */
KS_EXPORT KsResult ks_hmac_sha1_for_pac(const uint8_t *aid, uint8_t aid_len, const uint8_t *data, uint16_t len,
                                        uint8_t *output);

/* ks_hmac_md5_sha1_req builds the request of the three: allocates the wire name, fills the two entries of `sections`
 * (name, data) and `descriptor`. The name's tag is the low 8 bits of `tag`: KS_NAME_TAG_SECRET or KS_NAME_TAG_PAC. The
 * caller frees the name through `sections[0]`. It checks nothing; `name_len` above 31 damages the heap.
 *
 * KS_NO_MEMORY: the name can't be allocated; nothing is written. */
KS_EXPORT KsResult ks_hmac_md5_sha1_req(const void *name, uint8_t name_len, const uint8_t *data, uint16_t len,
                                        uint32_t tag, KsSection *sections, KsHmacDescriptor *descriptor);

/* ks_hmac_md5_sha1_resp reads the reply of the three: copies the HMAC to `output` and returns the reply's result.
 *
 * KS_FAILURE: the data is not `expected_len` long; nothing is written. */
KS_EXPORT KsResult ks_hmac_md5_sha1_resp(uint16_t payload_size, const void *payload, uint8_t *output,
                                         uint16_t expected_len);

/* --- MS-CHAP version 2 (RFC 2759) and its master key (RFC 3079): the name of a stored password stands where the
 * standards have the password. Passwords are UTF-8, which the keystore daemon turns into the standards' UTF-16: of 256
 * units at most, a character beyond U+FFFF being two. A stored secret that is no such password is KS_BAD_KEY. The
 * `_req` functions check nothing, copy a name by the low 16 bits of its length into a buffer for 31, and leave it for
 * the caller to free through its section. */

#define KS_CHALLENGE_SIZE 16
#define KS_NT_RESPONSE_SIZE 24
#define KS_AUTHENTICATOR_RESPONSE_SIZE 42
#define KS_PASSWORD_HASH_SIZE 16
#define KS_MASTER_KEY_SIZE 16
#define KS_NEW_PASSWORD_MAX 256

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

/* ks_GenerateNTResponse writes to `output` (24 bytes) the NT response of the password `name` to the two challenges of
 * 16 bytes. `user_name` is a NUL-terminated text and may be empty. The password is UTF-8, of 256 characters at most.
 *
 * KS_INVALID_ARGS: a pointer is NULL, or the name is not 1 to 31 bytes. KS_BAD_KEY: the secret is no such password.
 * NOTE: the user name's length is taken modulo 256: one of 256 bytes goes out empty, one of 300 as its first 44. */
KS_EXPORT KsResult ks_GenerateNTResponse(const char *name, const uint8_t *authenticator_challenge,
                                         const uint8_t *peer_challenge, const char *user_name, uint8_t *output);

/* ks_GenerateNTResponse_req fills the four entries of `sections` (name, authenticator challenge, peer challenge, user
 * name) and `descriptor`, with `reply_len` (24) as the length that the reply is to have.
 *
 * KS_NO_MEMORY: the name can't be allocated; nothing is written. */
KS_EXPORT KsResult ks_GenerateNTResponse_req(const char *name, const uint8_t *authenticator_challenge,
                                             const uint8_t *peer_challenge, const char *user_name, uint16_t reply_len,
                                             KsSection *sections, KsNtResponseDescriptor *descriptor);

/* ks_GenerateNTResponse_resp reads a reply: copies its data to `output` and returns its result.
 *
 * KS_FAILURE: the data is not `expected_len` long; nothing is written. */
KS_EXPORT KsResult ks_GenerateNTResponse_resp(uint16_t payload_size, const void *payload, uint8_t *output,
                                              uint16_t expected_len);

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

/* ks_GenerateAuthenticatorResponse writes to `output` (42 bytes, no NUL) the authenticator's answer that proves that it
 * knows the password `name`, to an NT response of 24 bytes. Password and `user_name` are as in ks_GenerateNTResponse.
 *
 * KS_INVALID_ARGS: a pointer is NULL, or the name is not 1 to 31 bytes.
 * NOTE: the arguments have the standard's order, with the peer challenge before the authenticator challenge; in
 * ks_GenerateNTResponse it is the other way round. */
KS_EXPORT KsResult ks_GenerateAuthenticatorResponse(const char *name, const uint8_t *nt_response,
                                                    const uint8_t *peer_challenge,
                                                    const uint8_t *authenticator_challenge, const char *user_name,
                                                    uint8_t *output);

/* ks_GenerateNTAuthenticatorResponse_req builds the request of ks_GenerateAuthenticatorResponse, whose name lacks the
 * NT. It fills the five entries of `sections` (name, authenticator challenge, peer challenge, user name, NT response)
 * and `descriptor`, with `reply_len` (42) as the length that the reply is to have.
 *
 * KS_NO_MEMORY: the name can't be allocated; nothing is written. */
KS_EXPORT KsResult ks_GenerateNTAuthenticatorResponse_req(const char *name, const uint8_t *nt_response,
                                                          const uint8_t *peer_challenge,
                                                          const uint8_t *authenticator_challenge, const char *user_name,
                                                          uint16_t reply_len, KsSection *sections,
                                                          KsAuthenticatorResponseDescriptor *descriptor);

/* ks_GenerateNTAuthenticatorResponse_resp reads a reply: copies its data to `output` and returns its result.
 *
 * KS_FAILURE: the data is not `expected_len` long; nothing is written. */
KS_EXPORT KsResult ks_GenerateNTAuthenticatorResponse_resp(uint16_t payload_size, const void *payload, uint8_t *output,
                                                           uint16_t expected_len);

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

/* ks_NewPasswordEncryptedWithOldNtPasswordHash encrypts a new password of `new_password_len` bytes, 1 to 256, under the
 * hash of the old password `name`. `output` receives the encrypted block, 516 bytes as RFC 2759 has it. Both passwords
 * are as in ks_GenerateNTResponse.
 *
 * KS_INVALID_ARGS: the name is not 1 to 31 bytes, a pointer is NULL, or the length is 0 or above 256; from the service:
 * the new password is no UTF-8.
 * NOTE: `output` receives as many bytes as the reply says it has, unchecked: up to 65,535. */
KS_EXPORT KsResult ks_NewPasswordEncryptedWithOldNtPasswordHash(const char *name, const uint8_t *new_password,
                                                                uint16_t new_password_len, uint8_t *output);

/* ks_NewPasswordEncryptedWithOldNtPasswordHash_req fills the two entries of `sections` (name, new password) and
 * `descriptor`, which holds the low 8 bits of the password's length; its section has all of it.
 *
 * KS_NO_MEMORY: the name can't be allocated; nothing is written. */
KS_EXPORT KsResult ks_NewPasswordEncryptedWithOldNtPasswordHash_req(const char *name, const uint8_t *new_password,
                                                                    uint16_t new_password_len, KsSection *sections,
                                                                    KsNewPasswordDescriptor *descriptor);

/* ks_NewPasswordEncryptedWithOldNtPasswordHash_resp reads a reply: copies its data, however long, to `output` and
 * returns its result. */
KS_EXPORT KsResult ks_NewPasswordEncryptedWithOldNtPasswordHash_resp(uint16_t payload_size, const void *payload,
                                                                     uint8_t *output);

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

/* ks_OldNtPasswordHashEncryptedWithNewNtPasswordHash writes to `output` (16 bytes) the hash of the stored old password
 * encrypted under the hash of the stored new one. The new password's name stands first, as in the standard; both may be
 * the same. Both are as in ks_GenerateNTResponse.
 *
 * KS_INVALID_ARGS: a pointer is NULL, or a name is not 1 to 31 bytes.
 * NOTE: when a wire name can't be allocated, the answer is KS_FAILURE, not KS_NO_MEMORY as in every sibling. */
KS_EXPORT KsResult ks_OldNtPasswordHashEncryptedWithNewNtPasswordHash(const char *new_name, const char *old_name,
                                                                      uint8_t *output);

/* ks_OldNtPasswordHashEncryptedWithNewNtPasswordHash_req fills the two entries of `sections`, a name each, and
 * `descriptor`. The caller frees both names.
 *
 * KS_NO_MEMORY: a name can't be allocated; nothing is left allocated or written. */
KS_EXPORT KsResult ks_OldNtPasswordHashEncryptedWithNewNtPasswordHash_req(const char *new_name, const char *old_name,
                                                                          KsSection *sections,
                                                                          KsOldHashDescriptor *descriptor);

/* ks_OldNtPasswordHashEncryptedWithNewNtPasswordHash_resp reads a reply: copies its data to `output` and returns its
 * result. The operation itself uses ks_GenerateNTAuthenticatorResponse_resp, which does the same.
 *
 * KS_FAILURE: the data is not `expected_len` long; nothing is written. */
KS_EXPORT KsResult ks_OldNtPasswordHashEncryptedWithNewNtPasswordHash_resp(uint16_t payload_size, const void *payload,
                                                                           uint8_t *output, uint16_t expected_len);

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

/* ks_GetMasterKey writes to `output` (16 bytes) the master key that MPPE derives its session keys from, of the password
 * `name`, which is as in ks_GenerateNTResponse, and an NT response of 24 bytes.
 *
 * KS_INVALID_ARGS: a pointer is NULL, or the name is not 1 to 31 bytes. */
KS_EXPORT KsResult ks_GetMasterKey(const char *name, const uint8_t *nt_response, uint8_t *output);

/* ks_GetMasterKey_req fills the two entries of `sections` (name, NT response) and `descriptor`.
 *
 * KS_NO_MEMORY: the name can't be allocated; nothing is written. */
KS_EXPORT KsResult ks_GetMasterKey_req(const char *name, const uint8_t *nt_response, KsSection *sections,
                                       KsMasterKeyDescriptor *descriptor);

/* ks_GetMasterKey_resp reads a reply: copies its data to `output` and returns its result.
 *
 * KS_FAILURE: the data is not `expected_len` long; nothing is written. */
KS_EXPORT KsResult ks_GetMasterKey_resp(uint16_t payload_size, const void *payload, uint8_t *output,
                                        uint16_t expected_len);

#endif
