// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "messages.h"

#include <algorithm>

#include "host_wire.h"

namespace ksctl {
namespace {

constexpr Section kNameOnly[] = {{{0, 1}, {1, 1}, Shown::kName}};
constexpr Section kNameAndData[] = {{{0, 1}, {1, 1}, Shown::kName}, {{2, 2}, {4, 2}, Shown::kNever}};
constexpr Section kNameAndMetadata[] = {{{0, 1}, {1, 1}, Shown::kName}, {{2, 2}, {4, 2}, Shown::kMetadata}};
constexpr Section kNameAndWideData[] = {{{0, 1}, {1, 1}, Shown::kName}, {{2, 2}, {4, 4}, Shown::kNever}};
constexpr Section kNameIvData[] = {
    {{0, 1}, {1, 1}, Shown::kName}, {{2, 1}, {4, 2}, Shown::kNever}, {{6, 2}, {8, 4}, Shown::kNever}};
constexpr Section kTwoPieces[] = {
    {{0, 1}, {1, 1}, Shown::kName}, {{2, 2}, {4, 2}, Shown::kNever}, {{6, 2}, {8, 2}, Shown::kNever}};
constexpr Section kStoreSecret[] = {{{0, 1}, {1, 1}, Shown::kName},
                                    {{2, 1}, {3, 1}, Shown::kName},
                                    {{4, 2}, {6, 2}, Shown::kNever},
                                    {{8, 2}, {10, 2}, Shown::kMetadata}};
constexpr Section kRename[] = {
    {{0, 1}, {1, 1}, Shown::kName}, {{2, 1}, {3, 1}, Shown::kName}, {{4, 1}, {5, 1}, Shown::kName}};
constexpr Section kStorePac[] = {
    {{0, 1}, {1, 1}, Shown::kName}, {{4, 4}, {8, 4}, Shown::kNever}, {{12, 4}, {16, 4}, Shown::kMetadata}};
constexpr Section kTPrf[] = {
    {{2, 1}, {3, 1}, Shown::kName}, {{4, 2}, {8, 4}, Shown::kAlways}, {{12, 2}, {16, 4}, Shown::kNever}};
constexpr Section kNtResponse[] = {{{2, 1}, {3, 1}, Shown::kName},
                                   {{4, 1}, {8, 4}, Shown::kNever},
                                   {{12, 1}, {16, 4}, Shown::kNever},
                                   {{20, 1}, {24, 4}, Shown::kAlways}};
constexpr Section kAuthenticatorResponse[] = {{{2, 1}, {3, 1}, Shown::kName},
                                              {{4, 1}, {8, 4}, Shown::kNever},
                                              {{12, 1}, {16, 4}, Shown::kNever},
                                              {{20, 1}, {24, 4}, Shown::kAlways},
                                              {{28, 1}, {32, 4}, Shown::kNever}};
constexpr Section kNewPassword[] = {{{0, 1}, {1, 1}, Shown::kName}, {{2, 1}, {4, 4}, Shown::kNever}};
constexpr Section kTwoNames[] = {{{0, 1}, {1, 1}, Shown::kName}, {{2, 1}, {4, 4}, Shown::kName}};
constexpr Section kMasterKey[] = {{{0, 1}, {1, 1}, Shown::kName}, {{2, 1}, {4, 2}, Shown::kNever}};

// A random number may be made into a key, and a response or a digest lets a password be guessed: none of them is shown.
constexpr Message kMessages[] = {
    {HOST_OP_HELLO, "hello", 0, {}, Shown::kAlways, false},
    {HOST_OP_STATUS, "status", 0, {}, Shown::kAlways, false},
    {HOST_OP_CHANNEL, "channel", 4, {}, Shown::kAlways, false, {{0, 4}, {}}},
    {KS_OP_GENERATE_RANDOM, "generate random", 8, {}, Shown::kNever, true, {{0, 1}, {4, 4}}},
    {KS_OP_STORE_SECRET, "store secret", 12, kStoreSecret, Shown::kNever, false},
    {KS_OP_ADD_METADATA, "add metadata", 6, kNameAndMetadata, Shown::kNever, false},
    {KS_OP_CLEAR, "clear", 2, kNameOnly, Shown::kNever},
    {KS_OP_SECRET_EXISTS, "secret exists", 2, kNameOnly, Shown::kAlways},
    {KS_OP_HANDLE_BY_INDEX, "name by index", 2, {}, Shown::kName, true, {{0, 2}, {}}},
    {KS_OP_RETURN_METADATA, "return metadata", 2, kNameOnly, Shown::kMetadata},
    {KS_OP_RENAME, "rename", 6, kRename, Shown::kNever, false},
    {KS_OP_STORE_PAC, "store PAC", 20, kStorePac, Shown::kNever, false},
    {KS_OP_PAC_EXISTS, "PAC exists", 2, kNameOnly, Shown::kAlways},
    {KS_OP_PAC_KEY_T_PRF, "PAC key T-PRF", 20, kTPrf, Shown::kNever, true, {{0, 2}, {}}},
    {KS_OP_GENERATE_NT_RESPONSE, "generate NT response", 28, kNtResponse, Shown::kNever, true, {{0, 2}, {}}},
    {KS_OP_GENERATE_AUTH_RESPONSE,
     "generate authenticator response",
     36,
     kAuthenticatorResponse,
     Shown::kNever,
     true,
     {{0, 2}, {}}},
    {KS_OP_NEW_PASSWORD_ENCRYPTED, "new password encrypted", 8, kNewPassword, Shown::kNever},
    {KS_OP_OLD_HASH_ENCRYPTED, "old hash encrypted", 8, kTwoNames, Shown::kNever},
    {KS_OP_GET_MASTER_KEY, "get master key", 6, kMasterKey, Shown::kNever},
    {KS_OP_AES_ENCRYPT, "AES encrypt", 8, kNameAndWideData, Shown::kNever},
    {KS_OP_AES_DECRYPT, "AES decrypt", 8, kNameAndWideData, Shown::kNever},
    {KS_OP_AES_CBC_ENCRYPT, "AES CBC encrypt", 12, kNameIvData, Shown::kNever},
    {KS_OP_AES_CBC_DECRYPT, "AES CBC decrypt", 12, kNameIvData, Shown::kNever},
    {KS_OP_HMAC_MD5, "HMAC-MD5", 6, kNameAndData, Shown::kNever},
    {KS_OP_HMAC_SHA1, "HMAC-SHA1", 6, kNameAndData, Shown::kNever},
    {KS_OP_MD5, "MD5", 10, kTwoPieces, Shown::kNever},
    {KS_OP_SHA1, "SHA-1", 10, kTwoPieces, Shown::kNever},
    {KS_OP_DES_ENCRYPT, "DES encrypt", 6, kNameAndData, Shown::kNever},
    {KS_OP_DES_DECRYPT, "DES decrypt", 6, kNameAndData, Shown::kNever},
    {KS_OP_3DES_ENCRYPT, "3DES encrypt", 6, kNameAndData, Shown::kNever},
    {KS_OP_3DES_DECRYPT, "3DES decrypt", 6, kNameAndData, Shown::kNever},
    {KS_OP_FW_VERSION_STATUS, "firmware version and status", 0, {}, Shown::kAlways},
    {KS_OP_COMPACT_FW_MEMORY, "compact memory", 0, {}, Shown::kNever, false},
};

}  // namespace

const Message *message_of(uint32_t opcode) {
  const auto *const found = std::find_if(std::begin(kMessages), std::end(kMessages),
                                         [opcode](const Message &message) { return message.opcode == opcode; });
  return found == std::end(kMessages) ? nullptr : found;
}

std::string message_name(uint32_t opcode) {
  if (opcode == 0) return "message";
  const Message *message = message_of(opcode);
  return message != nullptr ? message->name : "message " + std::to_string(opcode);
}

}  // namespace ksctl
