// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// vault.cc: commands that look after the vault: backups, its master key, and its file.
#include "vault/vault.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <spdlog/spdlog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <thread>

#include "administration.h"
#include "base/bytes.h"
#include "command.h"
#include "growing_file.h"
#include "progress.h"
#include "quietly.h"
#include "secret_input.h"
#include "service_link.h"
#include "status.h"
#include "vault/database.h"
#include "vault/restore.h"

namespace ksctl {
namespace {

namespace vault = ksd::vault;

constexpr char kOfBackup[] = "Passphrase of the backup";
constexpr char kOfKey[] = "Passphrase of the master key";

constexpr Parameter kPassphraseFd{"--passphrase-fd", Kind::kDescriptor, "Read the passphrase from this descriptor"};
constexpr Parameter kPassphraseCost{"--passphrase-cost", Kind::kChoice,
                                    "What each guess of the passphrase takes: 64 MiB, 256 MiB (the default) or 1 GiB",
                                    false, "interactive,moderate,sensitive"};
constexpr Parameter kKeyPassphraseFd{"--key-passphrase-fd", Kind::kDescriptor,
                                     "Read the passphrase that the master key is sealed under from this descriptor"};
constexpr Parameter kWitness{"--witness", Kind::kFile, "The vault's witness, where it doesn't lie beside the vault"};

vault::PassphraseCost cost_of(const Arguments &arguments) {
  const std::string cost = arguments.text_or("--passphrase-cost", "moderate");
  if (cost == "interactive") return vault::kInteractiveCost;
  return cost == "sensitive" ? vault::kSensitiveCost : vault::kModerateCost;
}

Secret optional_passphrase(const Arguments &arguments, const char *option) {
  const std::optional<int> fd = arguments.descriptor(option);
  return fd ? read_passphrase(fd, kOfKey, false) : nullptr;
}

ksd::UniqueFd open_file(const std::string &path) {
  ksd::UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (file) return file;
  throw Failure(errno == ENOENT ? Exit::kNotFound : Exit::kFailed,
                fmt::format("{}: {}; name a file that you may read", path, std::strerror(errno)));
}

void backup(Session &session, const Arguments &arguments) {
  GrowingFile file(arguments.text("FILE"));
  ServiceLink link(session.socket);
  const Secret passphrase = read_passphrase(arguments.descriptor("--passphrase-fd"), kOfBackup, true);

  const vault::PassphraseParameters parameters = vault::draw_parameters(cost_of(arguments));
  const bool is_of_fleet = link.result_of(HOST_OP_FLEET) == KS_SUCCESS;
  const vault::BackupOpening opening =
      vault::encode_opening(parameters, is_of_fleet ? vault::BackupForm::kOfFleet : vault::BackupForm::kOfVault);
  const Secret key = vault::key_of_passphrase(passphrase->bytes(), parameters);
  const auto request = ksd::SecretBytes::allocate(sizeof(HostBackupRequest));
  std::copy(key->bytes().begin(), key->bytes().end(), request->writable().begin());
  std::copy(opening.begin(), opening.end(), request->writable().begin() + sizeof(HostBackupRequest{}.key));
  const auto begun = link.ask_for<HostBackupReply>(HOST_OP_BEGIN_BACKUP, request->bytes());

  file.write(opening);
  file.write(begun.stream_header);
  uint64_t bytes = opening.size() + sizeof begun.stream_header;
  std::optional<Progress> progress(std::in_place, "backup", "parts", begun.parts);
  for (;;) {
    progress->step();
    const std::vector<uint8_t> reply = link.ask(HOST_OP_NEXT_BACKUP_PART);
    const auto part = std::span(reply).subspan(std::min<size_t>(reply.size(), 6));
    if (part.empty()) break;
    file.write(part);
    bytes += part.size();
  }
  progress.reset();
  file.keep();
  session.output.done(
      fmt::format("{}: {} entries, {} bytes", arguments.text("FILE"), begun.entries, bytes),
      Object{
          {"file", arguments.text("FILE")}, {"entries", begun.entries}, {"version", begun.version}, {"bytes", bytes}});
}

// described is what is told of a backup, restored or not.
Object described(const std::string &file, const vault::BackupContents &contents,
                 const std::string *made_vault = nullptr, const vault::Restored &restored = {}) {
  Value vault_path, made_key, kept;
  if (made_vault != nullptr) {
    vault_path = *made_vault;
    made_key = restored.made_key;
  }
  if (!restored.kept.empty()) kept = restored.kept;
  return Object{{"file", file},
                {"entries", contents.entry_count},
                {"version", contents.last_version},
                {"made_at", contents.time},
                {"vault", std::move(vault_path)},
                {"made_key", std::move(made_key)},
                {"kept", std::move(kept)}};
}

void vault_restore(Session &session, const Arguments &arguments) {
  const std::string &name = arguments.text("FILE");
  const bool only_verify = arguments.has("--verify");
  if (!only_verify && !(arguments.has("--vault") && arguments.has("--master-key-file"))) {
    throw Failure(Exit::kUsage, "restore: give --vault and --master-key-file, or --verify to read the backup alone");
  }
  const ksd::UniqueFd file = open_file(name);
  const Secret passphrase = read_passphrase(arguments.descriptor("--passphrase-fd"), kOfBackup, false);
  std::optional<Progress> shown;
  const auto progress = [&shown](uint64_t, uint64_t all) {
    if (!shown) shown.emplace("restore", "entries", all);
    shown->step();
  };

  if (only_verify) {
    const auto contents = vault::verify_backup(file.get(), name, passphrase->bytes(), progress);
    shown.reset();
    session.output.done(
        fmt::format("{}: whole, {} entries of {}", name, contents.entry_count, time_text(contents.time)),
        described(name, contents));
    return;
  }
  const vault::RestoreOptions options{
      .vault = arguments.text("--vault"),
      .master_key = {.file = arguments.text("--master-key-file"),
                     .passphrase = optional_passphrase(arguments, "--key-passphrase-fd")},
      .witness = arguments.text_or("--witness", "")};
  const auto restored = vault::restore_backup(file.get(), name, passphrase->bytes(), options, progress);
  shown.reset();
  std::string sentence = fmt::format("{}: {} entries of {}", options.vault, restored.contents.entry_count,
                                     time_text(restored.contents.time));
  if (restored.made_key) sentence += fmt::format(", under a new master key in {}", options.master_key.file);
  if (!restored.kept.empty()) sentence += fmt::format("; what was there before is in {}", restored.kept);
  session.output.done(sentence, described(name, restored.contents, &options.vault, restored));
}

vault::VaultOptions options_of(const Arguments &arguments) {
  vault::VaultOptions options;
  options.path = arguments.text("--vault");
  options.master_key_file = arguments.text("--master-key-file");
  options.witness = arguments.text_or("--witness", "");
  options.passphrase = optional_passphrase(arguments, "--key-passphrase-fd");
  return options;
}

void vault_check(Session &session, const Arguments &arguments) {
  const vault::Examined found = vault::examine_vault(options_of(arguments));
  session.output.fields(Object{{"vault", arguments.text("--vault")},
                               {"whole", true},
                               {"entries", found.entries},
                               {"version", found.version},
                               {"schema", found.schema_version},
                               {"closed_in_order", !found.in_use},
                               {"key_is_changed", found.key_changes}});
}

void migrate(Session &session, const Arguments &arguments) {
  const int from = vault::migrate_vault(options_of(arguments));
  const std::string &path = arguments.text("--vault");
  const bool done = from != vault::kSchemaVersion;
  session.output.done(done ? fmt::format("{}: schema {} now, {} before", path, vault::kSchemaVersion, from)
                           : fmt::format("{}: has schema {} already", path, from),
                      Object{{"vault", path}, {"from", from}, {"to", vault::kSchemaVersion}});
}

// begin_rekey asks the service for it. A key that is a credential is replaced by who provides it: the next one is
// written to a file for that, before anything is sealed with it.
void begin_rekey(ServiceLink &link, const Arguments &arguments) {
  if (is_of_fleet(link)) {
    throw Failure(Exit::kConflict,
                  "vault rekey: the entries are those of a fleet, whose machines have one master key; change it "
                  "with `ksctl fleet rotate`");
  }
  if (!arguments.has("--new-key-file")) {
    switch (link.result_of(HOST_OP_CHANGE_MASTER_KEY)) {
      case KS_SUCCESS:
        return;
      case KS_INVALID_ARGS:
        throw Failure(Exit::kUsage,
                      "vault rekey: the service's master key is a credential; name with --new-key-file where the next "
                      "one is to be written");
      default:
        throw Failure(Exit::kFailed, "vault rekey: the service couldn't begin it; its log says why");
    }
  }
  const std::string &path = arguments.text("--new-key-file");
  const Secret key = vault::draw_master_key();
  vault::write_new_key(path, *key, std::nullopt);
  const KsResult result = link.result_of(HOST_OP_CHANGE_MASTER_KEY, key->bytes());
  if (result == KS_SUCCESS) return;
  unlink(path.c_str());
  if (result == KS_INVALID_ARGS) {
    throw Failure(Exit::kConflict,
                  "vault rekey: the service draws the next key itself, or another change is under way; leave out "
                  "--new-key-file");
  }
  throw Failure(Exit::kFailed, "vault rekey: the service couldn't begin it; its log says why");
}

void rekey(Session &session, const Arguments &arguments) {
  constexpr std::chrono::milliseconds kPause(50);
  ServiceLink link(session.socket);
  begin_rekey(link, arguments);
  auto told = link.ask_for<HostKeyChangeReply>(HOST_OP_MASTER_KEY_CHANGE);
  {
    Progress progress("vault rekey", "entries", told.entries);
    for (uint64_t moved = 0; told.state == HOST_KEY_MOVING;) {
      for (; moved < told.moved; ++moved) progress.step();
      std::this_thread::sleep_for(kPause);
      told = link.ask_for<HostKeyChangeReply>(HOST_OP_MASTER_KEY_CHANGE);
    }
  }
  if (told.state == HOST_KEY_STOPPED) {
    throw Failure(Exit::kFailed,
                  fmt::format("vault rekey: it stopped after {} of {} entries, and the service's log says why; mend "
                              "that and ask for it again",
                              told.moved, told.entries));
  }
  const bool waits = told.state == HOST_KEY_WAITING;
  session.output.done(waits ? "all entries are sealed under the next master key; start the service with it"
                            : "the vault has another master key now",
                      Object{{"entries", told.entries}, {"needs_restart", waits}});
}

void export_key(Session &session, const Arguments &arguments) {
  const std::string &path = arguments.text("FILE");
  GrowingFile file(path);
  const vault::MasterKey master =
      vault::read_master_key({.file = arguments.text("--master-key-file"),
                              .passphrase = optional_passphrase(arguments, "--key-passphrase-fd")},
                             false);
  const Secret passphrase =
      read_passphrase(arguments.descriptor("--passphrase-fd"), "Passphrase for the exported key", true);
  const std::string text = vault::seal_key(*master.key, vault::make_key_seal(passphrase->bytes(), cost_of(arguments)));
  file.write(ksd::bytes_of(text));
  file.keep();
  session.output.done(fmt::format("{}: the master key, sealed under the passphrase", path), Object{{"file", path}});
}

void import_key(Session &session, const Arguments &arguments) {
  const std::string &from = arguments.text("FILE"), &to = arguments.text("--master-key-file");
  const ksd::UniqueFd file = open_file(from);
  std::string text(vault::kMostSealedKeyText, '\0');
  const ssize_t size = read(file.get(), text.data(), text.size());
  text.resize(static_cast<size_t>(std::max<ssize_t>(size, 0)));
  if (!vault::is_sealed_key(text)) {
    throw Failure(Exit::kFailed,
                  fmt::format("{}: isn't an exported master key; give the file that export-key made", from));
  }
  if (access(to.c_str(), F_OK) == 0) {
    throw Failure(Exit::kConflict, fmt::format("{}: is there already; move it away first, or name another file", to));
  }
  const Secret passphrase = read_passphrase(arguments.descriptor("--passphrase-fd"), kOfKey, false);
  const auto opened = vault::open_key(text, passphrase->bytes());
  if (!opened) {
    throw Failure(Exit::kFailed,
                  fmt::format("{}: doesn't open: the passphrase is another one, or the file is damaged", from));
  }
  vault::write_new_key(to, *opened->key, std::nullopt);
  session.output.done(fmt::format("{}: the master key", to), Object{{"file", to}});
}

constexpr Parameter kVaultFile{"--vault", Kind::kFile, "The vault's file", true};

constexpr Parameter kBackup[] = {
    {"FILE", Kind::kFile, "Where the backup is to be written", true}, kPassphraseFd, kPassphraseCost};
constexpr Parameter kVaultRestore[] = {
    {"FILE", Kind::kFile, "The backup", true},
    {"--vault", Kind::kFile, "Where the vault is to stand; one that is there is kept under another name"},
    {"--master-key-file", Kind::kFile, "The file of its master key, made when it isn't there"},
    {"--verify", Kind::kFlag, "Read the backup to its end and restore nothing"},
    kWitness,
    kPassphraseFd,
    kKeyPassphraseFd};
constexpr Parameter kVault[] = {kVaultFile, kMasterKeyFile, kWitness, kKeyPassphraseFd};
constexpr Parameter kRekey[] = {
    {"--new-key-file", Kind::kFile, "Where the next key is written, for a service whose key is a credential"}};
constexpr Parameter kExportKey[] = {{"FILE", Kind::kFile, "Where the sealed key is to be written", true},
                                    kMasterKeyFile,
                                    kPassphraseFd,
                                    kPassphraseCost,
                                    kKeyPassphraseFd};
constexpr Parameter kImportKey[] = {{"FILE", Kind::kFile, "The sealed key", true},
                                    {"--master-key-file", Kind::kFile, "Where the master key is to be written", true},
                                    kPassphraseFd};

constexpr char kWithoutService[] = "No service may have the vault open meanwhile.";
constexpr char kBesideService[] = "For administrators. The service goes on meanwhile.";

}  // namespace

std::span<const Command> vault_commands() {
  static constexpr Command kCommands[] = {
      {"backup", "Write all entries to a file, sealed under a passphrase", kBackup, quietly<backup>, kBesideService},
      {"restore", "Make a vault of a backup, or verify one", kVaultRestore, quietly<vault_restore>, kWithoutService},
      {"vault rekey", "Change the master key, and seal all entries anew", kRekey, quietly<rekey>, kBesideService},
      {"vault check", "Look at every record of a vault", kVault, quietly<vault_check>, kWithoutService},
      {"vault migrate", "Bring a vault's schema up to date", kVault, quietly<migrate>, kWithoutService},
      {"vault export-key", "Seal the master key under a passphrase, to move it", kExportKey, quietly<export_key>},
      {"vault import-key", "Make a master key's file of an exported one", kImportKey, quietly<import_key>},
  };
  return kCommands;
}

}  // namespace ksctl
