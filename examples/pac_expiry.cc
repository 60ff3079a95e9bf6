// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include <cstdio>
#include <ks.hpp>

int main() {
  const auto now = std::chrono::system_clock::now();
  ks::PacInfo info;
  info.expires = now + std::chrono::hours(24 * 90);
  info.identity = "alice";
  const uint8_t key[32] = {0x4b};
  const auto metadata = ks::make_pac_metadata("what the authority made", info);

  ks::Result<> done = ks::start(0xe0a1);
  if (done) done = ks::store_pac("authority-5", key, *metadata);  // a cached copy of an older PAC goes
  if (done) done = ks::cache_put("authority-5", *metadata);
  const auto pac = ks::read_pac("authority-5");  // from the cache, with no message
  if (!done || !pac) {
    std::fprintf(stderr, "%s\n", done ? pac.text() : done.text());
    return 1;
  }
  const auto told = pac->info();
  const std::string_view whom = told->identity.text();
  const auto left = std::chrono::round<std::chrono::hours>(told->expires.value_or(now) - now);
  std::printf("a PAC for %.*s, good for %d hours\n", int(whom.size()), whom.data(), int(left.count()));
}
