// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// openssl.h: the same algorithms by an independent implementation, for comparison in tests only.
#ifndef TESTS_SERVICE_HANDLERS_OPENSSL_H
#define TESTS_SERVICE_HANDLERS_OPENSSL_H

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/provider.h>

#include <memory>

#include "published_vectors.h"

namespace openssl {

using published::ByteString;

// MD4, DES and RC4 come from the legacy provider.
inline void load_providers() {
  static OSSL_PROVIDER *const legacy = OSSL_PROVIDER_load(nullptr, "legacy");
  static OSSL_PROVIDER *const standard = OSSL_PROVIDER_load(nullptr, "default");
  ASSERT_TRUE(legacy && standard) << "OpenSSL has no legacy provider here; install Debian's libssl3";
}

enum class Direction { kDecrypt = 0, kEncrypt = 1 };

inline ByteString cipher(const char *name, Direction direction, const ByteString &key, const ByteString &iv,
                         const ByteString &data) {
  load_providers();
  const std::unique_ptr<EVP_CIPHER, void (*)(EVP_CIPHER *)> algorithm(EVP_CIPHER_fetch(nullptr, name, nullptr),
                                                                      EVP_CIPHER_free);
  const std::unique_ptr<EVP_CIPHER_CTX, void (*)(EVP_CIPHER_CTX *)> context(EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
  ByteString out(data.size() + 32);
  int length = 0;
  EXPECT_TRUE(algorithm) << name;
  EXPECT_EQ(
      EVP_CipherInit_ex2(context.get(), algorithm.get(), key.data(), iv.data(), static_cast<int>(direction), nullptr),
      1);
  EVP_CIPHER_CTX_set_padding(context.get(), 0);
  EXPECT_EQ(EVP_CipherUpdate(context.get(), out.data(), &length, data.data(), static_cast<int>(data.size())), 1);
  EXPECT_EQ(static_cast<size_t>(length), data.size());
  out.resize(data.size());
  return out;
}

inline ByteString digest(const char *name, const ByteString &data) {
  load_providers();
  ByteString out(EVP_MAX_MD_SIZE);
  size_t length = 0;
  EXPECT_EQ(EVP_Q_digest(nullptr, name, nullptr, data.data(), data.size(), out.data(), &length), 1) << name;
  out.resize(length);
  return out;
}

inline ByteString hmac(const char *digest_name, const ByteString &key, const ByteString &data) {
  ByteString out(EVP_MAX_MD_SIZE);
  size_t length = 0;
  EXPECT_NE(EVP_Q_mac(nullptr, "HMAC", nullptr, digest_name, nullptr, key.data(), key.size(), data.data(), data.size(),
                      out.data(), out.size(), &length),
            nullptr);
  out.resize(length);
  return out;
}

}  // namespace openssl

#endif
