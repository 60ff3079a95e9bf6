// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// catalog.h: every message to the keystore service, and all about it that is a value. The operations compose the shared
// stages of exchange.h and request.h around a row of this table.
#ifndef TRANSPORT_CATALOG_H
#define TRANSPORT_CATALOG_H

#include "ks_api.h"
#include "transport/reply.h"

namespace ks {

// Wording is the family of texts in which an operation reports a failed exchange, named by what stands between "failed"
// and the error number. exchange.cc has the texts.
enum class Wording : uint8_t {
  kColon,             // "failed : 17"
  kFullStop,          // "failed. Error:17"
  kFullStopUnspaced,  // "failed.Error:17 " of a send, "failed. Error:17 " of a receive
  kErrno,             // "failed. Errno :17 "
  kSendOnly,          // "failed :17 " of a send; a failed receive is silent
  kFullStopColon,     // "failed. Error :17 "
  kNoFullStop,        // "failed Error :17 "
};

// MessageValues is one row: a message as one operation sends it.
struct MessageValues {
  uint32_t op;
  uint8_t sections = 0;     // entries of the section list; an operation with optional ones adds those
  uint16_t reply_size = 0;  // what the operation expects and reports otherwise; 0: it doesn't look
  KsResult send_failure = KS_FAILURE;
  KsResult recv_failure = KS_FAILURE;
  Wording wording = Wording::kColon;
  bool asks_size = true;             // whether mts_payload_size is called
  bool drops_after_release = false;  // on a failed receive: the sent message goes after the buffers, not before
};

// Message is a row with the record that its requests begin with: no other can be sent with it.
template <typename Descriptor>
struct Message : MessageValues {};

struct NoDescriptor {};

// Device services.
inline constexpr Message<KsRandomDescriptor> kGenerateRandom{{.op = KS_OP_GENERATE_RANDOM}};
inline constexpr Message<NoDescriptor> kFwVersionStatus{{.op = KS_OP_FW_VERSION_STATUS}};
inline constexpr Message<NoDescriptor> kCompactFwMemory{{.op = KS_OP_COMPACT_FW_MEMORY}};

// Secret store.
inline constexpr Message<KsStoreDescriptor> kStoreSecret{
    {.op = KS_OP_STORE_SECRET, .sections = 2, .wording = Wording::kSendOnly}};
inline constexpr Message<KsNameDataDescriptor> kAddMetadata{{.op = KS_OP_ADD_METADATA,
                                                             .sections = 2,
                                                             .reply_size = sizeof(KsResult),
                                                             .send_failure = KS_FW_COMM_ERROR,
                                                             .recv_failure = KS_FW_COMM_ERROR,
                                                             .wording = Wording::kErrno}};
inline constexpr Message<KsNameDescriptor> kReturnMetadata{
    {.op = KS_OP_RETURN_METADATA,
     .sections = 1,
     .wording = Wording::kFullStopUnspaced,
     // DIFFERS(return-metadata-late-drop): every other operation drops the sent message before its buffers are freed.
     // Levelled, the message service would see the drop in front of the two frees.
     .drops_after_release = true}};
inline constexpr Message<KsIndexDescriptor> kSecretByIndex{{.op = KS_OP_HANDLE_BY_INDEX,
                                                            .send_failure = KS_FW_COMM_ERROR,
                                                            .recv_failure = KS_FW_COMM_ERROR,
                                                            .wording = Wording::kFullStopColon}};
inline constexpr Message<KsNameDescriptor> kSecretExists{{.op = KS_OP_SECRET_EXISTS,
                                                          .sections = 1,
                                                          .send_failure = KS_FW_COMM_ERROR,
                                                          .recv_failure = KS_FW_COMM_ERROR,
                                                          .wording = Wording::kNoFullStop}};
inline constexpr Message<KsNameDescriptor> kClearSecret{{.op = KS_OP_CLEAR,
                                                         .sections = 1,
                                                         .reply_size = sizeof(ReplyHead),
                                                         .send_failure = KS_FW_COMM_ERROR,
                                                         .recv_failure = KS_FW_COMM_ERROR,
                                                         .wording = Wording::kNoFullStop}};
inline constexpr Message<KsRenameDescriptor> kRenameSecret{
    {.op = KS_OP_RENAME,
     .sections = 2,
     .wording = Wording::kFullStop,
     // DIFFERS(rename-no-size): the one operation that never asks for the reply's size. Levelled, the message service
     // would see one more call of mts_payload_size for each rename.
     .asks_size = false}};

// PAC store.
inline constexpr Message<KsStorePacDescriptor> kStorePac{
    {.op = KS_OP_STORE_PAC, .sections = 3, .wording = Wording::kFullStop}};
inline constexpr Message<KsNameDescriptor> kPacMetadata{
    {.op = KS_OP_RETURN_METADATA,
     .sections = 1,
     // DIFFERS(pac-read-send-failure): ks_return_metadata sends the same message and answers 2 for both failures.
     // Levelled, a PAC reader whose send failed would answer 2, as it does when the reply failed, and no longer 12.
     .send_failure = KS_FW_COMM_ERROR,
     .wording = Wording::kFullStop}};
inline constexpr Message<KsNameDescriptor> kPacExists{{.op = KS_OP_PAC_EXISTS,
                                                       .sections = 1,
                                                       .reply_size = sizeof(ReplyHead),
                                                       .send_failure = KS_FW_COMM_ERROR,
                                                       .recv_failure = KS_FW_COMM_ERROR,
                                                       .wording = Wording::kFullStop}};
// DIFFERS(aid-by-index-failure): kSecretByIndex is the same message with other codes and words. Levelled, a PAC walk
// whose exchange failed would answer 12 and report "failed. Error :17 ".
inline constexpr Message<KsIndexDescriptor> kAidByIndex{{.op = KS_OP_HANDLE_BY_INDEX, .wording = Wording::kFullStop}};
// DIFFERS(clear-pac-failure): kClearSecret is the same message with other codes and words. Levelled, a PAC that
// couldn't be cleared for a failed exchange would give 12 and the report "failed Error :17 ".
inline constexpr Message<KsNameDescriptor> kClearPac{
    {.op = KS_OP_CLEAR, .sections = 1, .reply_size = sizeof(ReplyHead), .wording = Wording::kFullStop}};
inline constexpr Message<KsPacKeyTPrfDescriptor> kPacKeyTPrf{{.op = KS_OP_PAC_KEY_T_PRF, .sections = 2}};

// Cryptographic operations.
inline constexpr Message<KsDesDescriptor> kDesEncrypt{{.op = KS_OP_DES_ENCRYPT, .sections = 2}};
inline constexpr Message<KsDesDescriptor> kDesDecrypt{{.op = KS_OP_DES_DECRYPT, .sections = 2}};
inline constexpr Message<KsDesDescriptor> k3desEncrypt{{.op = KS_OP_3DES_ENCRYPT, .sections = 2}};
inline constexpr Message<KsDesDescriptor> k3desDecrypt{{.op = KS_OP_3DES_DECRYPT, .sections = 2}};
inline constexpr Message<KsAesDescriptor> kAesEncrypt{{.op = KS_OP_AES_ENCRYPT, .sections = 2}};
inline constexpr Message<KsAesDescriptor> kAesDecrypt{{.op = KS_OP_AES_DECRYPT, .sections = 2}};
inline constexpr Message<KsAesCbcDescriptor> kAesCbcEncrypt{{.op = KS_OP_AES_CBC_ENCRYPT, .sections = 3}};
inline constexpr Message<KsAesCbcDescriptor> kAesCbcDecrypt{{.op = KS_OP_AES_CBC_DECRYPT, .sections = 3}};
inline constexpr Message<KsHashDescriptor> kMd5{{.op = KS_OP_MD5, .sections = 3}};
inline constexpr Message<KsHashDescriptor> kSha1{{.op = KS_OP_SHA1, .sections = 3}};
inline constexpr Message<KsHmacDescriptor> kHmacMd5{{.op = KS_OP_HMAC_MD5, .sections = 2}};
inline constexpr Message<KsHmacDescriptor> kHmacSha1{{.op = KS_OP_HMAC_SHA1, .sections = 2}};
inline constexpr Message<KsNtResponseDescriptor> kNtResponse{{.op = KS_OP_GENERATE_NT_RESPONSE, .sections = 4}};
inline constexpr Message<KsAuthenticatorResponseDescriptor> kAuthResponse{
    {.op = KS_OP_GENERATE_AUTH_RESPONSE, .sections = 5}};
inline constexpr Message<KsNewPasswordDescriptor> kNewPassword{{.op = KS_OP_NEW_PASSWORD_ENCRYPTED, .sections = 2}};
inline constexpr Message<KsOldHashDescriptor> kOldHash{{.op = KS_OP_OLD_HASH_ENCRYPTED, .sections = 2}};
inline constexpr Message<KsMasterKeyDescriptor> kMasterKey{{.op = KS_OP_GET_MASTER_KEY, .sections = 2}};

}  // namespace ks

#endif
