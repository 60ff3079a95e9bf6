// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// ks_store_secret_and_metadata: a secret under its name, perhaps with a linked name, perhaps with metadata.
//
//   descriptor  W | 12 | L | W+12 | secret length | its offset | metadata length | its offset   (12 bytes; W and L:
//               lengths of the wire names, L 0 without a linked name; lengths and offsets behind them in 16 bits)
//   sections    name | linked name, if it isn't empty | secret | metadata, if it isn't null
//   reply       result
#include "secret/requests.h"
#include "transport/trace.h"

namespace {

constexpr uint16_t kMaxSecret = 256;

bool is_linked(const char *linked_name) {
  return linked_name != nullptr && *linked_name != '\0';
}

// Optional entries as the pointers alone make them: an empty linked name has one, too, which stays null at the end.
uint32_t optional_sections(const char *linked_name, const uint8_t *metadata) {
  return 0u + (linked_name != nullptr) + (metadata != nullptr);
}

// DIFFERS(store-empty-linked-name): a null linked name and one of a length leave the secret to its caller. With an
// empty one the second entry is the secret, and is freed all the same. Levelled, the secret would still be allocated
// after the call, and a caller that handed it over would lose the block.
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
  // Allocated before it is known whether there is a linked name: each store makes the same two allocations.
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

  ks::Request request(ks::kStoreSecret, owned_entries(linked_name), optional_sections(linked_name, metadata));
  if (!request.has_list()) {
    KS_TRACE(KS_SUBTYPE_NORMAL, "Memory Allocation Failed\n");
    return KS_NO_MEMORY;
  }
  request.build(ks_store_secret_and_metadata_req, name, linked_name, secret, secret_len, metadata, metadata_len);
  // DIFFERS(store-linked-name-code): others pass on what the builder says. Levelled, a linked name that is too long
  // would give KS_INVALID_ARGS.
  if (request.failed()) return KS_NO_MEMORY;
  if (const KsResult sent = request.exchange(); sent != KS_SUCCESS) return sent;

  const KsResult result = ks::reply_result(request.payload());
  if (result == KS_SUCCESS) {
    KS_TRACE(KS_SUBTYPE_NORMAL, "Store secret success\n");
  } else {
    KS_TRACE(KS_SUBTYPE_NORMAL, "Store secret failed :%d\n", result);
  }
  return result;
}
