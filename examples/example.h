// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// example.h: what the examples share: starting the library, giving up with a reason, and showing bytes.
#ifndef EXAMPLES_EXAMPLE_H
#define EXAMPLES_EXAMPLE_H

#include <host_mts.h>
#include <ks_api.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace example {

using Bytes = std::vector<uint8_t>;

// require gives up unless `result` is success, and says what was met where an exchange failed. (Not every platform
// tells that.)
inline void require(KsResult result, const char *what) {
  if (result == KS_SUCCESS) return;
  std::fprintf(stderr, "%s failed: %s (%u)\n", what, kserr2str(result), result);
  char why[512] = "";
  if (mts_last_error_get != nullptr) mts_last_error_get(why, sizeof why);
  if (why[0] != '\0') std::fprintf(stderr, "%s\n", why);
  std::exit(1);
}

// start starts the library.
inline void start() {
  require(ks_init(0, 0xe0a1, 0), "starting");
}

inline std::string hex(const uint8_t *bytes, size_t size) {
  std::string out;
  char digits[3];
  for (size_t i = 0; i < size; ++i) {
    std::snprintf(digits, sizeof digits, "%02x", bytes[i]);
    out += digits;
  }
  return out;
}

inline std::string hex(const Bytes &bytes) {
  return hex(bytes.data(), bytes.size());
}

inline Bytes from_hex(const std::string &digits) {
  Bytes out;
  for (size_t i = 0; i + 1 < digits.size(); i += 2) {
    out.push_back(static_cast<uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
  }
  return out;
}

inline Bytes of_text(const std::string &text) {
  return Bytes(text.begin(), text.end());
}

// compare shows a value, and gives up when it isn't the published one.
inline void compare(const char *what, const std::string &value, const std::string &published) {
  std::printf("  %s\n    %s\n", what, value.c_str());
  if (value != published) {
    std::printf("    NOT the published %s\n", published.c_str());
    std::exit(1);
  }
  std::puts("    equal to the published value");
}

// keep stores a secret under `name`.
inline void keep(const char *name, const Bytes &secret, const std::string &metadata = "") {
  require(ks_store_secret_and_metadata(name, nullptr, secret.data(), static_cast<uint16_t>(secret.size()),
                                       metadata.empty() ? nullptr : reinterpret_cast<const uint8_t *>(metadata.data()),
                                       static_cast<uint16_t>(metadata.size())),
          "storing a secret");
}

}  // namespace example

#endif
