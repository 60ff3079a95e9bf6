/* SPDX-FileCopyrightText: 2026 The ks developers
 * SPDX-License-Identifier: Apache-2.0 */

/* A C program that has names of its own where ks_api.h has common ones. */
#define KS_HIDE_GLOBALS
#include <host_mts.h>
#include <ks_api.h>
#include <ks_helpers.h>

static const char vdc_id[] = "its own";

static int app_uuid(void) {
  return 7;
}

int main(void) {
  uint8_t digest[KS_SHA1_SIZE];
  KshPacInfo info = {0};
  KshBuffer metadata = {0};
  KsResult result = ks_init(0, 1, 0);

  info.identity.data = (const uint8_t *)vdc_id;
  info.identity.size = sizeof vdc_id - 1;
  if (result == KS_SUCCESS) result = ksh_make_pac_metadata("opaque", 6, &info, &metadata);
  if (result == KS_SUCCESS) result = ksh_store_pac("a-id", 4, "key", 3, metadata.data, metadata.size);
  if (result == KS_SUCCESS) result = ksh_hmac_sha1("secret", "data", 4, digest);
  ksh_free_buffer(&metadata);
  return result == KS_SUCCESS && mts_last_error_get != NULL ? 0 : app_uuid();
}
