// ks_return_metadata: the block of metadata beside a secret. Its reader also serves the PAC operations.
//
//   reply   result | length | metadata, believed to be as long as that
#include <stdlib.h>

#include "ks_secret.h"
#include "transport/exchange.h"

KsResult ks_return_metadata_resp(uint16_t, const void *payload, uint8_t **metadata, uint16_t *metadata_len) {
  if (const KsResult result = ks::reply_result(payload); result != KS_SUCCESS) return result;
  const uint16_t len = ks::reply_len(payload);
  *metadata = static_cast<uint8_t *>(calloc(1, len));
  if (*metadata == nullptr) return KS_NO_MEMORY;
  memcpy(*metadata, ks::reply_data(payload), len);
  *metadata_len = len;
  return KS_SUCCESS;
}
