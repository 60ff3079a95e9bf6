// ks_store_secret_and_metadata: a secret under its name, perhaps with a linked name, perhaps with metadata.
//
//   descriptor  W | 12 | L | W+12 | secret length | its offset | metadata length | its offset   (12 bytes; W and L:
//               lengths of the wire names, L 0 without a linked name; lengths and offsets behind them in 16 bits)
//   sections    name | linked name, if it isn't empty | secret | metadata, if it isn't null
//   reply       result
#include <stdlib.h>

#include "ks_secret.h"
#include "secret/requests.h"
#include "transport/exchange.h"
#include "transport/trace.h"

static_assert(sizeof(KsStoreDescriptor) == ks::kStoreSecret.descriptor_size);

namespace {

constexpr uint16_t kMaxSecret = 256;

bool is_linked(const char *linked_name) {
  return linked_name != nullptr && *linked_name != '\0';
}

// The list as the pointers alone make it: an empty linked name has an entry, too, which stays null at the end.
uint32_t section_count(const char *linked_name, const uint8_t *metadata) {
  return 2u + (linked_name != nullptr) + (metadata != nullptr);
}

// DIFFERS(store-empty-linked-name): with an empty linked name the second entry is the caller's secret, and is freed all
// the same. A caller that passes such a name hands over the heap block that its secret is in.
uint32_t owned_entries(const char *linked_name) {
  return linked_name != nullptr ? 0b11 : 0b01;
}

}  // namespace

KsResult ks_store_secret_and_metadata_req(const char *name, const char *linked_name, const uint8_t *secret,
                                          uint16_t secret_len, const uint8_t *metadata, uint16_t metadata_len,
                                          KsSection *sections, KsStoreDescriptor *descriptor) {
  const size_t name_len = strlen(name);
  void *wire_name = ks::new_secret_name(name, name_len);
  if (wire_name == nullptr) return KS_NO_MEMORY;
  void *linked_wire_name = calloc(1, sizeof(KsWireName));
  if (linked_wire_name == nullptr) {
    free(wire_name);
    return KS_NO_MEMORY;
  }
  size_t linked_len = 0;
  if (is_linked(linked_name)) {
    linked_len = strlen(linked_name);
    if (linked_len > KS_NAME_MAX) {
      free(wire_name);
      free(linked_wire_name);
      return KS_INVALID_ARGS;
    }
    ks::fill_wire_name(linked_wire_name, KS_NAME_TAG_SECRET, linked_name, linked_len);
  } else {
    free(linked_wire_name);
  }

  descriptor->name_len = ks::wire_len(name_len);
  descriptor->name_offset = sizeof *descriptor;
  descriptor->linked_name_len = linked_len == 0 ? uint8_t{0} : ks::wire_len(linked_len);
  descriptor->linked_name_offset = ks::low8(descriptor->name_len + sizeof *descriptor);
  descriptor->secret_len = secret_len;
  descriptor->secret_offset = ks::low16(size_t{descriptor->linked_name_len} + descriptor->linked_name_offset);
  descriptor->metadata_len = metadata != nullptr ? metadata_len : uint16_t{0};
  descriptor->metadata_offset = ks::low16(size_t{descriptor->secret_len} + descriptor->secret_offset);

  KsSection *next = sections;
  *next++ = {wire_name, descriptor->name_len};
  if (linked_len != 0) *next++ = {linked_wire_name, descriptor->linked_name_len};
  *next++ = {secret, secret_len};
  if (metadata != nullptr) *next = {metadata, metadata_len};
  return KS_SUCCESS;
}

KsResult ks_store_secret_and_metadata_resp(uint16_t, const void *payload) {
  return ks::reply_result(payload);
}

KsResult ks_store_secret_and_metadata(const char *name, const char *linked_name, const uint8_t *secret,
                                      uint16_t secret_len, const uint8_t *metadata, uint16_t metadata_len) {
  if (name == nullptr) return KS_INVALID_ARGS;
  if (secret == nullptr) return KS_INVALID_ARGS;
  if (secret_len == 0) return KS_INVALID_ARGS;
  if (!ks::is_name(name)) return KS_INVALID_ARGS;
  if (secret_len > kMaxSecret) return KS_INVALID_ARGS;

  ks::Exchange exchange(ks::kStoreSecret);
  ks::SectionList list(section_count(linked_name, metadata), owned_entries(linked_name));
  if (!list.allocated()) {
    KS_TRACE(KS_SUBTYPE_NORMAL, "Memory Allocation Failed\n");
    return KS_NO_MEMORY;
  }
  KsStoreDescriptor descriptor;
  const KsResult built = ks_store_secret_and_metadata_req(name, linked_name, secret, secret_len, metadata, metadata_len,
                                                          list.data(), &descriptor);
  // DIFFERS(store-linked-name-code): a linked name that is too long is answered with 4 too; others pass on what the
  // builder says. Callers take any 4 of a store for a request that couldn't be built.
  if (built != KS_SUCCESS) return KS_NO_MEMORY;

  if (const KsResult sent = exchange.run(&descriptor, list); sent != KS_SUCCESS) return sent;

  const KsResult result = ks_store_secret_and_metadata_resp(exchange.size(), exchange.payload());
  if (result == KS_SUCCESS) {
    KS_TRACE(KS_SUBTYPE_NORMAL, "Store secret success\n");
  } else {
    KS_TRACE(KS_SUBTYPE_NORMAL, "Store secret failed :%d\n", result);
  }
  return result;
}
