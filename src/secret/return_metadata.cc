// ks_return_metadata: the block of metadata beside a secret. Its reader also serves the PAC operations.
//
//   descriptor  W | 2                                                  (2 bytes; W: length of the wire name)
//   sections    name
//   reply       result | length | metadata, believed to be as long as that
#include <stdlib.h>

#include "ks_secret.h"
#include "secret/requests.h"
#include "transport/exchange.h"
#include "transport/trace.h"

static_assert(sizeof(KsNameDescriptor) == ks::kReturnMetadata.descriptor_size);

KsResult ks_return_metadata_req(const char *name, KsSection *section, KsNameDescriptor *descriptor) {
  return ks::name_request(name, section, descriptor);
}

KsResult ks_return_metadata_resp(uint16_t, const void *payload, uint8_t **metadata, uint16_t *metadata_len) {
  if (const KsResult result = ks::reply_result(payload); result != KS_SUCCESS) return result;
  const uint16_t len = ks::reply_len(payload);
  *metadata = static_cast<uint8_t *>(calloc(1, len));
  if (*metadata == nullptr) return KS_NO_MEMORY;
  memcpy(*metadata, ks::reply_data(payload), len);
  *metadata_len = len;
  return KS_SUCCESS;
}

KsResult ks_return_metadata(const char *name, uint8_t **metadata, uint16_t *metadata_len) {
  // DIFFERS(return-metadata-null-length): the length is the one output that isn't tested; a null faults on success, by
  // which callers' test programs find a forgotten one.
  if (!ks::is_name(name) || metadata == nullptr) {
    KS_TRACE(KS_SUBTYPE_NORMAL, "Invalid Arguments \n");
    return KS_INVALID_ARGS;
  }

  ks::Exchange exchange(ks::kReturnMetadata);
  ks::SectionList list(ks::kReturnMetadata);
  if (!list.allocated()) {
    KS_TRACE(KS_SUBTYPE_NORMAL, "Memory Allocation failed \n");
    return KS_NO_MEMORY;
  }
  KsNameDescriptor descriptor;
  if (const KsResult built = ks_return_metadata_req(name, list.data(), &descriptor); built != KS_SUCCESS) return built;

  if (const KsResult sent = exchange.run(&descriptor, list); sent != KS_SUCCESS) return sent;

  return ks_return_metadata_resp(exchange.size(), exchange.payload(), metadata, metadata_len);
}
