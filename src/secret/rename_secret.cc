// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// ks_rename_secret: another name for a secret, in a descriptor of single bytes.
//
//   descriptor  O | 6 | N | O+6 | 1 | O+6+N                            (6 bytes; O, N: lengths of the wire names; the
//               last two are 0 without a linked name)
//   sections    old name | new name | one byte of the linked name, if that isn't empty
//   reply       result, of any size
#include "secret/requests.h"

namespace {

// DIFFERS(rename-linked-name): a store sends its linked name whole and bounds it. This one is measured as a text in its
// wire form, whose second byte is 0: its tag alone travels, from a buffer of exactly its length, and nothing bounds it.
// Levelled, the whole name would travel, and one of 32 bytes would be refused.
constexpr uint8_t kLinkedNameLen = 1;

// WireNames are the buffers of a request.
struct WireNames {
  void *old_name = nullptr;
  void *new_name = nullptr;
  void *linked_name = nullptr;  // stays null without a linked name
};

// allocate makes all of them, or tells that it kept none.
bool allocate(WireNames *names, const char *old_name, const char *new_name, const char *linked_name) {
  const size_t linked_len = linked_name == nullptr ? 0 : strlen(linked_name);
  names->old_name = ks::new_secret_name(old_name, strlen(old_name));
  if (names->old_name != nullptr) names->new_name = ks::new_secret_name(new_name, strlen(new_name));
  if (names->new_name != nullptr && linked_len != 0) {
    names->linked_name = ks::new_wire_name(KS_NAME_TAG_SECRET, linked_name, linked_len, ks::NameBuffer::kExact);
  }
  if (names->new_name != nullptr && (linked_len == 0 || names->linked_name != nullptr)) return true;
  free(names->old_name);
  free(names->new_name);
  return false;
}

void fill(const WireNames &names, size_t old_len, size_t new_len, KsSection *sections, KsRenameDescriptor *descriptor) {
  descriptor->old_name_len = ks::wire_len(old_len);
  descriptor->old_name_offset = sizeof *descriptor;
  descriptor->new_name_len = ks::wire_len(new_len);
  descriptor->new_name_offset = ks::low8(descriptor->old_name_len + sizeof *descriptor);
  descriptor->linked_name_len = 0;
  descriptor->linked_name_offset = 0;
  sections[0] = {names.old_name, descriptor->old_name_len};
  sections[1] = {names.new_name, descriptor->new_name_len};
  if (names.linked_name == nullptr) return;
  descriptor->linked_name_len = kLinkedNameLen;
  descriptor->linked_name_offset = ks::low8(size_t{descriptor->new_name_offset} + descriptor->new_name_len);
  sections[2] = {names.linked_name, kLinkedNameLen};
}

// build is what the operation and its exported builder share. `names` tells which buffers it has made.
KsResult build(const char *old_name, const char *new_name, const char *linked_name, WireNames *names,
               KsSection *sections, KsRenameDescriptor *descriptor) {
  if (!allocate(names, old_name, new_name, linked_name)) return KS_NO_MEMORY;
  fill(*names, strlen(old_name), strlen(new_name), sections, descriptor);
  return KS_SUCCESS;
}

constexpr uint32_t kAllNames = 0b111;  // entry 2, where there is one, holds the third name or null

}  // namespace

KsResult ks_rename_secret_req(const char *old_name, const char *new_name, const char **linked_name, KsSection *sections,
                              KsRenameDescriptor *descriptor) {
  WireNames names;
  const KsResult built = build(old_name, new_name, *linked_name, &names, sections, descriptor);
  if (built == KS_SUCCESS && names.linked_name != nullptr) *linked_name = static_cast<const char *>(names.linked_name);
  return built;
}

KsResult ks_rename_secret_resp(const void *payload) {
  return ks::reply_result(payload);
}

KsResult ks_rename_secret(const char *old_name, const char *new_name, const char *linked_name) {
  if (!ks::is_name(old_name) || !ks::is_name(new_name)) return KS_INVALID_ARGS;
  if (strcmp(old_name, new_name) == 0) return KS_SUCCESS;  // whether there is such an entry or not

  ks::Request request(ks::kRenameSecret, kAllNames, linked_name != nullptr ? 1 : 0);
  if (!request.has_list()) {
    // DIFFERS(rename-no-list): the rest of the secret store answers 4. Levelled, this would, too.
    static_cast<void>(ks::report_no_list());
    return KS_FAILURE;
  }
  WireNames names;
  // DIFFERS(rename-without-names): elsewhere a name that can't be allocated ends the operation. Levelled, the answer
  // would be KS_NO_MEMORY, where it is the service's to a list of empty sections.
  request.build_or_send_empty(build, old_name, new_name, linked_name, &names);
  if (const KsResult sent = request.exchange(); sent != KS_SUCCESS) return sent;

  return ks::reply_result(request.payload());
}
