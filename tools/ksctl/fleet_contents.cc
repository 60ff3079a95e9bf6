// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// fleet_contents.cc: commands that change what a fleet holds as a whole. The service does it, step by step, as long as
// the command goes on: no secret leaves it unsealed.
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "administration.h"
#include "command.h"
#include "confirm.h"
#include "progress.h"
#include "quietly.h"
#include "secret_input.h"
#include "service_link.h"
#include "status.h"
#include "vault/backup.h"

namespace ksctl {
namespace {

// put_text puts a text where the service looks for it.
template <size_t size>
void put_text(char (&place)[size], const std::string &text, const char *option) {
  if (text.size() >= size)
    throw Failure(Exit::kUsage, fmt::format("{}: longer than the {} bytes that go", option, size - 1));
  std::copy(text.begin(), text.end(), place);
}

// The service has a working folder of its own.
std::string path_for_service(const Arguments &arguments, const char *option) {
  return arguments.has(option) ? std::filesystem::absolute(arguments.text(option)).string() : "";
}

// refuse_unprepared ends a command whose preparation the service refused as such.
void refuse_unprepared(const char *command, KsResult result) {
  if (result == KS_NOT_FOUND) {
    throw Failure(Exit::kNotFound, fmt::format("{}: the service keeps its entries alone; [shared] of its configuration "
                                               "has it share them",
                                               command));
  }
  if (result == KS_TIMEOUT) {
    throw Failure(Exit::kConflict,
                  fmt::format("{}: another import or restore is under way on this machine; wait for its end", command));
  }
}

// go_on has the service work until all is done; `counted` sees each reply.
HostFleetGoOnReply go_on(ServiceLink &link, const char *command, const char *of_what, uint64_t all) {
  Progress progress(command, of_what, all);
  for (uint64_t done = 0;;) {
    std::vector<uint8_t> reply;
    const KsResult result = link.result_of(HOST_OP_FLEET_GO_ON, {}, &reply);
    HostFleetGoOnReply told{};
    if (reply.size() < sizeof told)
      throw Failure(Exit::kFailed, fmt::format("{}: the service has given it up", command));
    std::memcpy(&told, reply.data(), sizeof told);
    if (result != KS_SUCCESS) {
      throw Failure(Exit::kFailed, fmt::format("{}: stopped after {} of {} {}: {}", command, told.done, told.all,
                                               of_what, text_in(told.refusal)));
    }
    progress.heed_signal();
    for (; done < told.done; ++done) progress.step();
    if (told.state == HOST_FLEET_WORK_DONE) return told;
  }
}

// ---- Import ----

constexpr char kFleetImport[] = "fleet import";

uint32_t taken_of(const Arguments &arguments) {
  if (arguments.has("--skip-existing") && arguments.has("--replace")) {
    throw Failure(Exit::kUsage, "--skip-existing and --replace: both are given; give one");
  }
  if (arguments.has("--skip-existing")) return HOST_TAKEN_SKIP;
  return arguments.has("--replace") ? HOST_TAKEN_REPLACE : HOST_TAKEN_REFUSE;
}

Records<HostFleetImportReply, HostFleetName> prepare_import(ServiceLink &link, const Arguments &arguments) {
  HostFleetImportRequest wanted{};
  wanted.taken = taken_of(arguments);
  put_text(wanted.vault, path_for_service(arguments, "--vault"), "--vault");
  put_text(wanted.key_file, path_for_service(arguments, "--vault-key-file"), "--vault-key-file");
  put_text(wanted.witness, path_for_service(arguments, "--witness"), "--witness");
  Secret passphrase;
  if (const std::optional<int> fd = arguments.descriptor("--key-passphrase-fd")) {
    passphrase = read_passphrase(fd, "Passphrase of the vault's master key", false);
  }
  const auto request = ksd::SecretBytes::allocate(sizeof wanted + (passphrase ? passphrase->size() : 0));
  std::memcpy(request->writable().data(), &wanted, sizeof wanted);
  if (passphrase) std::ranges::copy(passphrase->bytes(), request->writable().begin() + sizeof wanted);

  std::vector<uint8_t> reply;
  const KsResult result = link.result_of(HOST_OP_FLEET_IMPORT, request->bytes(), &reply);
  if (reply.size() < sizeof(HostFleetImportReply)) {
    refuse_unprepared(kFleetImport, result);
    throw Failure(Exit::kFailed,
                  fmt::format("{}: the service refused it ({}); its log says more", kFleetImport, result));
  }
  auto read = records_of<HostFleetImportReply, HostFleetName>(reply);
  if (result != KS_SUCCESS) throw Failure(Exit::kFailed, text_in(read.head.refusal));
  return read;
}

Value name_of(const HostFleetName &name) {
  return Object{{"vdc", name.vdc_id},
                {"kind", name.tag == KS_NAME_TAG_PAC ? "PAC" : "secret"},
                {"name", std::string(name.name, std::min<size_t>(name.size, sizeof name.name))}};
}

// refuse_import ends an import that can't be done as a whole.
void refuse_import(const Session &session, const Records<HostFleetImportReply, HostFleetName> &read) {
  const std::string vault = text_in(read.head.vault);
  if (read.head.refused != 0) {
    for (const HostFleetName &name : read.records) {
      session.output.complain(fmt::format("{} {} of VDC {} is there already with other content",
                                          name.tag == KS_NAME_TAG_PAC ? "PAC" : "secret",
                                          std::string_view(name.name, name.size), name.vdc_id));
    }
    throw Failure(Exit::kConflict,
                  fmt::format("{}: {} of its {} entries have names that the fleet has already with other content, and "
                              "nothing was changed; --skip-existing leaves those out, --replace takes them in",
                              vault, read.head.refused, read.head.entries));
  }
  if (read.head.limit_name[0] != '\0') {
    throw Failure(Exit::kConflict,
                  fmt::format("{}: its {} entries would exceed {} = {} of the configuration, and "
                              "nothing was changed; raise it on all machines, or remove entries",
                              vault, read.head.entries, text_in(read.head.limit_name), read.head.limit));
  }
}

Object described(const Records<HostFleetImportReply, HostFleetName> &read, bool is_dry) {
  List taken;
  for (const HostFleetName &name : read.records) taken.push_back(name_of(name));
  const bool has_limit = read.head.limit_name[0] != '\0';
  return Object{{"vault", text_in(read.head.vault)},
                {"dry_run", is_dry},
                {"entries", read.head.entries},
                {"added", read.head.added},
                {"same", read.head.same},
                {"replaced", read.head.replaced},
                {"skipped", read.head.skipped},
                {"refused", read.head.refused},
                {"unnamed_owners", read.head.unnamed},
                {"limit", has_limit ? Value(text_in(read.head.limit_name)) : Value()},
                {"taken", std::move(taken)}};
}

void fleet_import(Session &session, const Arguments &arguments) {
  ServiceLink link(session.socket);
  auto read = prepare_import(link, arguments);
  if (arguments.has("--dry-run")) return session.output.fields(described(read, true));
  refuse_import(session, read);
  if (read.head.unnamed != 0 && session.output.format() != Format::kJson) {
    session.output.complain(
        fmt::format("{} owners have no name in [shared.owners]: their entries count as those of "
                    "one, \"others\"",
                    read.head.unnamed));
  }
  const HostFleetGoOnReply done = go_on(link, kFleetImport, "entries", read.head.entries);
  read.head.added = done.added;
  read.head.same = done.same;
  read.head.replaced = done.replaced;
  read.head.skipped = done.skipped;
  session.output.done(
      fmt::format("{}: {} entries: {} added, {} replaced, {} there already, {} left out", text_in(read.head.vault),
                  read.head.entries, done.added, done.replaced, done.same, done.skipped),
      described(read, false));
}

// ---- Restore ----

constexpr char kFleetRestore[] = "fleet restore";

ksd::UniqueFd open_backup(const std::string &path) {
  ksd::UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (file) return file;
  throw Failure(errno == ENOENT ? Exit::kNotFound : Exit::kFailed,
                fmt::format("{}: {}; name a file that you may read", path, std::strerror(errno)));
}

// Upload brings a backup to the service.
class Upload {
 public:
  Upload(ServiceLink &link, const std::string &path) : link_(link), path_(path), file_(open_backup(path)) {}

