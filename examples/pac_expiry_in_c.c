/* SPDX-FileCopyrightText: 2026 The ks developers
 * SPDX-License-Identifier: Apache-2.0 */

#include <ks_api.h>
#include <ks_helpers.h>
#include <stdio.h>
#include <time.h>

int main(void) {
  static const uint8_t key[32] = {0x4b};
  const time_t now = time(NULL);
  KshPacInfo info = {0};
  KshBuffer metadata = {0};
  KshBuffer read = {0};
  KshPacParts parts;
  KsResult result;

  info.expires = (int64_t)now + 90 * 24 * 3600;
  info.identity.data = (const uint8_t *)"alice";
  info.identity.size = 5;
  result = ksh_make_pac_metadata("what the authority made", 23, &info, &metadata);
  if (result == KS_SUCCESS) result = ks_init(0, 0xe0a1, 0);
  if (result == KS_SUCCESS) result = ksh_store_pac("authority-5", 11, key, sizeof key, metadata.data, metadata.size);
  if (result == KS_SUCCESS) result = ksh_cache_put("authority-5", 11, metadata.data, metadata.size);
  if (result == KS_SUCCESS) result = ksh_read_pac("authority-5", 11, &read); /* from the cache, with no message */
  if (result == KS_SUCCESS) result = ksh_parse_pac_metadata(read.data, read.size, &parts);
  if (result == KS_SUCCESS) result = ksh_parse_pac_info(parts.info.whole.data, parts.info.whole.size, &info);
  if (result == KS_SUCCESS) {
    printf("a PAC for %.*s, good for %ld hours\n", (int)info.identity.size, (const char *)info.identity.data,
           (long)((info.expires - now) / 3600));
  } else {
    fprintf(stderr, "%s\n", kserr2str(result));
  }
  ksh_free_buffer(&metadata);
  ksh_free_buffer(&read);
  return result != KS_SUCCESS;
}
