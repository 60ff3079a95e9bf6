// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// ks_add_metadata: a block of metadata for a secret that is there.
//
//   descriptor  W | 6 | metadata length, 16 bits | its offset, 16 bits   (6 bytes; W: length of the wire name)
//   sections    name | metadata
//   reply       result, of 4 bytes as it is expected
#include "secret/requests.h"
#include "transport/trace.h"

namespace {

constexpr uint16_t kMaxMetadata = 1024;

}  // namespace

KsResult ks_add_metadata_req(const char *name, const uint8_t *metadata, uint16_t metadata_len, KsSection *sections,
                             KsNameDataDescriptor *descriptor) {
  if (!ks::place_secret(name, sections, descriptor)) return KS_NO_MEMORY;
  return ks::place_data(metadata, metadata_len, sections, descriptor);
}

KsResult ks_add_metadata_resp(uint16_t, const void *payload) {
  return ks::reply_result(payload);
}

KsResult ks_add_metadata(const char *name, const uint8_t *metadata, uint16_t metadata_len) {
  // DIFFERS(add-metadata-null-name): the siblings report a null name like any other fault. Levelled, there would be a
  // report of it.
  if (name == nullptr) return KS_INVALID_ARGS;
  // DIFFERS(add-metadata-limit): a store takes metadata of any length. Levelled, a block of 1,025 bytes would be sent.
  if (!ks::is_name(name) || metadata_len > kMaxMetadata) return ks::report_bad_arguments();

  ks::Request request(ks::kAddMetadata);
  if (!request.has_list()) {
    KS_TRACE(KS_SUBTYPE_NORMAL, "Memory Allocation Failed \n");
    return KS_NO_MEMORY;
  }
  request.build(ks_add_metadata_req, name, metadata, metadata_len);
  if (const KsResult sent = request.exchange(); sent != KS_SUCCESS) return sent;

  if (request.size() != ks::kAddMetadata.reply_size) {  // only reported: the result word is there in any case
    KS_TRACE(KS_SUBTYPE_NORMAL, "Invalid Payload Size :%d \n", request.size());
  }
  return ks::reply_result(request.payload());
}
