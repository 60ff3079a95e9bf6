// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// The PAC cache, shared by processes: one writes, another reads, a third empties it.
#include "pac_record.h"

using example::Bytes;
using example::operator+;
using example::require;

namespace {

const std::string kAid = "cached-authority";
const Bytes kLabel = example::of_text("Session Key Generating Function");
const Bytes kRandom(32, 0x5e);

void write() {
  example::warm(kAid, example::pac_opaque() + example::pac_info(0x7fffffff, "alice"));
  const KsWireName name = example::wire_name(kAid);
  const Bytes output(40, 0x77);
  require(ks_cache_pac_write_tprf(&name, example::wire_len(kAid), kLabel.data(), static_cast<uint16_t>(kLabel.size()),
                                  kRandom.data(), static_cast<uint16_t>(kRandom.size()), output.data(),
                                  static_cast<uint16_t>(output.size())),
          "writing a T-PRF result");
  std::printf("  wrote a PAC entry and a T-PRF result to %s\n", ks_cache_uri);
}

void read() {
  const KsWireName name = example::wire_name(kAid);
  uint8_t *metadata = nullptr;
  uint16_t metadata_len = 0;
  require(ks_cache_read_pac(&name, example::wire_len(kAid), &metadata, &metadata_len), "reading from the cache");
  std::printf("  metadata, %u bytes: %.32s...\n", metadata_len, example::hex(metadata, metadata_len).c_str());
  free(metadata);

  uint8_t *output = nullptr;
  uint16_t output_len = 0;
  require(ks_cache_read_tprf(&name, example::wire_len(kAid), kLabel.data(), static_cast<uint16_t>(kLabel.size()),
                             kRandom.data(), static_cast<uint16_t>(kRandom.size()), &output, &output_len),
          "reading a T-PRF result");
  std::printf("  T-PRF result, %u bytes: %.32s...\n", output_len, example::hex(output, output_len).c_str());
  free(output);
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
