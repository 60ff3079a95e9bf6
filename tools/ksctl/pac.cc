// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// pac.cc: the caller's PACs, whose keys never come back.
#include <fmt/format.h>

#include "command.h"
#include "keystore.h"
#include "library.h"
#include "progress.h"

namespace ksctl {
namespace {

Failure no_such_pac(const Bytes &a_id) {
  return {Exit::kNotFound, fmt::format("{}: no such PAC; `ksctl pac list` shows what there is", hex(a_id))};
}

Value or_null(const std::optional<std::string> &text) {
  return text ? Value(*text) : Value();
}

const char *state_of(const Pac &pac) {
  if (!pac.parts) return "damaged";
  if (pac.expires == 0) return "no lifetime";
  return pac.is_expired() ? "expired" : "valid";
}

Object row_of(const Pac &pac) {
  return a_id_fields(pac.a_id) + Object{{"type", pac.info.type ? Value(pac_type_name(*pac.info.type)) : Value()},
                                        {"issuer", or_null(pac.info.issuer)},
                                        {"identity", or_null(pac.info.identity)},
                                        {"expires", pac.expires == 0 ? Value() : Value(utc(pac.expires))},
                                        {"expires_seconds", pac.expires == 0 ? Value() : Value(pac.expires)},
                                        {"state", state_of(pac)}};
}

constexpr Column kPacColumns[] = {{"a_id", "A-ID"},     {"a_id_text", "TEXT"},    {"type", "TYPE"},
                                  {"issuer", "ISSUER"}, {"identity", "IDENTITY"}, {"expires", "EXPIRES"},
                                  {"state", "STATE"}};

void pac_list(Session &session, const Arguments &) {
  start_library(session);
  List rows;
  for (const Bytes &a_id : a_ids()) {
    if (const std::optional<Pac> pac = find_pac(a_id)) rows.emplace_back(row_of(*pac));
  }
  session.output.table("pacs", kPacColumns, rows, "No PACs.");
}

const char *cached_in_words(Pac::Cached cached) {
  switch (cached) {
    case Pac::Cached::kNo:
      return "no";
    case Pac::Cached::kSame:
      return "yes";
    case Pac::Cached::kStale:
      return "stale";
  }
  return "";
}

void pac_show(Session &session, const Arguments &arguments) {
  const Bytes a_id = a_id_of(arguments.text("A-ID"));
  start_library(session);
  const std::optional<Pac> pac = find_pac(a_id);
  if (!pac) throw no_such_pac(a_id);
  const auto size_of = [&](const Bytes PacParts::*part) {
    return pac->parts ? Value((*pac->parts.*part).size()) : Value();
  };
  session.output.fields(row_of(*pac) + Object{{"opaque_bytes", size_of(&PacParts::opaque)},
                                              {"info_bytes", size_of(&PacParts::info)},
                                              {"cached", cached_in_words(pac->cached)}});
  if (arguments.has("--require-valid") && pac->is_expired()) {
    throw Failure(Exit::kExpired,
                  fmt::format("{}: expired on {}; have a new one provisioned", hex(a_id), utc(pac->expires)));
  }
}

void pac_rm(Session &session, const Arguments &arguments) {
  const Bytes a_id = a_id_of(arguments.text("A-ID"));
  start_library(session);
  const bool was_there = remove_pac(a_id);
  if (!was_there && !arguments.has("--force")) throw no_such_pac(a_id);
  session.output.done((was_there ? "Removed " : "There is no ") + hex(a_id) + ".",
                      a_id_fields(a_id) + Object{{"removed", was_there}});
}

// All A-IDs are taken down first, since the table closes up behind each PAC that goes. A stale copy would tell another
// PAC's time, so it goes before its PAC is judged.
void age_out(Session &session, const Arguments &arguments) {
  const bool dry_run = arguments.has("--dry-run");
  start_library(session);
  const std::vector<Bytes> all = a_ids();
  Progress progress("pac age-out", "PACs", all.size());
  List expired;
  size_t removed = 0;
  for (const Bytes &a_id : all) {
    progress.step();
    std::optional<Pac> pac = find_pac(a_id);
    if (pac && pac->cached == Pac::Cached::kStale && !dry_run) {
      forget_cached(a_id);
      pac = find_pac(a_id);
    }
    if (!pac || !pac->is_expired()) continue;
    expired.emplace_back(row_of(*pac));
    if (!dry_run) removed += remove_pac(a_id) ? 1 : 0;
  }
  if (dry_run) return session.output.table("expired", kPacColumns, expired, "No PAC has expired.");
  session.output.done(fmt::format("Removed {} of {} PACs.", removed, all.size()),
                      Object{{"removed", removed}, {"kept", all.size() - removed}});
}

constexpr char kAIdHelp[] = "The authority's identity in hexadecimal, or a text behind text:";
constexpr Parameter kPacShow[] = {{"A-ID", Kind::kText, kAIdHelp, true},
                                  {"--require-valid", Kind::kFlag, "Exit with status 6 when it has expired"}};
constexpr Parameter kPacRm[] = {{"A-ID", Kind::kText, kAIdHelp, true},
                                {"--force", Kind::kFlag, "It is no failure when there is none"}};
constexpr Parameter kAgeOut[] = {{"--dry-run", Kind::kFlag, "Show the PACs that would be removed"}};

}  // namespace

std::span<const Command> pac_commands() {
  static constexpr Command kCommands[] = {
      {"pac list", "List PACs: who issued them to whom, and until when they are good", {}, pac_list},
      {"pac show", "Show what is kept beside a PAC's key", kPacShow, pac_show},
      {"pac rm", "Remove a PAC, and its copy in the cache", kPacRm, pac_rm},
      {"pac age-out", "Remove the PACs that have expired, and no others", kAgeOut, age_out},
  };
  return kCommands;
}

}  // namespace ksctl
