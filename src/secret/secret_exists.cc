// ks_secret_exists: whether there is a secret of a name.
//
//   descriptor  W | 2                                                  (2 bytes; W: length of the wire name)
//   sections    name
//   reply       result | length, not read | flag, 8 bits
#include "ks_secret.h"
#include "secret/requests.h"
#include "transport/exchange.h"
#include "transport/trace.h"

static_assert(sizeof(KsNameDescriptor) == ks::kSecretExists.descriptor_size);

KsResult ks_secret_exists_req(const char *name, KsSection *section, KsNameDescriptor *descriptor) {
  return ks::name_request(name, section, descriptor);
}

KsResult ks_secret_exists_resp(uint16_t, const void *payload, uint32_t *exists) {
  const KsResult result = ks::reply_result(payload);
  if (result == KS_SUCCESS) {
    *exists = *ks::reply_data(payload);  // as the service sends it, 0 and 1 or not
    return KS_SUCCESS;
  }
  if (result == KS_NOT_FOUND) {
    // DIFFERS(secret-missing-success): a secret that isn't there is an answer, where a missing PAC is KS_NOT_FOUND;
    // callers look at the flag alone.
    *exists = 0;
    return KS_SUCCESS;
  }
  return result;
}

KsResult ks_secret_exists(const char *name, uint32_t *exists) {
  if (!ks::is_name(name) || exists == nullptr) {
    KS_TRACE(KS_SUBTYPE_NORMAL, "Invalid Arguments \n");
    return KS_INVALID_ARGS;
  }

  ks::Exchange exchange(ks::kSecretExists);
  ks::SectionList list(ks::kSecretExists);
  if (!list.allocated()) {
    KS_TRACE(KS_SUBTYPE_NORMAL, "Memory Allocation failed \n");
    return KS_NO_MEMORY;
  }
  KsNameDescriptor descriptor;
  if (const KsResult built = ks_secret_exists_req(name, list.data(), &descriptor); built != KS_SUCCESS) return built;

  if (const KsResult sent = exchange.run(&descriptor, list); sent != KS_SUCCESS) return sent;

  return ks_secret_exists_resp(exchange.size(), exchange.payload(), exists);
}
