// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// The PAC cache, shared by processes: one writes, another reads, a third empties it.
#include <ks.hpp>

#include "example.h"

using example::Bytes;
using example::require;

namespace {

const std::string kAid = "cached-authority";
const Bytes kLabel = example::of_text("Session Key Generating Function");
const Bytes kRandom(32, 0x5e);

void write() {
  const auto metadata = ks::make_pac_metadata(Bytes(40, 0x0a), ks::PacInfo{});
  require(metadata.code(), "making metadata");
  require(ks::cache_put(kAid, *metadata).code(), "writing to the cache");
  const auto name = ks::WireName::of_pac(kAid);
  const Bytes output(40, 0x77);
  require(ks_cache_pac_write_tprf(name->data(), name->size(), kLabel.data(), static_cast<uint16_t>(kLabel.size()),
                                  kRandom.data(), static_cast<uint16_t>(kRandom.size()), output.data(),
                                  static_cast<uint16_t>(output.size())),
          "writing a T-PRF result");
  std::printf("  wrote a PAC entry and a T-PRF result to %s\n", ks_cache_uri);
}

// show shows how a block that the library handed out begins, and frees it.
void show(const char *what, const ks::Buffer &block) {
  std::printf("  %s, %zu bytes: %.32s...\n", what, block.size(), example::hex(block.data(), block.size()).c_str());
}

void read() {
  const auto name = ks::WireName::of_pac(kAid);
  uint8_t *block = nullptr;
  uint16_t size = 0;
  require(ks_cache_read_pac(name->data(), name->size(), &block, &size), "reading from the cache");
  show("metadata", ks::Buffer(block, size));
  require(ks_cache_read_tprf(name->data(), name->size(), kLabel.data(), static_cast<uint16_t>(kLabel.size()),
                             kRandom.data(), static_cast<uint16_t>(kRandom.size()), &block, &size),
          "reading a T-PRF result");
  show("T-PRF result", ks::Buffer(block, size));
}

void purge() {
  require(ks_cache_purge_all(), "purging");
  uint32_t found = 1;
  const KsResult result = ks_cache_find_pac(kAid.data(), static_cast<uint32_t>(kAid.size()), &found);
  std::printf("  purged; looking for the entry answers %u (%s)\n", result, kserr2str(result));
  if (found != 0) std::exit(1);
}

}  // namespace

int main(int argc, char **argv) {
  const std::string step = argc == 2 ? argv[1] : "";
  void (*run)() = step == "write" ? write : step == "read" ? read : step == "purge" ? purge : nullptr;
  if (run == nullptr) {
    std::fprintf(stderr, "usage: %s write|read|purge\n", argv[0]);
    return 2;
  }
  example::start();
  if (is_cache_present() != 1) {
    std::fprintf(stderr, "the cache at %s can't be opened\n", ks_cache_uri);
    return 1;
  }
  run();
}
