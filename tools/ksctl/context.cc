// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// context.cc: all that a user has in the keystore: what is in the VDC that the service maps the user to.
#include <fmt/format.h>

#include "cached.h"
#include "command.h"
#include "confirm.h"
#include "keystore.h"
#include "library.h"
#include "progress.h"

namespace ksctl {
namespace {

struct Contents {
  std::vector<std::string> secrets;
  std::vector<Bytes> pacs;
  std::vector<CachedEntry> cached;  // of this VDC
};

Contents contents() {
  Contents all{secret_names(), a_ids(), {}};
  if (is_cache_present() != 0) all.cached = cached_entries();
  std::erase_if(all.cached, [](const CachedEntry &entry) { return !entry.is_own(); });
  return all;
}

void context_list(Session &session, const Arguments &) {
  static constexpr Column kColumns[] = {{"vdc", "VDC"},         {"secrets", "SECRETS"}, {"pacs", "PACS"},
                                        {"expired", "EXPIRED"}, {"cached", "CACHED"},   {"metadata_bytes", "METADATA"}};
  start_library(session);
  const Contents all = contents();
  size_t metadata = 0;
  size_t expired = 0;
  for (const std::string &name : all.secrets) metadata += secret_metadata(name).value_or(Bytes()).size();
  for (const Bytes &a_id : all.pacs) {
    const std::optional<Pac> pac = find_pac(a_id);
    if (!pac) continue;
    metadata += pac->metadata.size();
    expired += pac->is_expired() ? 1 : 0;
  }
  const bool has_cache = is_cache_present() != 0;
  session.output.table("contexts", kColumns,
                       List{Object{{"vdc", vdc_id},
                                   {"secrets", all.secrets.size()},
                                   {"pacs", all.pacs.size()},
                                   {"expired", expired},
                                   {"cached", has_cache ? Value(all.cached.size()) : Value()},
                                   {"metadata_bytes", metadata}}},
                       "");
}

void clear(Session &session, const Arguments &arguments) {
  start_library(session);
  const Contents all = contents();
  const size_t total = all.secrets.size() + all.pacs.size() + all.cached.size();
  if (total != 0 && !arguments.has("--yes")) {
    confirm("context clear", fmt::format("Remove {} secrets, {} PACs and {} cached entries of VDC {}, for good?",
                                         all.secrets.size(), all.pacs.size(), all.cached.size(), vdc_id));
  }
  {
    Progress progress("context clear", "entries", total);
    for (const Bytes &a_id : all.pacs) {
      progress.step();
      remove_pac(a_id);
    }
    for (const CachedEntry &entry : all.cached) {
      progress.step();
      remove_entry(entry);
    }
    for (const std::string &name : all.secrets) {
      progress.step();
      const KsResult result = ks_clear_secret(name.c_str());
      if (result != KS_NOT_FOUND) require(result, name);
    }
  }
  session.output.done(
      fmt::format("Removed {} secrets and {} PACs.", all.secrets.size(), all.pacs.size()),
      Object{
          {"vdc", vdc_id}, {"secrets", all.secrets.size()}, {"pacs", all.pacs.size()}, {"cached", all.cached.size()}});
}

constexpr Parameter kClear[] = {{"--yes", Kind::kFlag, "Don't ask"}};

}  // namespace

std::span<const Command> context_commands() {
  static constexpr Command kCommands[] = {
      {"context list", "Tell what this user's VDC holds", {}, context_list},
      {"context clear", "Remove all of it: secrets, PACs and their cached copies", kClear, clear},
  };
  return kCommands;
}

}  // namespace ksctl
