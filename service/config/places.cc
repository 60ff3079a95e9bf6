// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "config/places.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "base/trust.h"

namespace ksd::config {
namespace {

// Place is a file that the configuration names by `key`.
struct Place {
  const char *key;
  const std::string &path;
  mode_t kind;         // S_IFREG or S_IFSOCK
  const char *called;  // that kind
  bool makes_folder;
};

std::optional<mode_t> kind_of(const std::string &path) {
  struct stat status {};
  if (stat(path.c_str(), &status) < 0) return std::nullopt;
  return status.st_mode & S_IFMT;
}

bool may_write_in(const std::string &folder) {
  return faccessat(AT_FDCWD, folder.c_str(), W_OK | X_OK, AT_EACCESS) == 0;
}

std::optional<std::string> what_is_wrong_with_folder(const Place &place) {
  const std::string folder = folder_of(place.path);
  const std::optional<mode_t> kind = kind_of(folder);
  if (!kind) {
    const int error = errno;
    const std::string above = folder_of(folder);
    if (error == ENOENT && place.makes_folder && kind_of(above) == S_IFDIR && may_write_in(above)) return std::nullopt;
    return fmt::format("folder {}: {}; make it, with mode 0700, for user {}", folder, std::strerror(error), geteuid());
  }
  if (kind != S_IFDIR) return fmt::format("{} isn't a folder; remove it or name another place", folder);
  if (!may_write_in(folder)) {
    return fmt::format("user {} may not write in {}; give the folder to the service's user", geteuid(), folder);
  }
  return std::nullopt;
}

std::optional<std::string> what_is_wrong_with(const Place &place) {
  const std::optional<mode_t> kind = kind_of(place.path);
  if (kind && kind != place.kind) {
    return fmt::format("{} {}, not {}; name a place in a folder", place.path,
                       kind == S_IFDIR ? "is a folder" : "is a file of another kind", place.called);
  }
  if (auto wrong = what_is_wrong_with_folder(place)) return wrong;
  if (place.kind == S_IFSOCK) return why_others_may_write(folder_of(place.path));
  return why_others_may_replace(place.path);
}

// The user as which the service manager runs the engine; root where there is none.
uid_t engine_user() {
  const passwd *user = getpwnam("_ksd-engine");
  return user != nullptr ? user->pw_uid : 0;
}

// The files for TLS are read by the engine, as its own user; this one may not even be allowed to look for them.
std::optional<std::string> what_is_wrong_with_file_of_engine(const std::string &path) {
  const std::optional<mode_t> kind = kind_of(path);
  if (!kind && errno == EACCES) return std::nullopt;
  if (!kind) return fmt::format("{}: {}; put it there, readable for the engine's user", path, std::strerror(errno));
  if (kind != S_IFREG) return fmt::format("{} isn't a file", path);
  return why_others_may_replace(path, engine_user());
}

}  // namespace

std::vector<std::string> find_obstacles(const Config &config) {
  const bool has_key_file = !config.master_key_file.empty();
  const bool is_first_start = has_key_file && !kind_of(config.master_key_file);
  std::vector<Place> places{{"socket", config.socket, S_IFSOCK, "a socket", true},
                            {"vault", config.vault, S_IFREG, "the vault's file", is_first_start}};
  if (has_key_file) places.push_back({"master_key_file", config.master_key_file, S_IFREG, "a key", is_first_start});
  // Its folder is never made: where that is missing, the volume isn't there.
  if (!config.witness.empty()) places.push_back({"witness", config.witness, S_IFREG, "a witness", false});
  const bool is_shared = config.shared.has_value();
  if (is_shared && !config.shared->mirror.empty()) {
    places.push_back({"mirror", config.shared->mirror, S_IFREG, "a mirror", is_first_start});
  }
  std::vector<std::string> found;
  for (const Place &place : places) {
    if (const auto wrong = what_is_wrong_with(place)) found.push_back(fmt::format("{}: {}", place.key, *wrong));
  }
  if (!is_shared) return found;
  for (const auto &[key, path] :
       {std::pair("ca", config.shared->ca), {"certificate", config.shared->certificate}, {"key", config.shared->key}}) {
    if (path.empty()) continue;
    if (const auto wrong = what_is_wrong_with_file_of_engine(path)) found.push_back(fmt::format("{}: {}", key, *wrong));
  }
  return found;
}

std::vector<ConfigProblem> find_problems(const ParsedConfig &parsed) {
  std::vector<ConfigProblem> problems = parsed.problems;
  if (!problems.empty()) return problems;
  for (std::string &obstacle : find_obstacles(parsed.config)) problems.push_back({0, 0, std::move(obstacle)});
  return problems;
}

std::optional<std::string> what_else_it_needs(const Config &config) {
  if (!config.master_key_file.empty() || std::getenv("CREDENTIALS_DIRECTORY") != nullptr) return std::nullopt;
  return fmt::format("valid; the master key is the systemd credential \"master-key\" of a service with one, else {}",
                     kDefaultMasterKeyPath);
}

}  // namespace ksd::config
