// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "scripted.h"

namespace {

TEST(Kserr2str, GivesEachCodeItsText) {
  const std::map<KsResult, std::string> texts = {
      {0, "Registry returns 0 by default if no function registered."},
      {1, "Success"},
      {2, "Failure, unknown."},
      {3, "Invalid arguments passed by caller"},
      {4, "Memory allocation failure"},
      {5, "Handle not found in keystore, i.e. no such entry"},
      {6, "No more entries, returned by iterator function"},
      {7, "Key store out of memory"},
      {8, "Timed out talking to keystore chip or redundant peer."},
      {9, "Key is wrong (e.g. size) for the requested operation."},
      {10, "Error occured in encryption/decryption."},
      {11, "Key length not supported."},
      {12, "Error communicating with firmware"},
      {13, "Firmware mem compaction corrupted entry(s)"},
      {14, "Firmware reported bad cell where write operation produced wrong results"},
      {21, "Firmware panic-ed and was reset"},
      {22, "Internal error, bad fragment size"},
      {23, "Wrong response format for cmd"},
      {24, "Version mismatch between driver and FW"},
      {25, "Args or output too large for RPC buffers"},
      {26, "Error occurred in RPC between RP and SP"},
      {27, "Requested input or output args are too big to fit in a single fragment, and the FW" + std::string(35, ' ') +
               "doesn't support fragmentation for this req"},
  };
  for (const auto &[code, text] : texts) EXPECT_EQ(kserr2str(code), text) << code;
}

TEST(Kserr2str, GivesTheLettersNullForCodesWithoutText) {
  for (const KsResult code : {15u, 16u, 17u, 18u, 19u, 20u, 28u, 1000u, 0xffffffffu}) {
    EXPECT_STREQ(kserr2str(code), "NULL") << code;
  }
}

}  // namespace
