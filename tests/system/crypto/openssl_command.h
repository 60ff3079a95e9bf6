// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// openssl_command.h: what the openssl command computes, for comparison. A command serves tests of both widths alike.
#ifndef TESTS_SYSTEM_CRYPTO_OPENSSL_COMMAND_H
#define TESTS_SYSTEM_CRYPTO_OPENSSL_COMMAND_H

#include <string>
#include <vector>

#include "published_vectors.h"

namespace openssl {

using published::ByteString;

std::string hex(const ByteString &bytes);

// encrypt and decrypt run a cipher without padding; `iv` is empty for ECB.
ByteString encrypt(const std::string &cipher, const ByteString &key, const ByteString &iv, const ByteString &data);
ByteString decrypt(const std::string &cipher, const ByteString &key, const ByteString &iv, const ByteString &data);

// digests gives the digest of each text, hmacs the HMAC. One command does them all.
std::vector<ByteString> digests(const std::string &digest, const std::vector<ByteString> &texts);
std::vector<ByteString> hmacs(const std::string &digest, const ByteString &key, const std::vector<ByteString> &texts);

}  // namespace openssl

#endif