  HostFleetRestoreReply send(const Arguments &arguments) {
    ksd::vault::BackupOpening opening{};
    const ssize_t size = pread(file_.get(), opening.data(), opening.size(), 0);
    const auto parameters = size == ssize_t{opening.size()} ? ksd::vault::parameters_in(opening) : std::nullopt;
    if (!parameters) {
      throw Failure(Exit::kFailed,
                    fmt::format("{}: isn't a backup of ksd, or its beginning is damaged; give another file", path_));
    }
    struct stat info {};
    fstat(file_.get(), &info);
    const Secret passphrase =
        read_passphrase(arguments.descriptor("--passphrase-fd"), "Passphrase of the backup", false);
    const Secret key = ksd::vault::key_of_passphrase(passphrase->bytes(), *parameters);
    HostFleetRestoreRequest request{};
    request.step = HOST_RESTORE_BEGIN;
    request.size = static_cast<uint64_t>(info.st_size);
    if (arguments.has("--incarnation")) request.incarnation = arguments.number("--incarnation");
    std::ranges::copy(key->bytes(), request.key);
    HostFleetRestoreReply told = step(request, {});
    sodium_memzero(request.key, sizeof request.key);
    request.step = HOST_RESTORE_CONTINUE;
    std::vector<uint8_t> part(HOST_RESTORE_PART);
    for (uint64_t sent = 0; sent < request.size;) {
      const ssize_t got = pread(file_.get(), part.data(), part.size(), static_cast<off_t>(sent));
      if (got <= 0)
        throw Failure(Exit::kFailed, fmt::format("{}: can't be read to its end; look after its disk", path_));
      sent += static_cast<uint64_t>(got);
      told = step(request, std::span(part).first(static_cast<size_t>(got)));
    }
    return told;
  }

