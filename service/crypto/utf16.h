// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// utf16.h: from UTF-8, in which passwords are stored and sent, to the UTF-16LE that MS-CHAP hashes and encrypts.
#ifndef SERVICE_CRYPTO_UTF16_H
#define SERVICE_CRYPTO_UTF16_H

#include <optional>

#include "base/bytes.h"

namespace ksd::crypto {

// utf16_size gives the size in bytes of `utf8` as UTF-16, or nothing when it is no well-formed UTF-8: an overlong form,
// a surrogate, a code point above 10ffff or a piece of one are refused, so that a password has one hash only.
std::optional<size_t> utf16_size(Bytes utf8);

// to_utf16le writes the utf16_size bytes of a well-formed `utf8` to `out`.
void to_utf16le(Bytes utf8, uint8_t *out);

}  // namespace ksd::crypto

#endif
