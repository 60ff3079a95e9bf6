/* SPDX-FileCopyrightText: 2026 The ks developers
 * SPDX-License-Identifier: Apache-2.0 */

#include <host_mts.h>
#include <ks_api.h>
#include <stdio.h>

int main(void) {
  uint8_t random[16];
  KsResult result = ks_init(0, 1, 0);
  if (result == KS_SUCCESS) result = ks_generate_random_number(random, sizeof random, 0);
  if (result != KS_SUCCESS) {
    char why[512];
    fprintf(stderr, "keystore: %s\n", kserr2str(result));
    if (mts_last_error_get != NULL) fprintf(stderr, "%s\n", mts_last_error_get(why, sizeof why));
    return 1;
  }
  for (size_t i = 0; i < sizeof random; ++i) printf("%02x", random[i]);
  puts("");
  return 0;
}
