// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// certificate.h: until when certificates are good, which somebody has to be told before it is too late.
#ifndef SERVICE_ENGINE_CERTIFICATE_H
#define SERVICE_ENGINE_CERTIFICATE_H

#include <ctime>
#include <optional>
#include <string>

namespace ksd::engine {

// From when on somebody is told, in seconds before the end.
inline constexpr std::time_t kShortOfCertificates = std::time_t{14} * 24 * 3600;

// end_of_certificates gives when the first of the certificates in a file ends, in seconds since 1970. Nothing for a
// file that can't be read, or has none.
std::optional<std::time_t> end_of_certificates(const std::string &path);

}  // namespace ksd::engine

#endif
