// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// cache.cc: the copies of PACs that programs read in the keystore's place.
#include <fmt/format.h>

#include <algorithm>

#include "cached.h"
#include "command.h"
#include "keystore.h"
#include "library.h"
#include "progress.h"

namespace ksctl {
namespace {

// A key doesn't tell how many zeros at its end are the A-ID's.
bool is_of(const CachedEntry &entry, const Bytes &a_id) {
  return a_id.size() >= entry.a_id.size() && std::equal(entry.a_id.begin(), entry.a_id.end(), a_id.begin()) &&
         std::all_of(a_id.begin() + static_cast<ptrdiff_t>(entry.a_id.size()), a_id.end(),
                     [](uint8_t byte) { return byte == 0; });
}

// Against what the keystore has.
const char *state_of(const CachedEntry &entry, const std::vector<Bytes> &in_keystore) {
  if (!entry.is_own()) return entry.a_id.empty() ? "unknown" : "foreign";
  if (entry.damaged) return "damaged";
  const auto a_id =
      std::find_if(in_keystore.begin(), in_keystore.end(), [&](const Bytes &there) { return is_of(entry, there); });
  const std::optional<Pac> pac = a_id == in_keystore.end() ? std::nullopt : find_pac(*a_id);
  if (!pac) return "orphan";
  return pac->cached == Pac::Cached::kSame ? "good" : "stale";
}

void cache_list(Session &session, const Arguments &) {
  static constexpr Column kColumns[] = {{"a_id", "A-ID"},   {"a_id_text", "TEXT"},
                                        {"vdc", "VDC"},     {"metadata_bytes", "METADATA"},
                                        {"t_prf", "T-PRF"}, {"state", "STATE"}};
  start_library(session);
  const std::vector<Bytes> in_keystore = a_ids();
  List rows;
  for (const CachedEntry &entry : cached_entries()) {
    rows.emplace_back(a_id_fields(entry.a_id) + Object{{"vdc", entry.vdc},
                                                       {"metadata_bytes", entry.metadata_size},
                                                       {"t_prf", entry.has_t_prf},
                                                       {"state", state_of(entry, in_keystore)}});
  }
  session.output.table("entries", kColumns, rows, "The cache is empty.");
}

// A copy that is as it should be stays, and with it a T-PRF result.
void warm(Session &session, const Arguments &) {
  start_library(session);
  require_cache();
  const std::vector<Bytes> all = a_ids();
  Progress progress("cache warm", "PACs", all.size());
  size_t written = 0;
  for (const Bytes &a_id : all) {
    progress.step();
    const std::optional<Pac> pac = find_pac(a_id);
    if (pac && pac->cached != Pac::Cached::kSame) written += cache_pac(*pac) ? 1 : 0;
  }
  session.output.done(fmt::format("Wrote {} of {} PACs into the cache; it had the others.", written, all.size()),
                      Object{{"written", written}, {"pacs", all.size()}});
}

// The library's purge of one VDC takes all VDCs' entries, so entries are removed one by one.
void purge(Session &session, const Arguments &arguments) {
  start_library(session);
  std::vector<CachedEntry> entries = cached_entries();
  if (!arguments.has("--all")) std::erase_if(entries, [](const CachedEntry &entry) { return !entry.is_own(); });
  Progress progress("cache purge", "entries", entries.size());
  for (const CachedEntry &entry : entries) {
    progress.step();
    remove_entry(entry);
  }
  session.output.done(fmt::format("Removed {} entries.", entries.size()), Object{{"removed", entries.size()}});
}

constexpr Parameter kPurge[] = {{"--all", Kind::kFlag, "Also the entries of other VDCs that share the cache"}};

}  // namespace

std::span<const Command> cache_commands() {
  static constexpr Command kCommands[] = {
      {"cache list", "List the cached copies of PACs, and which the keystore has otherwise by now", {}, cache_list},
      {"cache warm", "Copy each PAC into the cache, so that its readers need no message", {}, warm},
      {"cache purge", "Remove the cached copies of this VDC", kPurge, purge},
  };
  return kCommands;
}

}  // namespace ksctl
