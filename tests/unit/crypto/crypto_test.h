// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// crypto_test.h: what the tests of the cryptographic operations share.
#ifndef TESTS_UNIT_CRYPTO_CRYPTO_TEST_H
#define TESTS_UNIT_CRYPTO_CRYPTO_TEST_H

#include "scripted.h"

// raw gives a record's bytes, to be compared with bytes that are spelt out.
template <typename Record>
scripted::Bytes raw(const Record &record) {
  const auto *at = reinterpret_cast<const uint8_t *>(&record);
  return scripted::Bytes(at, at + sizeof record);
}

// unwrite fills a record as the caller's stack might; what a builder leaves alone stays 0xa5.
template <typename Record>
void unwrite(Record &record) {
  std::memset(static_cast<void *>(&record), 0xa5, sizeof record);
}

inline std::string name_of(size_t len) {
  return std::string(len, 'k');
}

// Forbidden is an argument that no check may read: any touch ends the test program.
class Forbidden : public scripted::Guarded {
 public:
  Forbidden() : Guarded(scripted::Bytes(16)) { forbid(); }
  const char *text() { return reinterpret_cast<const char *>(data()); }
};

#endif
