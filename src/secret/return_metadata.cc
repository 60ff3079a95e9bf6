// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// ks_return_metadata: the block of metadata beside a secret. Its reader also serves the PAC operations.
//
//   descriptor  W | 2                                                  (2 bytes; W: length of the wire name)
//   sections    name
//   reply       result | length | metadata, believed to be as long as that
#include "secret/requests.h"

KsResult ks_return_metadata_req(const char *name, KsSection *section, KsNameDescriptor *descriptor) {
  return ks::build_name(name, section, descriptor);
}

KsResult ks_return_metadata_resp(uint16_t, const void *payload, uint8_t **metadata, uint16_t *metadata_len) {
  if (const KsResult result = ks::reply_result(payload); result != KS_SUCCESS) return result;
  return ks::copy_reply_data(payload, metadata, metadata_len);
}

KsResult ks_return_metadata(const char *name, uint8_t **metadata, uint16_t *metadata_len) {
  // DIFFERS(return-metadata-null-length): the length is the one output that isn't tested. Levelled, a null would be
  // KS_INVALID_ARGS, where it is sent and faults on a success.
  if (!ks::is_name(name) || metadata == nullptr) return ks::report_bad_arguments();

  ks::Request request(ks::kReturnMetadata);
  if (!request.has_list()) return ks::report_no_list();
  request.build(ks_return_metadata_req, name);
  request.exchange();
  return request.read(ks_return_metadata_resp, metadata, metadata_len);
}
