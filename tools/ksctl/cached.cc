// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "cached.h"

#include <fmt/format.h>
#include <ks_api.h>
#include <sdb.h>

#include <algorithm>
#include <cstring>

#include "failure.h"

namespace ksctl {
namespace {

constexpr uint32_t kOpenFlags = 1;
constexpr uint32_t kIteratorFlags = 1;
constexpr uint32_t kNoMoreKeys = 0x40480004;

Failure refused(uint32_t code) {
  return {Exit::kFailed,
          fmt::format("{}: {}; `ksctl explain 0x{:08x}` says what to do", ks_cache_uri, syserr2str(code), code)};
}

CachedEntry entry_of(const KsSdbDatum &key, const KsSdbDatum *value) {
  CachedEntry entry;
  const auto *bytes = static_cast<const uint8_t *>(key.data);
  entry.key.assign(bytes, bytes + key.size);
  KsCacheEntry head{};
  entry.damaged = value == nullptr || value->size < sizeof head;
  if (!entry.damaged) {
    std::memcpy(&head, value->data, sizeof head);
    entry.metadata_size = head.meta_len;
    entry.has_t_prf = head.output_len != 0;
  }
  KsCacheKey cached;
  if (key.size != sizeof cached) return entry;
  std::memcpy(&cached, key.data, sizeof cached);
  if (cached.key_type != KS_CACHE_KEY_TYPE_PAC || cached.key_handle.tag != KS_NAME_TAG_PAC) return entry;
  entry.vdc = static_cast<uint16_t>(cached.key_handle.vdc_id[0] << 8 | cached.key_handle.vdc_id[1]);
  // Zeros behind the name are no part of it; an A-ID that ends with zeros can't be told from one without.
  const uint8_t *const begin = cached.key_handle.name;
  const uint8_t *end = begin + KS_PAC_NAME_MAX;
  while (end != begin && end[-1] == 0) --end;
  entry.a_id.assign(begin, std::max(end, begin + 1));
  return entry;
}

}  // namespace

bool CachedEntry::is_own() const {
  return !a_id.empty() && vdc == vdc_id;
}

void require_cache() {
  if (is_cache_present() != 0) return;
  if (ks_cache_uri[0] == '\0') {
    throw Failure(Exit::kFailed, "cache: the service names none for this user; set cache_uri in its configuration");
  }
  const uint32_t code = sdb_open(ks_cache_uri, kOpenFlags, app_uuid, 0, 0);
  if (code != 0) throw refused(code);
  throw Failure(Exit::kFailed,
                fmt::format("{}: couldn't be opened when this command started; run it again", ks_cache_uri));
}

std::vector<CachedEntry> cached_entries() {
  require_cache();
  if (const uint32_t code = sdb_iterator_init(ks_cache_uri, kIteratorFlags); code != 0) throw refused(code);
  std::vector<CachedEntry> entries;
  const KsSdbDatum *key = nullptr;
  const KsSdbDatum *value = nullptr;
  uint32_t code = sdb_getkey(ks_cache_uri, &key, &value);
  while (code == 0) {
    entries.push_back(entry_of(*key, value));
    code = sdb_getnext(ks_cache_uri, &key, &value);
  }
  if (code != kNoMoreKeys) throw refused(code);
  return entries;
}

void remove_entry(const CachedEntry &entry) {
  const uint32_t code = sksd_sdb_delete(entry.key.data(), static_cast<uint32_t>(entry.key.size()));
  if (code != 0) throw refused(code);
}

}  // namespace ksctl
