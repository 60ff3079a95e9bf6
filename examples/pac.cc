// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// The life of EAP-FAST credentials, and what each step costs in messages to the keystore.
#include <dlfcn.h>

#include <ks.hpp>

#include "example.h"

using example::Bytes;
using example::hex;
using example::require;

namespace {

int messages = 0;

// A time in 2038 whose bytes read alike both ways: the ageing walk takes them in the processor's own order.
const ks::TimePoint kExpiry(std::chrono::seconds(0x7fff'ff7f));

}  // namespace

// This program's own mts_send stands in front of the platform's, and counts.
extern "C" __attribute__((visibility("default"))) uint32_t mts_send(uint32_t queue, uint32_t node, uint32_t sap,
                                                                    uint32_t opcode, const void *descriptor,
                                                                    uint32_t descriptor_size, void *sent,
                                                                    uint32_t flags, const void *options) {
  using Send = uint32_t(uint32_t, uint32_t, uint32_t, uint32_t, const void *, uint32_t, void *, uint32_t, const void *);
  static auto *const platform_send = reinterpret_cast<Send *>(dlsym(RTLD_NEXT, "mts_send"));
  ++messages;
  return platform_send(queue, node, sap, opcode, descriptor, descriptor_size, sent, flags, options);
}

namespace {

void tell(const std::string &what) {
  std::printf("  %-66s %d message%s\n", what.c_str(), messages, messages == 1 ? "" : "s");
  messages = 0;
}

const uint8_t *bytes_of(const std::string &text) {
  return reinterpret_cast<const uint8_t *>(text.data());
}
uint32_t size_of(const std::string &text) {
  return static_cast<uint32_t>(text.size());
}

ks::Buffer metadata_for(const std::string &identity) {
  ks::PacInfo info;
  info.expires = kExpiry;
  info.identity = identity;
  auto metadata = ks::make_pac_metadata(Bytes(40, 0x0a), info);
  require(metadata.code(), "making metadata");
  return *std::move(metadata);
}

void store(const std::string &aid, const std::string &identity) {
  require(ks::store_pac(aid, Bytes(32, 0x4b), metadata_for(identity)).code(), "storing a PAC");
}

// Reads a PAC-Opaque or PAC-Info, whichever the operation is for, and returns its length.
size_t read_part(decltype(ks_return_pac_opaque) *operation, const std::string &aid, const char *what) {
  uint8_t *content = nullptr;
  uint32_t content_len = 0;
  require(operation(bytes_of(aid), size_of(aid), &content, &content_len), what);
  return ks::Buffer(content, content_len).size();
}

size_t read_opaque(const std::string &aid) {
  return read_part(ks_return_pac_opaque, aid, "reading the PAC-Opaque");
}

size_t read_info(const std::string &aid) {
  return read_part(ks_return_pac_info, aid, "reading the PAC-Info");
}

Bytes t_prf(const std::string &aid, const std::string &label, const Bytes &random, uint16_t len) {
  Bytes output(len);
  require(ks_pac_key_t_prf(bytes_of(aid), static_cast<uint8_t>(aid.size()), bytes_of(label),
                           static_cast<uint16_t>(label.size()), random.data(), static_cast<uint16_t>(random.size()),
                           output.data(), len),
          "T-PRF");
  return output;
}

void tell_list() {
  std::string all;
  uint16_t cursor = 0;
  uint8_t *block = nullptr;
  uint16_t size = 0;
  while (ks_return_aid_by_index(&cursor, &block, &size) == KS_SUCCESS) {
    const ks::Buffer aid(block, size);
    all += (all.empty() ? "" : ", ") + std::string(ks::Bytes(aid).text());
  }
  tell("listed the A-IDs: " + (all.empty() ? "none" : all));
}

}  // namespace

int main() {
  example::start();
  const std::string aid = "authority-1";

  store(aid, "alice");
  tell("stored the PAC of " + aid);
  tell("read its opaque cold, " + std::to_string(read_opaque(aid)) + " bytes");
  tell("read its info cold, " + std::to_string(read_info(aid)) + " bytes");
  require(ks::cache_put(aid, metadata_for("alice")).code(), "writing to the cache");
  tell("warmed the cache");
  tell("read its opaque warm, " + std::to_string(read_opaque(aid)) + " bytes");
  tell("read its info warm, " + std::to_string(read_info(aid)) + " bytes");
  const uint32_t expiry = ks_get_pac_expiration(bytes_of(aid), size_of(aid));
  tell("asked for its expiry: " + std::to_string(expiry) + " s after 1970");

  const std::string label = "PAC to master secret label hash";
  const Bytes random(64, 0x11);
  const Bytes output = t_prf(aid, label, random, 48);
  tell("computed a T-PRF on its key: " + hex(output).substr(0, 16) + "...");
  const auto name = ks::WireName::of_pac(aid);
  require(ks_cache_pac_write_tprf(name->data(), name->size(), label.data(), static_cast<uint16_t>(label.size()),
                                  random.data(), static_cast<uint16_t>(random.size()), output.data(), 48),
          "caching the T-PRF");
  tell("kept the result in the cache");
  if (t_prf(aid, label, random, 48) != output) return 1;
  tell("asked for the same T-PRF again: the same");

  store("authority-2", "alice");
  store("authority-3", "bob");
  store("authority-4", "bob");
  tell("stored three more PACs");
  tell_list();
  // A walk passes over the entry behind each one that it judges, so it is run again for what it left.
  for (const char *which : {"aged out what isn't alice's", "aged out once more, for what the first walk passed over"}) {
    require(ks_clear_old_pacs("alice"), "ageing out");
    tell(which);
    tell_list();
  }
  require(ks_clear_all_pacs(), "clearing");
  tell("cleared the rest");
  tell_list();
}
