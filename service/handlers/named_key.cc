#include "handlers/named_key.h"

namespace ksd {
namespace {

bool has_owner(const EntryName &name, KeyDemand::Owner owner) {
  switch (owner) {
    case KeyDemand::Owner::kSecret:
      return name.tag == KS_NAME_TAG_SECRET;
    case KeyDemand::Owner::kPac:
      return name.tag == KS_NAME_TAG_PAC;
    case KeyDemand::Owner::kEither:
      return true;
  }
  return false;
}

}  // namespace

KsResult allow_key(Service &service, const Request &request, const EntryName &name, const KeyDemand &demand) {
  if (!service.crypto.usable(demand.algorithm)) return KS_CRYPT_ERROR;
  if (!request.caller.may_use(name.vdc_id)) {
    service.refused_name(request.caller);
    return KS_NOT_FOUND;
  }
  return service.store() && has_owner(name, demand.owner) ? KS_SUCCESS : KS_NOT_FOUND;
}

KsResult find_key(const Store &store, const EntryName &name, Entry *out_entry) {
  std::optional<Entry> entry = store.find(name);
  if (!entry || !entry->secret) return KS_NOT_FOUND;
  *out_entry = std::move(*entry);
  return KS_SUCCESS;
}

}  // namespace ksd
