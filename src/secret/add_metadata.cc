// ks_add_metadata: a block of metadata for a secret that is there.
//
//   descriptor  W | 6 | metadata length, 16 bits | its offset, 16 bits   (6 bytes; W: length of the wire name)
//   sections    name | metadata
//   reply       result
#include "ks_secret.h"
#include "secret/requests.h"
#include "transport/exchange.h"
#include "transport/trace.h"

static_assert(sizeof(KsNameDataDescriptor) == ks::kAddMetadata.descriptor_size);

namespace {

constexpr uint16_t kMaxMetadata = 1024;
constexpr uint16_t kUsualReplySize = 4;

}  // namespace

KsResult ks_add_metadata_req(const char *name, const uint8_t *metadata, uint16_t metadata_len, KsSection *sections,
                             KsNameDataDescriptor *descriptor) {
  if (const KsResult begun = ks::name_request(name, sections, descriptor); begun != KS_SUCCESS) return begun;
  ks::place_data(metadata, metadata_len, sections, descriptor);
  return KS_SUCCESS;
}

KsResult ks_add_metadata_resp(uint16_t, const void *payload) {
  return ks::reply_result(payload);
}

KsResult ks_add_metadata(const char *name, const uint8_t *metadata, uint16_t metadata_len) {
  // DIFFERS(add-metadata-null-name): silent, where the siblings report a null name like any other fault; monitors that
  // count reports of bad arguments rely on it.
  if (name == nullptr) return KS_INVALID_ARGS;
  // DIFFERS(add-metadata-limit): a store takes metadata of any length; this limit is what callers size blocks by.
  if (!ks::is_name(name) || metadata_len > kMaxMetadata) {
    KS_TRACE(KS_SUBTYPE_NORMAL, "Invalid Arguments \n");
    return KS_INVALID_ARGS;
  }

  ks::Exchange exchange(ks::kAddMetadata);
  ks::SectionList list(ks::kAddMetadata);
  if (!list.allocated()) {
    KS_TRACE(KS_SUBTYPE_NORMAL, "Memory Allocation Failed \n");
    return KS_NO_MEMORY;
  }
  KsNameDataDescriptor descriptor;
  if (const KsResult built = ks_add_metadata_req(name, metadata, metadata_len, list.data(), &descriptor);
      built != KS_SUCCESS) {
    return built;
  }

  if (const KsResult sent = exchange.run(&descriptor, list); sent != KS_SUCCESS) return sent;

  if (exchange.size() != kUsualReplySize) {  // only reported: the result word is there in any case
    KS_TRACE(KS_SUBTYPE_NORMAL, "Invalid Payload Size :%d \n", exchange.size());
  }
  return ks_add_metadata_resp(exchange.size(), exchange.payload());
}
