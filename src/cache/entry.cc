// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "cache/entry.h"

#include "transport/trace.h"

namespace ks {

KsResult read_refusal(uint32_t error, const char *function, int line) {
  switch (error) {
    case KS_SDB_ERR_BAD_URI:
      KS_TRACE(KS_SUBTYPE_CACHE_ALERT, "%s(%d):URI format is invalid. \n", function, line);
      return KS_FAILURE;
    case KS_SDB_ERR_NO_URI:
      KS_TRACE(KS_SUBTYPE_CACHE_ALERT, "%s(%d): No URI exists. \n", function, line);
      return KS_FAILURE;
    case KS_SDB_ERR_NO_KEY:
      KS_TRACE(KS_SUBTYPE_CACHE_ALERT, "%s(%d):Key not found. \n", function, line);
      return KS_NOT_FOUND;
    default:
      // DIFFERS(cache-read-other-error): an error that has no meaning here is none; who only asks for the key is told
      // that it is there. Levelled, ks_pac_exists would ask the keystore where it now answers 1.
      return KS_SUCCESS;
  }
}

KsResult change_refusal(uint32_t code, const char *text, const char *function, int line) {
  if (code == KS_SDB_ERR_BAD_URI) {
    KS_TRACE(KS_SUBTYPE_CACHE_ALERT, "%s(%d):URI format is invalid. \n", function, line);
  } else {
    KS_TRACE(KS_SUBTYPE_NORMAL, text, function, line);
  }
  return KS_FAILURE;
}

}  // namespace ks
