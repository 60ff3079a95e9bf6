// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "server/fleet.h"

#include <sys/stat.h>

#include <cstdlib>
#include <stdexcept>

#include "base/log.h"
#include "base/trust.h"
#include "fleet/belonging.h"
#include "link/engine_link.h"
#include "vault/master_key.h"

namespace ksd::server {
namespace {

// belonging_file stands beside the master key or, where that is a credential, beside the mirror.
std::string belonging_file(const config::Shared &shared, const vault::MasterKey &master) {
  const std::string &beside = master.is_credential ? shared.mirror : master.path;
  return beside.empty() ? "" : beside + fleet::kBelongingSuffix;
}

}  // namespace

link::Connect find_engine() {
  const char *named = std::getenv("KSD_ENGINE");
  const std::string path = named != nullptr ? named : KSD_ENGINE_PROGRAM;
  struct stat status {};
  if (stat(path.c_str(), &status) < 0) {
    throw std::runtime_error(
        fmt::format("[shared] needs the engine, which isn't at {}; install the package ksd-shared", path));
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
  shared_options.create = shared.create;
  shared_options.accepted_incarnation = shared.accept_incarnation;
  shared_options.limits = options.limits;
  shared_options.write_wait = std::chrono::milliseconds(shared.write_wait_ms);
  shared_options.max_age = std::chrono::seconds(shared.max_age_s);
  for (const auto &[name, user] : shared.owners) shared_options.owners.emplace(user, name);
  shared_options.mirror = shared.mirror;
  shared_options.belonging = belonging_file(shared, master);
  if (shared_options.belonging.empty() && shared.create) {
    throw std::runtime_error(
        "[shared] create = true: there is no place to remember the fleet that is made; name a mirror, or keep the "
        "master "
        "key in a file");
  }
  if (!shared_options.belonging.empty()) {
    if (const auto why = why_others_may_replace(shared_options.belonging)) {
      throw std::runtime_error(fmt::format("{}: {}", shared_options.belonging, *why));
    }
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
