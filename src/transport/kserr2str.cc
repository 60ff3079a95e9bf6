// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "ks_api.h"

const char *kserr2str(KsResult code) {
  switch (code) {
    case KS_NOT_REGISTERED:
      return "Registry returns 0 by default if no function registered.";
    case KS_SUCCESS:
      return "Success";
    case KS_FAILURE:
      return "Failure, unknown.";
    case KS_INVALID_ARGS:
      return "Invalid arguments passed by caller";
    case KS_NO_MEMORY:
      return "Memory allocation failure";
    case KS_NOT_FOUND:
      return "Handle not found in keystore, i.e. no such entry";
    case KS_NO_MORE_ENTRIES:
      return "No more entries, returned by iterator function";
    case KS_STORE_FULL:
      return "Key store out of memory";
    case KS_TIMEOUT:
      return "Timed out talking to keystore chip or redundant peer.";
    case KS_BAD_KEY:
      return "Key is wrong (e.g. size) for the requested operation.";
    case KS_CRYPT_ERROR:
      return "Error occured in encryption/decryption.";
    case KS_KEY_LEN_UNSUPPORTED:
      return "Key length not supported.";
    case KS_FW_COMM_ERROR:
      return "Error communicating with firmware";
    case KS_FW_COMPACT_CORRUPT:
      return "Firmware mem compaction corrupted entry(s)";
    case KS_FW_BAD_CELL:
      return "Firmware reported bad cell where write operation produced wrong results";
    case KS_FW_PANIC:
      return "Firmware panic-ed and was reset";
    case KS_BAD_FRAGMENT_SIZE:
      return "Internal error, bad fragment size";
    case KS_BAD_RESPONSE_FORMAT:
      return "Wrong response format for cmd";
    case KS_VERSION_MISMATCH:
      return "Version mismatch between driver and FW";
    case KS_RPC_TOO_LARGE:
      return "Args or output too large for RPC buffers";
    case KS_RPC_ERROR:
      return "Error occurred in RPC between RP and SP";
    case KS_FRAGMENT_UNSUPPORTED:
      // The run of 35 blanks is part of the text.
      return "Requested input or output args are too big to fit in a single fragment, and the FW"
             "                                   doesn't support fragmentation for this req";
    default:
      return "NULL";  // the four letters, so that callers may print the text of any code
  }
}
