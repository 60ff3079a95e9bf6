// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "engine/certificate.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <algorithm>
#include <memory>

namespace ksd::engine {

std::optional<std::time_t> end_of_certificates(const std::string &path) {
  const std::unique_ptr<BIO, int (*)(BIO *)> file(BIO_new_file(path.c_str(), "r"), BIO_free);
  if (!file) return std::nullopt;
  std::optional<std::time_t> end;
  while (true) {
    const std::unique_ptr<X509, void (*)(X509 *)> certificate(PEM_read_bio_X509(file.get(), nullptr, nullptr, nullptr),
                                                              X509_free);
    if (!certificate) break;
    std::tm parts{};
    if (ASN1_TIME_to_tm(X509_get0_notAfter(certificate.get()), &parts) != 1) continue;
    const std::time_t its_end = timegm(&parts);
    end = std::min(end.value_or(its_end), its_end);
  }
  ERR_clear_error();  // the end of the file is one
  return end;
}

}  // namespace ksd::engine
