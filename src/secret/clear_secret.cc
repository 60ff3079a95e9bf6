// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// ks_clear_secret: one secret out of the keystore.
//
//   descriptor  W | 2                                                  (2 bytes; W: length of the wire name)
//   sections    name
//   reply       result, of 6 bytes as it is expected
#include "secret/requests.h"
#include "transport/trace.h"

KsResult ks_clear_secret_req(const char *name, KsSection *section, KsNameDescriptor *descriptor) {
  return ks::build_name(name, section, descriptor);
}

KsResult ks_clear_secret_resp(uint16_t, const void *payload) {
  return ks::reply_result(payload);
}

KsResult ks_clear_secret(const char *name) {
  if (!ks::is_name(name)) return ks::report_bad_arguments();

  ks::Request request(ks::kClearSecret);
  if (!request.has_list()) return ks::report_no_list();
  request.build(ks_clear_secret_req, name);
  if (const KsResult sent = request.exchange(); sent != KS_SUCCESS) return sent;

  if (request.size() != ks::kClearSecret.reply_size) {  // only reported: the result word is there in any case
    KS_TRACE(KS_SUBTYPE_NORMAL, "Invalid Response length :%d \n", request.size());
  }
  const KsResult result = request.read(ks_clear_secret_resp);
  KS_TRACE(KS_SUBTYPE_NORMAL, result == KS_SUCCESS ? "Deleted the Key \n" : "Deletion of key failed \n");
  return result;
}
