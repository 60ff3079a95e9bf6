// ks_clear_secret: one secret out of the keystore.
//
//   descriptor  W | 2                                                  (2 bytes; W: length of the wire name)
//   sections    name
//   reply       result, of 6 bytes as it is expected
#include "ks_secret.h"
#include "secret/requests.h"
#include "transport/exchange.h"
#include "transport/trace.h"

static_assert(sizeof(KsNameDescriptor) == ks::kClearSecret.descriptor_size);

static constexpr uint16_t kUsualReplySize = 6;

KsResult ks_clear_secret_req(const char *name, KsSection *section, KsNameDescriptor *descriptor) {
  return ks::name_request(name, section, descriptor);
}

KsResult ks_clear_secret_resp(uint16_t, const void *payload) {
  return ks::reply_result(payload);
}

KsResult ks_clear_secret(const char *name) {
  if (!ks::is_name(name)) {
    KS_TRACE(KS_SUBTYPE_NORMAL, "Invalid Arguments \n");
    return KS_INVALID_ARGS;
  }

  ks::Exchange exchange(ks::kClearSecret);
  ks::SectionList list(ks::kClearSecret);
  if (!list.allocated()) {
    KS_TRACE(KS_SUBTYPE_NORMAL, "Memory Allocation failed \n");
    return KS_NO_MEMORY;
  }
  KsNameDescriptor descriptor;
  if (const KsResult built = ks_clear_secret_req(name, list.data(), &descriptor); built != KS_SUCCESS) return built;

  if (const KsResult sent = exchange.run(&descriptor, list); sent != KS_SUCCESS) return sent;

  if (exchange.size() != kUsualReplySize) {  // only reported: the result word is there in any case
    KS_TRACE(KS_SUBTYPE_NORMAL, "Invalid Response length :%d \n", exchange.size());
  }
  const KsResult result = ks_clear_secret_resp(exchange.size(), exchange.payload());
  KS_TRACE(KS_SUBTYPE_NORMAL, result == KS_SUCCESS ? "Deleted the Key \n" : "Deletion of key failed \n");
  return result;
}
