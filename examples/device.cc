// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// The keystore itself: its version and status, and random bytes.
#include "example.h"

int main() {
  example::start();
  std::printf("  VDC %u, queue %u\n", vdc_id, ks_mts_q);

  uint8_t random[16];
  example::require(ks_generate_random_number(random, sizeof random, 0), "random numbers");
  std::printf("  16 random bytes from the service: %s\n", example::hex(random, sizeof random).c_str());

  uint16_t version = 0;
  uint32_t status = 0;
  std::printf("  the reply, as the library dumps it to standard error: ");
  std::fflush(stdout);
  example::require(ks_return_fw_version_and_status(&version, &status), "version and status");
  std::printf("\n  firmware %u.%u, status %u\n", version / 256, version % 256, status);
}
