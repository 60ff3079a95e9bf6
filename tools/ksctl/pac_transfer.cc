// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// pac_transfer.cc: PACs from supplicants' files into the keystore, and what of them can leave it again.
#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <set>

#include "command.h"
#include "keystore.h"
#include "library.h"
#include "pac_file.h"
#include "private_file.h"
#include "progress.h"

namespace ksctl {
namespace {

constexpr size_t kMostOfFile = 1 << 20;

void note(const std::string &line) {
  std::fprintf(stderr, "ksctl: %s\n", printable(line).c_str());
}

// Skipped is a PAC that isn't taken, and why. The exit status is that of the first one.
struct Skipped {
  std::string reason;
  Exit exit = Exit::kFailed;
};

// What can be told from the file alone.
std::optional<Skipped> flaw(const FilePac &pac) {
  if (pac.type != kTunnelPac && pac.type != kMachinePac) {
    return Skipped{fmt::format("a PAC of type {} has no key to keep", pac_type_name(pac.type))};
  }
  if (!pac.a_id || pac.a_id->empty()) return Skipped{"it has no A-ID, by which a PAC is known"};
  if (pac.a_id->size() > KS_PAC_NAME_MAX) {
    return Skipped{fmt::format("its A-ID has {} bytes, and the keystore takes {}", pac.a_id->size(), KS_PAC_NAME_MAX)};
  }
  if (!pac.key) return Skipped{"it has no PAC-Key"};
  if (!pac.opaque || pac.opaque->empty()) return Skipped{"it has no PAC-Opaque"};
  if (!pac.info) return Skipped{"it has no PAC-Info"};
  if (!parse_pac_info(*pac.info).whole) return Skipped{"its PAC-Info is damaged"};
  if (pac.opaque->size() + pac.info->size() + 2 * sizeof(KsPacTlv) > kMostOfMetadata) {
    return Skipped{fmt::format("PAC-Opaque and PAC-Info have more than {} bytes together", kMostOfMetadata)};
  }
  return std::nullopt;
}

class Import {
 public:
  explicit Import(const Arguments &arguments)
      : replace_(arguments.has("--replace")), with_expired_(arguments.has("--with-expired")) {}

  void take(const FilePac &pac) {
    const Bytes a_id = pac.a_id.value_or(Bytes());
    Object row = a_id_fields(a_id);
    bool replaced = false;
    std::optional<Skipped> skipped = flaw(pac);
    if (!skipped) skipped = objection(pac, a_id, &replaced);
    if (skipped) {
      if (skipped_++ == 0) exit_ = skipped->exit;
    } else {
      store_pac(a_id, pac.key->bytes(), {*pac.opaque, *pac.info});
      taken_.insert(a_id);
    }
    const char *const outcome = skipped ? "skipped" : replaced ? "replaced" : "stored";
    rows_.emplace_back(row + Object{{"outcome", outcome}, {"reason", skipped ? Value(skipped->reason) : Value()}});
  }

  const List &rows() const { return rows_; }
  size_t skipped() const { return skipped_; }
  Exit exit() const { return exit_; }

 private:
  std::optional<Skipped> objection(const FilePac &pac, const Bytes &a_id, bool *out_replaced) {
    if (taken_.contains(a_id)) return Skipped{"another PAC of this A-ID stands before it in the file"};
    const std::optional<uint32_t> expires = parse_pac_info(*pac.info).expires;
    if (expires && *expires <= std::time(nullptr) && !with_expired_) {
      return Skipped{fmt::format("it expired on {}; --with-expired takes it", utc(*expires)), Exit::kExpired};
    }
    *out_replaced = find_pac(a_id).has_value();
    if (*out_replaced && !replace_) {
      return Skipped{"the keystore has a PAC of this A-ID; --replace replaces it", Exit::kConflict};
    }
    return std::nullopt;
  }

  const bool replace_;
  const bool with_expired_;
  std::set<Bytes> taken_;
  List rows_;
  size_t skipped_ = 0;
  Exit exit_ = Exit::kDone;
};

constexpr Column kOutcomes[] = {{"a_id", "A-ID"}, {"a_id_text", "TEXT"}, {"outcome", "OUTCOME"}, {"reason", "REASON"}};

// The file is read to its end before anything is stored.
void pac_import(Session &session, const Arguments &arguments) {
  const std::string &path = arguments.text("FILE");
  const Secret content = read_private_file(path, kMostOfFile);
  const std::vector<FilePac> pacs = parse_pac_file(content->bytes(), path);
  if (is_open_to_others(path)) note(fmt::format("{}: others can read these keys; chmod 600 it, or remove it", path));

  start_library(session);
  Import import(arguments);
  {
    Progress progress("pac import", "PACs", pacs.size());
    for (const FilePac &pac : pacs) {
      progress.step();
      import.take(pac);
    }
  }
  session.output.table("pacs", kOutcomes, import.rows(), "The file holds no PACs.");
  if (import.skipped() != 0) {
    throw Failure(import.exit(), fmt::format("{}: {} of {} PACs were skipped; the list says why", path,
                                             import.skipped(), pacs.size()));
  }
}

void pac_export(Session &session, const Arguments &arguments) {
  const std::string &path = arguments.text("FILE");
  const PacForm form = arguments.text_or("--form", "text") == "binary" ? PacForm::kBinary : PacForm::kText;
  start_library(session);
  const std::vector<Bytes> all = a_ids();
  std::vector<KeylessPac> pacs;
  List skipped;
  {
    Progress progress("pac export", "PACs", all.size());
    for (const Bytes &a_id : all) {
      progress.step();
      const std::optional<Pac> pac = find_pac(a_id);
      if (pac && pac->parts) pacs.push_back({a_id, *pac->parts, pac->info});
      if (pac && !pac->parts) skipped.emplace_back(a_id_fields(a_id) + Object{{"reason", "its metadata are damaged"}});
    }
  }
  write_private_file(path, keyless_file(pacs, form), arguments.has("--replace"));
  note(fmt::format("{}: holds no keys, which never leave the keystore; no supplicant can log in with it", path));
  session.output.done(fmt::format("Wrote {} PACs to {}.", pacs.size(), path),
                      Object{{"file", path}, {"written", pacs.size()}, {"keys", false}, {"skipped", skipped}});
  if (!skipped.empty()) {
    throw Failure(Exit::kFailed, fmt::format("{}: {} PACs with damaged metadata were left out; `ksctl pac list` shows "
                                             "which",
                                             path, skipped.size()));
  }
}

constexpr Parameter kPacImport[] = {
    {"FILE", Kind::kFile, "A supplicant's PAC file, in text or binary", true},
    {"--replace", Kind::kFlag, "Replace PACs that the keystore has"},
    {"--with-expired", Kind::kFlag, "Take PACs that have expired, too"},
};
constexpr Parameter kPacExport[] = {
    {"FILE", Kind::kFile, "Where to, with mode 0600", true},
    {"--form", Kind::kChoice, "The form of the file, text unless given", false, "text,binary"},
    {"--replace", Kind::kFlag, "Replace the file if it is there"},
};

}  // namespace

std::span<const Command> pac_transfer_commands() {
  static constexpr Command kCommands[] = {
      {"pac import", "Store the PACs of a supplicant's file", kPacImport, pac_import,
       "What is skipped is listed with the reason. A file that is damaged anywhere changes nothing."},
      {"pac export", "Write what is known of all PACs, but their keys, to a file", kPacExport, pac_export,
       "The keystore gives no key out. The file has a head of its own, so that no supplicant takes it."},
  };
  return kCommands;
}

}  // namespace ksctl
