// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// ks_secret_exists: whether there is a secret of a name.
//
//   descriptor  W | 2                                                  (2 bytes; W: length of the wire name)
//   sections    name
//   reply       result | length, not read | flag, 8 bits
#include "secret/requests.h"

namespace {

KsResult read_flag(uint16_t, const void *payload, uint32_t *exists) {
  const KsResult result = ks::reply_result(payload);
  if (result == KS_SUCCESS) {
    *exists = *ks::reply_data(payload);  // as the service sends it, 0 and 1 or not
    return result;
  }
  if (result == KS_NOT_FOUND) {
    // DIFFERS(secret-missing-success): a missing PAC is KS_NOT_FOUND. Levelled, a secret that isn't there would give
    // KS_NOT_FOUND and leave `exists` as it was.
    *exists = 0;
    return KS_SUCCESS;
  }
  return result;
}

}  // namespace

KsResult ks_secret_exists_req(const char *name, KsSection *section, KsNameDescriptor *descriptor) {
  return ks::build_name(name, section, descriptor);
}

KsResult ks_secret_exists_resp(uint16_t payload_size, const void *payload, uint32_t *exists) {
  return read_flag(payload_size, payload, exists);
}

KsResult ks_secret_exists(const char *name, uint32_t *exists) {
  if (!ks::is_name(name) || exists == nullptr) return ks::report_bad_arguments();

  ks::Request request(ks::kSecretExists);
  if (!request.has_list()) return ks::report_no_list();
  request.build(ks::build_name, name);
  request.exchange();
  return request.read(read_flag, exists);
}
