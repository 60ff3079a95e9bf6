// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// secret.cc: the caller's secrets. No message returns one, so none is ever printed.
#include <fmt/format.h>

#include "base/bytes.h"
#include "command.h"
#include "keystore.h"
#include "library.h"
#include "secret_input.h"

namespace ksctl {
namespace {

constexpr size_t kMostOfSecret = 256;

const std::string &name_in(const Arguments &arguments, const char *parameter) {
  const std::string &name = arguments.text(parameter);
  if (name.empty() || name.size() > KS_NAME_MAX) {
    throw Failure(Exit::kUsage,
                  fmt::format("{}: of {} bytes; a name has 1 to {}", parameter, name.size(), KS_NAME_MAX));
  }
  return name;
}

Failure no_such_secret(const std::string &name) {
  return {Exit::kNotFound, fmt::format("{}: no such secret; `ksctl secret list` shows what there is", name)};
}

Object named(const std::string &name) {
  return {{"name", name}, {"name_hex", hex(ksd::bytes_of(name))}};
}

// What is given as metadata, if any is.
std::optional<Bytes> given_metadata(const Arguments &arguments) {
  const std::optional<int> fd = arguments.descriptor("--metadata-fd");
  if (fd && arguments.has("--metadata")) {
    throw Failure(Exit::kUsage, "--metadata and --metadata-fd: both are given; give one");
  }
  if (arguments.has("--metadata")) {
    const std::string &text = arguments.text("--metadata");
    return Bytes(text.begin(), text.end());
  }
  if (!fd) return std::nullopt;
  if (*fd == arguments.descriptor("--secret-fd").value_or(0)) {
    throw Failure(Exit::kUsage, fmt::format("--metadata-fd: descriptor {} gives the secret; name another", *fd));
  }
  const Secret metadata = read_bytes(*fd, "metadata", kMostOfMetadata);
  return Bytes(metadata->bytes().begin(), metadata->bytes().end());
}

std::optional<std::string> given_alias(const Arguments &arguments, const std::string &name) {
  if (!arguments.has("--alias")) return std::nullopt;
  const std::string &alias = name_in(arguments, "--alias");
  if (alias == name) throw Failure(Exit::kUsage, fmt::format("--alias: {} is the name itself; give another", alias));
  return alias;
}

Failure is_taken(const std::string &name) {
  return {Exit::kConflict, fmt::format("{}: there is such a secret; --replace replaces it", name)};
}

// Storing replaces, and the keystore has no message that stores only what is new. So what is there is looked at first.
void put(Session &session, const Arguments &arguments) {
  const std::string &name = name_in(arguments, "NAME");
  const std::optional<std::string> alias = given_alias(arguments, name);
  const std::optional<Bytes> given = given_metadata(arguments);
  start_library(session);
  const std::optional<Bytes> present = secret_metadata(name);
  if (present && !arguments.has("--replace")) throw is_taken(name);
  if (alias && !arguments.has("--replace") && secret_exists(*alias)) throw is_taken(*alias);

  const Secret secret = read_secret(arguments.descriptor("--secret-fd"), "secret", kMostOfSecret);
  const Bytes metadata = given.value_or(present.value_or(Bytes()));
  const KsResult result = ks_store_secret_and_metadata(name.c_str(), alias ? alias->c_str() : nullptr,
                                                       secret->bytes().data(), static_cast<uint16_t>(secret->size()),
                                                       metadata.data(), static_cast<uint16_t>(metadata.size()));
  if (result == KS_INVALID_ARGS && alias && secret_exists(*alias)) {
    throw Failure(Exit::kConflict, fmt::format("{}: is a name of another secret; choose another alias", *alias));
  }
  require(result, name);
  session.output.done(fmt::format("Stored {}.", name), named(name) + Object{{"replaced", present.has_value()}});
}

void secret_list(Session &session, const Arguments &) {
  static constexpr Column kColumns[] = {{"name", "NAME"}, {"kind", "KIND"}, {"metadata_bytes", "METADATA"}};
  start_library(session);
  List rows;
  for (const std::string &name : secret_names()) {
    const std::optional<Bytes> metadata = secret_metadata(name);
    if (!metadata) continue;  // it went meanwhile
    rows.emplace_back(named(name) + Object{{"kind", "secret"}, {"metadata_bytes", metadata->size()}});
  }
  session.output.table("secrets", kColumns, rows, "No secrets.");
}

void secret_show(Session &session, const Arguments &arguments) {
  const std::string &name = name_in(arguments, "NAME");
  start_library(session);
  const std::optional<Bytes> metadata = secret_metadata(name);
  if (!metadata) throw no_such_secret(name);
  session.output.fields(named(name) + Object{{"kind", "secret"},
                                             {"metadata_bytes", metadata->size()},
                                             {"metadata", text(*metadata)},
                                             {"metadata_hex", hex(*metadata)}});
}

void secret_rename(Session &session, const Arguments &arguments) {
  const std::string &from = name_in(arguments, "OLD");
  const std::string &to = name_in(arguments, "NEW");
  start_library(session);
  // The library answers two equal names without asking.
  if (from == to && !secret_exists(from)) throw no_such_secret(from);
  const KsResult result = ks_rename_secret(from.c_str(), to.c_str(), nullptr);
  if (result == KS_NOT_FOUND) throw no_such_secret(from);
  if (result == KS_INVALID_ARGS && secret_exists(to)) {
    throw Failure(Exit::kConflict,
                  fmt::format("{}: there is such a secret; remove it first, or choose another name", to));
  }
  require(result, from);
  session.output.done(fmt::format("Renamed {} to {}.", from, to),
                      named(to) + Object{{"old_name", from}, {"old_name_hex", hex(ksd::bytes_of(from))}});
}

void secret_rm(Session &session, const Arguments &arguments) {
  const std::string &name = name_in(arguments, "NAME");
  start_library(session);
  const KsResult result = ks_clear_secret(name.c_str());
  const bool was_there = result != KS_NOT_FOUND;
  if (!was_there && !arguments.has("--force")) throw no_such_secret(name);
  if (was_there) require(result, name);
  session.output.done(was_there ? fmt::format("Removed {}.", name) : fmt::format("There is no {}.", name),
                      named(name) + Object{{"removed", was_there}});
}

constexpr Parameter kPut[] = {
    {"NAME", Kind::kText, "1 to 31 bytes", true},
    {"--secret-fd", Kind::kDescriptor, "Take the secret from this descriptor"},
    {"--alias", Kind::kText, "A second name for it"},
    {"--metadata", Kind::kText, "What is kept beside it, for everybody who may use it to read"},
    {"--metadata-fd", Kind::kDescriptor, "Take that from this descriptor"},
    {"--replace", Kind::kFlag, "Replace the secret of that name; its metadata stay unless others are given"},
};
constexpr Parameter kSecretShow[] = {{"NAME", Kind::kText, "The secret's name or alias", true}};
constexpr Parameter kSecretRename[] = {{"OLD", Kind::kText, "The present name", true},
                                       {"NEW", Kind::kText, "Another, which no secret has yet", true}};
constexpr Parameter kSecretRm[] = {{"NAME", Kind::kText, "The secret's name or alias", true},
                                   {"--force", Kind::kFlag, "It is no failure when there is none"}};

}  // namespace

std::span<const Command> secret_commands() {
  static constexpr Command kCommands[] = {
      {"secret put", "Store a secret: 1 to 256 bytes, typed, or from a pipe or descriptor as they are", kPut, put,
       "A newline at the end of what a pipe gives is part of the secret: use printf, not echo. Whether there is a "
       "secret of that name is looked at first: one that somebody stores meanwhile is replaced."},
      {"secret list", "List secrets, which nobody can read back", {}, secret_list},
      {"secret show", "Show what is kept beside a secret", kSecretShow, secret_show},
      {"secret rename", "Give a secret another name", kSecretRename, secret_rename},
      {"secret rm", "Remove a secret", kSecretRm, secret_rm},
  };
  return kCommands;
}

}  // namespace ksctl
