// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "server/fleet.h"

#include <sys/stat.h>

#include <cstdlib>
#include <stdexcept>

#include "base/log.h"
#include "base/refuse.h"
#include "fleet/belonging.h"
#include "link/engine_link.h"
#include "vault/files.h"
#include "vault/master_key.h"

namespace ksd::server {
namespace {

// belonging_file stands beside the master key or, where that is a credential, beside the mirror.
std::string belonging_file(const config::Shared &shared, const vault::MasterKey &master) {
  const std::string &beside = master.is_credential ? shared.mirror : master.path;
  return beside.empty() ? "" : beside + fleet::kBelongingSuffix;
}

// FileKeys has a fleet's master keys in files: the next one beside the present one.
class FileKeys final : public fleet::KeyKeeper {
 public:
  explicit FileKeys(vault::MasterKey present) : present_(std::move(present)) {}

  std::string keep_next(const SecretBytes &next, const SecretBytes &present) override {
    if (!is_in_place(present)) {
      return fmt::format("{}: isn't the fleet's present key yet, which takes a moment, unless the log says more",
                         present_.path);
    }
    if (present_.is_credential) {
      const std::string at_hand = path_of_next_key(present_);
      return fmt::format(
          "the master key is a credential, which the service can't write. Have the next one be the credential {} "
          "(docs/fleet.md tells how), and restart the service",
          at_hand.substr(at_hand.rfind('/') + 1));
    }
    return try_to([&] { vault::prepare_key_file(present_, next); });
  }

  std::string use(const SecretBytes &key) override {
    if (is_in_place(key)) return "";
    if (present_.is_credential) {
      return fmt::format("{}: have the credential be the fleet's next master key, as the other machines have it",
                         present_.path);
    }
    return try_to([&] {
      vault::replace_key_file(present_, key);
      present_.key = SecretBytes::copy_of(key.bytes());
    });
  }

 private:
  template <typename Task>
  static std::string try_to(Task task) {
    try {
      task();
      return "";
    } catch (const std::runtime_error &error) {
      return error.what();
    }
  }

  bool is_in_place(const SecretBytes &key) const { return vault::key_id_of(key) == vault::key_id_of(*present_.key); }

  vault::MasterKey present_;
};

// own_key reads the key of this machine alone, and makes it where there is none. Null, with a line in the log, when
// that can't be done: all goes on without it, but for a change of the fleet's master key.
std::shared_ptr<const SecretBytes> own_key(const vault::MasterKey &master, const std::string &vault) {
  const std::string path = (master.is_credential ? vault : master.path) + ".machine";
  try {
    return vault::read_master_key({.file = path, .passphrase = nullptr}, true).key;
  } catch (const std::runtime_error &error) {
    tell(event::kFleetTroubled, "this machine has no key of its own, so it can't be given another master key: {}",
         error.what());
    return nullptr;
  }
}

}  // namespace

link::Connect find_engine() {
  const char *named = std::getenv("KSD_ENGINE");
  const std::string path = named != nullptr ? named : KSD_ENGINE_PROGRAM;
  struct stat status {};
  if (stat(path.c_str(), &status) < 0) {
    refuse("[shared] needs the engine, which isn't at {}; install the package ksd-shared", path);
  }
  return S_ISSOCK(status.st_mode) ? link::connect_at(path) : link::start_engines(path);
}

std::unique_ptr<fleet::SharedVault> open_shared_vault(const config::Shared &shared, const vault::VaultOptions &options,
                                                      link::Connect engine) {
  constexpr std::chrono::milliseconds kLongestWait(2000);
  const vault::MasterKey master =
      vault::read_master_key({.file = options.master_key_file, .passphrase = options.passphrase}, shared.create);
  fleet::SharedOptions shared_options;
  shared_options.machine = shared.machine;
  shared_options.master_key = master.key;
  shared_options.next_key = vault::read_next_key(master);
  shared_options.machine_key = own_key(master, options.path);
  shared_options.keeper = std::make_shared<FileKeys>(master);
  shared_options.create = shared.create;
  shared_options.accepted_incarnation = shared.accept_incarnation;
  shared_options.limits = options.limits;
  shared_options.write_wait = std::chrono::milliseconds(shared.write_wait_ms);
  shared_options.max_age = std::chrono::seconds(shared.max_age_s);
  for (const auto &[name, user] : shared.owners) shared_options.owners.emplace(user, name);
  shared_options.mirror = shared.mirror;
  shared_options.belonging = belonging_file(shared, master);
  if (shared_options.belonging.empty() && shared.create) {
    refuse(
        "[shared] create = true: there is no place to remember the fleet that is made; name a mirror, or keep the "
        "master key in a file");
  }
  if (!shared_options.belonging.empty()) {
    vault::refuse_what_others_may_write(shared_options.belonging);
    shared_options.fleet = fleet::read_belonging(shared_options.belonging);
  }
  auto link = std::make_unique<link::EngineLink>(std::move(engine), link::Start{.endpoints = shared.endpoints,
                                                                                .prefix = shared.prefix,
                                                                                .ca = shared.ca,
                                                                                .certificate = shared.certificate,
                                                                                .key = shared.key});
  auto opened = std::make_unique<fleet::SharedVault>(std::move(shared_options), std::move(link));
  if (!opened->wait_until_loaded(kLongestWait)) {
    spdlog::warn("the fleet's entries aren't loaded yet: {}", opened->status().words);
  }
  return opened;
}

}  // namespace ksd::server
