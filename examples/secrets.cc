// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// The life of a secret, in steps that separate processes run: store, list, rename, clear.
#include <cstring>

#include "example.h"

using example::require;

namespace {

void store() {
  example::keep("wifi-psk", example::of_text("correct horse battery staple"), "ssid=attic");
  example::keep("radius-secret", example::of_text("xyzzy5461"), "server=192.0.2.1");
  example::keep("backup-key", example::Bytes(32, 0x42));
  std::puts("  stored wifi-psk, radius-secret and backup-key");
}

std::string metadata_of(const char *name) {
  uint8_t *metadata = nullptr;
  uint16_t metadata_len = 0;
  require(ks_return_metadata(name, &metadata, &metadata_len), "reading metadata");
  std::string text(reinterpret_cast<const char *>(metadata), metadata_len);
  free(metadata);
  return text;
}

// list walks the service's whole table; the library keeps the caller's own secrets.
void list() {
  uint16_t cursor = 0;
  while (true) {
    char *name = nullptr;
    const KsResult result = ks_return_secret_handle_by_index(&cursor, &name);
    if (result == KS_NO_MORE_ENTRIES) return;
    require(result, "walking the table");
    std::printf("  position %u: %-14s metadata \"%s\"\n", cursor - 1u, name, metadata_of(name).c_str());
    free(name);
  }
}

void rename_one() {
  require(ks_rename_secret("wifi-psk", "wifi-psk-old", nullptr), "renaming");
  uint32_t exists = 0;
  require(ks_secret_exists("wifi-psk", &exists), "looking up");
  std::printf("  renamed wifi-psk to wifi-psk-old; the old name %s\n", exists != 0 ? "is still there" : "is gone");
}

void clear() {
  for (const char *name : {"wifi-psk-old", "radius-secret", "backup-key"}) {
    require(ks_clear_secret(name), "clearing");
    std::printf("  cleared %s\n", name);
  }
}

}  // namespace

int main(int argc, char **argv) {
  const std::string step = argc == 2 ? argv[1] : "";
  void (*run)() = step == "store"    ? store
                  : step == "list"   ? list
                  : step == "rename" ? rename_one
                  : step == "clear"  ? clear
                                     : nullptr;
  if (run == nullptr) {
    std::fprintf(stderr, "usage: %s store|list|rename|clear\n", argv[0]);
    return 2;
  }
  example::start();
  run();
}