 private:
  HostFleetRestoreReply step(const HostFleetRestoreRequest &request, std::span<const uint8_t> part) {
    const auto message = ksd::SecretBytes::allocate(sizeof request + part.size());
    std::memcpy(message->writable().data(), &request, sizeof request);
    std::ranges::copy(part, message->writable().begin() + sizeof request);
    std::vector<uint8_t> reply;
    const KsResult result = link_.result_of(HOST_OP_FLEET_RESTORE, message->bytes(), &reply);
    HostFleetRestoreReply told{};
    if (reply.size() < sizeof told) {
      refuse_unprepared(kFleetRestore, result);
      throw Failure(Exit::kFailed,
                    fmt::format("{}: the service refused it ({}); its log says more", kFleetRestore, result));
    }
    std::memcpy(&told, reply.data(), sizeof told);
    if (result != KS_SUCCESS) throw Failure(Exit::kFailed, fmt::format("{}: {}", path_, text_in(told.refusal)));
    return told;
  }

  ServiceLink &link_;
  const std::string path_;
  const ksd::UniqueFd file_;
};

void fleet_restore(Session &session, const Arguments &arguments) {
  const std::string &path = arguments.text("FILE");
  ServiceLink link(session.socket);
  const HostFleetRestoreReply read = Upload(link, path).send(arguments);
  if (!arguments.has("--yes")) {
    confirm(kFleetRestore,
            fmt::format("Put the {} entries of {} in the place of the {} that the fleet has, on all machines, "
                        "for good? The fleet's incarnation is raised, and each other machine stops until it "
                        "is told of it.",
                        read.entries, time_text(read.made_at), read.present_entries));
  }
  const HostFleetGoOnReply done = go_on(link, kFleetRestore, "entries", read.entries);
  session.output.done(
      fmt::format("{}: the fleet has its {} entries now, and incarnation {}; run `ksctl fleet accept {}` "
                  "on each other machine",
                  path, read.entries, done.incarnation, done.incarnation),
      Object{{"file", path},
             {"entries", read.entries},
             {"version", read.version},
             {"made_at", read.made_at},
             {"entries_before", read.present_entries},
             {"incarnation", done.incarnation}});
}

// ---- Accept ----

constexpr char kAccept[] = "fleet accept";

void accept(Session &session, const Arguments &arguments) {
  const uint64_t incarnation = arguments.number("INCARNATION");
  std::array<uint8_t, sizeof incarnation> descriptor;
  std::memcpy(descriptor.data(), &incarnation, sizeof incarnation);
  std::vector<uint8_t> reply;
  const KsResult result = ServiceLink(session.socket).result_of(HOST_OP_FLEET_ACCEPT, descriptor, &reply);
  HostFleetAcceptReply told{};
  if (reply.size() < sizeof told) {
    refuse_unprepared(kAccept, result);
    throw Failure(Exit::kFailed, fmt::format("{}: the service refused it ({}); its log says more", kAccept, result));
  }
  std::memcpy(&told, reply.data(), sizeof told);
  switch (result) {
    case KS_SUCCESS:
      break;
    case KS_NOT_FOUND:
      throw Failure(Exit::kConflict, fmt::format("{}: this machine isn't stopped by a restore; it is at incarnation {}",
                                                 kAccept, told.incarnation));
    case KS_INVALID_ARGS:
      throw Failure(
          Exit::kConflict,
          told.restored_to != 0
              ? fmt::format("{}: the store is at incarnation {}, and nothing was accepted", kAccept, told.restored_to)
              : fmt::format("{}: the store wasn't restored to incarnation {}; `ksctl fleet status` says what is "
                            "wrong with it",
                            kAccept, incarnation));
    default:
      throw Failure(Exit::kFailed,
                    fmt::format("{}: nothing came of it yet; `ksctl fleet status` says how it gets on", kAccept));
  }
  session.output.done(fmt::format("this machine follows the fleet at incarnation {}", told.incarnation),
                      Object{{"incarnation", told.incarnation}});
}

constexpr Parameter kOfRestore[] = {
    {"FILE", Kind::kFile, "The backup", true},
    {"--passphrase-fd", Kind::kDescriptor, "Read the passphrase from this descriptor"},
    {"--incarnation", Kind::kNumber, "Raise the fleet to this incarnation, where other machines know a later one"},
    {"--yes", Kind::kFlag, "Don't ask"}};
constexpr Parameter kOfAccept[] = {
    {"INCARNATION", Kind::kNumber, "Which one, as the machine that restored has told", true}};

constexpr Parameter kOfImport[] = {
    {"--vault-key-file", Kind::kFile, "The file of the vault's master key, which the service has to be able to read",
     true},
    {"--vault", Kind::kFile, "The vault, where it isn't that of the service's configuration"},
    {"--witness", Kind::kFile, "Its witness, where it doesn't lie beside the vault"},
    {"--key-passphrase-fd", Kind::kDescriptor,
     "Read the passphrase that the vault's master key is sealed under from this descriptor"},
    {"--skip-existing", Kind::kFlag, "Leave out entries whose names are there already with other content"},
    {"--replace", Kind::kFlag, "Let them take the place of what is there"},
    {"--dry-run", Kind::kFlag, "Tell what it would come to, and change nothing"}};

}  // namespace

std::span<const Command> fleet_contents_commands() {
  static constexpr Command kCommands[] = {
      {"fleet import", "Take the entries of this machine's vault into its fleet", kOfImport, fleet_import,
       "For administrators. No service may have the vault open, which stays as it is. Cut short, it is asked for "
       "again: what is there already is left as it is."},
      {"fleet restore", "Put the entries of a backup in the place of all that the fleet has", kOfRestore,
       quietly<fleet_restore>,
       "For administrators. The fleet has all of the backup or is as it was, also where this is cut short."},
      {"fleet accept", "Have this machine follow a fleet that was restored", kOfAccept, accept,
       "For administrators. Only when you know that the restore was meant: a store that was set back by others looks "
       "the same."},
  };
  return kCommands;
}

}  // namespace ksctl
