// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// secret.cc: the messages about entries by name: store, describe, find, clear and rename.
//
// Names are kept apart by VDC here: a name under a VDC that the caller may not use is answered like one that doesn't
// exist, byte for byte, and refused where it would come to exist.
#include <array>

#include "handlers/handler.h"
#include "handlers/name.h"
#include "ks_secret.h"

namespace ksd::handlers {
namespace {

// secret_name is request_name for the names of secrets alone.
std::optional<EntryName> secret_name(const Request &request, size_t offset, size_t length) {
  std::optional<EntryName> name = request_name(request, offset, length);
  if (name && name->tag != KS_NAME_TAG_SECRET) return std::nullopt;
  return name;
}

// only_name decodes a request that is nothing but a name.
std::optional<EntryName> only_name(const Request &request) {
  const auto descriptor = request.descriptor<KsNameDescriptor>();
  if (!descriptor) return std::nullopt;
  return request_name(request, *descriptor);
}

void store_secret(Service &service, const Request &request, Reply &reply) {
  const auto descriptor = request.descriptor<KsStoreDescriptor>();
  if (!descriptor) return reply.result(KS_INVALID_ARGS);
  const auto name = secret_name(request, descriptor->name_offset, descriptor->name_len);
  const auto secret = request.section(descriptor->secret_offset, descriptor->secret_len);
  const auto metadata = request.section(descriptor->metadata_offset, descriptor->metadata_len);
  if (!name || !secret || secret->empty() || !metadata) return reply.result(KS_INVALID_ARGS);

  std::optional<EntryName> alias;
  if (descriptor->linked_name_len != 0) {
    alias = secret_name(request, descriptor->linked_name_offset, descriptor->linked_name_len);
    if (!alias) return reply.result(KS_INVALID_ARGS);
  }
  if (!allowed_name(service, request, *name)) return reply.result(KS_INVALID_ARGS);
  if (alias && !allowed_name(service, request, *alias)) return reply.result(KS_INVALID_ARGS);
  // An alias in another VDC would let that VDC's callers at the entry.
  if (alias && alias->vdc_id != name->vdc_id) return reply.result(KS_INVALID_ARGS);
  reply.result(service.store().put(*name, alias, *secret, *metadata, request.caller.counted_as));
}

void add_metadata(Service &service, const Request &request, Reply &reply) {
  const auto descriptor = request.descriptor<KsNameDataDescriptor>();
  if (!descriptor) return reply.result(KS_INVALID_ARGS);
  const auto name = secret_name(request, descriptor->name_offset, descriptor->name_len);
  const auto metadata = request.section(descriptor->data_offset, descriptor->data_len);
  if (!name || !metadata) return reply.result(KS_INVALID_ARGS);
  if (!allowed_name(service, request, *name)) return reply.result(KS_NOT_FOUND);
  reply.result(service.store().set_metadata(*name, *metadata));
}

void return_metadata(Service &service, const Request &request, Reply &reply) {
  const auto name = only_name(request);
  if (!name) return reply.result(KS_INVALID_ARGS);
  const auto entry = allowed_name(service, request, *name) ? service.store().find(*name) : std::nullopt;
  if (!entry) return reply.result(KS_NOT_FOUND);
  reply.data(*entry->metadata);
}

void secret_exists(Service &service, const Request &request, Reply &reply) {
  constexpr uint8_t kExists = 1;
  const auto name = only_name(request);
  if (!name || name->tag != KS_NAME_TAG_SECRET) return reply.result(KS_INVALID_ARGS);
  if (!allowed_name(service, request, *name) || !service.store().exists(*name)) return reply.result(KS_NOT_FOUND);
  reply.data({&kExists, 1});
}

// Clients expect 6 bytes from a clear, whatever the result: the result and a length of 0.
void reply_in_six_bytes(Reply &reply, KsResult result) {
  std::array<uint8_t, sizeof result + sizeof(uint16_t)> bytes{};
  std::memcpy(bytes.data(), &result, sizeof result);
  reply.record(bytes);
}

void clear(Service &service, const Request &request, Reply &reply) {
  const auto name = only_name(request);
  if (!name) return reply_in_six_bytes(reply, KS_INVALID_ARGS);
  if (!allowed_name(service, request, *name)) return reply_in_six_bytes(reply, KS_NOT_FOUND);
  reply_in_six_bytes(reply, service.store().remove(*name));
}

void name_by_index(Service &service, const Request &request, Reply &reply) {
  // An entry of another VDC keeps its position and shows nothing else.
  constexpr std::array<uint8_t, KS_NAME_HEADER_SIZE> kMasked{0, 0, 0xff, 0xff};
  const auto descriptor = request.descriptor<KsIndexDescriptor>();
  if (!descriptor) return reply.result(KS_INVALID_ARGS);
  const auto name = service.store().at(descriptor->index);
  if (!name) return reply.result(KS_NO_MORE_ENTRIES);
  if (!request.caller.may_use(name->vdc_id)) return reply.data(kMasked);  // not counted: a walk names nobody
  reply.data(wire_name(*name));
}

void rename(Service &service, const Request &request, Reply &reply) {
  const auto descriptor = request.descriptor<KsRenameDescriptor>();
  if (!descriptor) return reply.result(KS_INVALID_ARGS);
  const auto old_name = secret_name(request, descriptor->old_name_offset, descriptor->old_name_len);
  const auto new_name = secret_name(request, descriptor->new_name_offset, descriptor->new_name_len);
  // Of the third name clients send the tag alone: nothing can be made of it, but it has to be there.
  const bool third_is_there =
      descriptor->linked_name_len == 0 || request.section(descriptor->linked_name_offset, descriptor->linked_name_len);
  if (!old_name || !new_name || !third_is_there) return reply.result(KS_INVALID_ARGS);
  if (!allowed_name(service, request, *new_name)) return reply.result(KS_INVALID_ARGS);
  if (!allowed_name(service, request, *old_name)) return reply.result(KS_NOT_FOUND);
  if (old_name->vdc_id != new_name->vdc_id) return reply.result(KS_INVALID_ARGS);  // entries don't change their VDC
  reply.result(service.store().rename(*old_name, *new_name));
}

constexpr std::array kSecretRows{
    Row{KS_OP_STORE_SECRET, "store secret", store_secret, Work::kChange},
    Row{KS_OP_ADD_METADATA, "add metadata", add_metadata, Work::kChange},
    Row{KS_OP_CLEAR, "clear", clear, Work::kChange},
    Row{KS_OP_SECRET_EXISTS, "secret exists", secret_exists},
    Row{KS_OP_HANDLE_BY_INDEX, "name by index", name_by_index},
    Row{KS_OP_RETURN_METADATA, "return metadata", return_metadata},
    Row{KS_OP_RENAME, "rename", rename, Work::kChange},
};

}  // namespace

std::span<const Row> secret_rows() {
  return kSecretRows;
}

}  // namespace ksd::handlers
