// catalog.h: every message to the keystore service, and all about it that is a value. The operations compose the shared
// stages of exchange.h around a row of this table.
#ifndef TRANSPORT_CATALOG_H
#define TRANSPORT_CATALOG_H

#include "ks_types.h"

namespace ks {

// Wording is the family of texts in which an operation reports a failed exchange. Callers' log filters match them.
enum class Wording : uint8_t { kA, kB, kC, kD, kE, kF, kG };

struct SectionCount {
  uint8_t min = 0;
  uint8_t max = 0;
};

// Message is one row: a message as one operation sends it.
struct Message {
  uint32_t op;
  uint16_t descriptor_size = 0;
  SectionCount sections = {};
  KsResult send_failure = KS_FAILURE;
  KsResult recv_failure = KS_FAILURE;
  Wording wording = Wording::kA;
  bool asks_size = true;             // whether mts_payload_size is called
  bool drops_after_release = false;  // on a failed receive: the sent message goes after the buffers, not before
};

// Device services.
inline constexpr Message kGenerateRandom{.op = KS_OP_GENERATE_RANDOM, .descriptor_size = 8};
inline constexpr Message kFwVersionStatus{.op = KS_OP_FW_VERSION_STATUS};
inline constexpr Message kCompactFwMemory{.op = KS_OP_COMPACT_FW_MEMORY};

// Secret store.
inline constexpr Message kStoreSecret{
    .op = KS_OP_STORE_SECRET, .descriptor_size = 12, .sections = {2, 4}, .wording = Wording::kE};
inline constexpr Message kAddMetadata{.op = KS_OP_ADD_METADATA,
                                      .descriptor_size = 6,
                                      .sections = {2, 2},
                                      .send_failure = KS_FW_COMM_ERROR,
                                      .recv_failure = KS_FW_COMM_ERROR,
                                      .wording = Wording::kD};
inline constexpr Message kReturnMetadata{.op = KS_OP_RETURN_METADATA,
                                         .descriptor_size = 2,
                                         .sections = {1, 1},
                                         .wording = Wording::kC,
                                         // DIFFERS(return-metadata-late-drop): every other operation drops the sent
                                         // message first; here it stays until the buffers are freed.
                                         .drops_after_release = true};
inline constexpr Message kSecretByIndex{.op = KS_OP_HANDLE_BY_INDEX,
                                        .descriptor_size = 2,
                                        .send_failure = KS_FW_COMM_ERROR,
                                        .recv_failure = KS_FW_COMM_ERROR,
                                        .wording = Wording::kF};
inline constexpr Message kSecretExists{.op = KS_OP_SECRET_EXISTS,
                                       .descriptor_size = 2,
                                       .sections = {1, 1},
                                       .send_failure = KS_FW_COMM_ERROR,
                                       .recv_failure = KS_FW_COMM_ERROR,
                                       .wording = Wording::kG};
inline constexpr Message kClearSecret{.op = KS_OP_CLEAR,
                                      .descriptor_size = 2,
                                      .sections = {1, 1},
                                      .send_failure = KS_FW_COMM_ERROR,
                                      .recv_failure = KS_FW_COMM_ERROR,
                                      .wording = Wording::kG};
inline constexpr Message kRenameSecret{.op = KS_OP_RENAME,
                                       .descriptor_size = 6,
                                       .sections = {2, 3},
                                       .wording = Wording::kB,
                                       // DIFFERS(rename-no-size): the one operation that never asks for the reply's
                                       // size; a platform that accounts for calls relies on it.
                                       .asks_size = false};

// PAC store.
inline constexpr Message kStorePac{
    .op = KS_OP_STORE_PAC, .descriptor_size = 20, .sections = {3, 3}, .wording = Wording::kB};
inline constexpr Message kPacMetadata{.op = KS_OP_RETURN_METADATA,
                                      .descriptor_size = 2,
                                      .sections = {1, 1},
                                      // DIFFERS(pac-read-send-failure): PAC readers are promised 12 for a failed send
                                      // but 2 for a failed receive; ks_return_metadata answers 2 for both.
                                      .send_failure = KS_FW_COMM_ERROR,
                                      .wording = Wording::kB};
inline constexpr Message kPacExists{.op = KS_OP_PAC_EXISTS,
                                    .descriptor_size = 2,
                                    .sections = {1, 1},
                                    .send_failure = KS_FW_COMM_ERROR,
                                    .recv_failure = KS_FW_COMM_ERROR,
                                    .wording = Wording::kB};
// DIFFERS(aid-by-index-failure): same message as kSecretByIndex, but PAC walks are promised 2, in other words.
inline constexpr Message kAidByIndex{.op = KS_OP_HANDLE_BY_INDEX, .descriptor_size = 2, .wording = Wording::kB};
// DIFFERS(clear-pac-failure): same message as kClearSecret, but PAC callers are promised 2, in other words.
inline constexpr Message kClearPac{.op = KS_OP_CLEAR, .descriptor_size = 2, .sections = {1, 1}, .wording = Wording::kB};
inline constexpr Message kPacKeyTPrf{.op = KS_OP_PAC_KEY_T_PRF, .descriptor_size = 20, .sections = {2, 3}};

// Cryptographic operations.
inline constexpr Message kDesEncrypt{.op = KS_OP_DES_ENCRYPT, .descriptor_size = 6, .sections = {2, 2}};
inline constexpr Message kDesDecrypt{.op = KS_OP_DES_DECRYPT, .descriptor_size = 6, .sections = {2, 2}};
inline constexpr Message k3desEncrypt{.op = KS_OP_3DES_ENCRYPT, .descriptor_size = 6, .sections = {2, 2}};
inline constexpr Message k3desDecrypt{.op = KS_OP_3DES_DECRYPT, .descriptor_size = 6, .sections = {2, 2}};
inline constexpr Message kAesEncrypt{.op = KS_OP_AES_ENCRYPT, .descriptor_size = 8, .sections = {2, 2}};
inline constexpr Message kAesDecrypt{.op = KS_OP_AES_DECRYPT, .descriptor_size = 8, .sections = {2, 2}};
inline constexpr Message kAesCbcEncrypt{.op = KS_OP_AES_CBC_ENCRYPT, .descriptor_size = 12, .sections = {3, 3}};
inline constexpr Message kAesCbcDecrypt{.op = KS_OP_AES_CBC_DECRYPT, .descriptor_size = 12, .sections = {3, 3}};
inline constexpr Message kMd5{.op = KS_OP_MD5, .descriptor_size = 10, .sections = {3, 3}};
inline constexpr Message kSha1{.op = KS_OP_SHA1, .descriptor_size = 10, .sections = {3, 3}};
inline constexpr Message kHmacMd5{.op = KS_OP_HMAC_MD5, .descriptor_size = 6, .sections = {2, 2}};
inline constexpr Message kHmacSha1{.op = KS_OP_HMAC_SHA1, .descriptor_size = 6, .sections = {2, 2}};
inline constexpr Message kNtResponse{.op = KS_OP_GENERATE_NT_RESPONSE, .descriptor_size = 28, .sections = {4, 4}};
inline constexpr Message kAuthResponse{.op = KS_OP_GENERATE_AUTH_RESPONSE, .descriptor_size = 36, .sections = {5, 5}};
inline constexpr Message kNewPassword{.op = KS_OP_NEW_PASSWORD_ENCRYPTED, .descriptor_size = 8, .sections = {2, 2}};
inline constexpr Message kOldHash{.op = KS_OP_OLD_HASH_ENCRYPTED, .descriptor_size = 8, .sections = {2, 2}};
inline constexpr Message kMasterKey{.op = KS_OP_GET_MASTER_KEY, .descriptor_size = 6, .sections = {2, 2}};

}  // namespace ks

#endif
