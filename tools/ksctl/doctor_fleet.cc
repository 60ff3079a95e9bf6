// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// Checks of a machine that shares its entries: what its service tells of the fleet, and the files by which it and the
// store know each other.
#include <fcntl.h>
#include <fmt/format.h>
#include <pwd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <vector>

#include "administration.h"
#include "base/fd.h"
#include "base/trust.h"
#include "doctor.h"
#include "engine/certificate.h"
#include "status.h"

namespace ksctl {
namespace {

constexpr char kEngineUser[] = "_ksd-engine";

// ---- What the service tells.

// told_by_service gives nothing when it can't be asked; another check says why.
std::optional<HostFleetReply> told_by_service(const Patient &patient, Findings &findings) {
  const std::optional<ServiceProcess> process = service_process(patient);
  if (process && process->state == 'T') return findings.unknown("the service is stopped"), std::nullopt;
  try {
    ServiceLink link(patient.socket);
    std::vector<uint8_t> reply;
    const KsResult result = link.result_of(HOST_OP_FLEET, {}, &reply);
    HostFleetReply told{};
    if (result == KS_NOT_FOUND) {
      findings.fault("the configuration has [shared], and the service was started without",
                     "start the service again: systemctl restart ksd");
      return std::nullopt;
    }
    if (result != KS_SUCCESS || reply.size() < sizeof told) refuse_cut_reply();
    std::memcpy(&told, reply.data(), sizeof told);
    return told;
  } catch (const Failure &failure) {
    return findings.unknown(failure.text()), std::nullopt;
  }
}

void look_at_engine(const Patient &patient, Findings &findings) {
  const std::optional<HostFleetReply> told = told_by_service(patient, findings);
  if (!told || (told->flags & HOST_FLEET_NO_ENGINE) == 0) return;
  findings.fault(text_in(told->standing),
                 "journalctl -u ksd-engine.socket -u 'ksd-engine@*', and: systemctl restart ksd-engine.socket; without "
                 "a service manager start the service again");
}

void look_at_standing(const Patient &patient, Findings &findings) {
  const std::optional<HostFleetReply> told = told_by_service(patient, findings);
  if (!told) return;
  if ((told->flags & HOST_FLEET_IS_WELL) != 0) {
    return findings.good(fmt::format("machine {} takes part, and the store takes changes", text_in(told->machine)));
  }
  if ((told->flags & HOST_FLEET_NO_ENGINE) != 0) return findings.unknown("without an engine nothing is known of it");
  const bool left_alone = (told->flags & HOST_FLEET_LEFT_ALONE) != 0;
  findings.fault(text_in(told->standing), left_alone ? "mend what it names, then: systemctl restart ksd"
                                                     : "mend what it names; the service goes on by itself");
}

void look_at_age(const Patient &patient, Findings &findings) {
  constexpr uint64_t kOldMs = 5000;  // without trouble it is less than a second
  const std::optional<HostFleetReply> told = told_by_service(patient, findings);
  if (!told) return;
  if (told->age_ms == UINT64_MAX) {
    return findings.fault("no entries are loaded, so reads are refused",
                          "ksctl fleet status tells what keeps them away");
  }
  const uint64_t most_s = patient.config->shared->max_age_s;
  const uint64_t age_s = told->age_ms / 1000;
  if (age_s >= most_s) {
    findings.fault(fmt::format("entries are {} s old, so reads are refused ([shared] max_age_s is {})", age_s, most_s),
                   "mend what keeps the service from the store; reads go on by themselves");
  } else if (told->age_ms > kOldMs) {
    findings.fault(fmt::format("entries are {} s old; at {} s reads will be refused", age_s, most_s),
                   "mend what keeps the service from the store");
  } else {
    findings.good(fmt::format("entries are {} ms old", told->age_ms));
  }
}

// ---- Files. The engine reads them as its own user, where there is one, else as that of the service.

struct User {
  uid_t uid;
  gid_t gid;
};

User engine_user(const Patient &patient) {
  if (const passwd *user = getpwnam(kEngineUser)) return {user->pw_uid, user->pw_gid};
  const passwd *user = getpwuid(service_user(patient));
  return user != nullptr ? User{user->pw_uid, user->pw_gid} : User{service_user(patient), getegid()};
}

// may tells whether the user has a right, given as everybody's is.
bool may(const User &user, const struct stat &status, mode_t right) {
  if (user.uid == 0) return true;
  if (status.st_uid == user.uid) return (status.st_mode & right << 6) != 0;
  if (status.st_gid == user.gid) return (status.st_mode & right << 3) != 0;
  return (status.st_mode & right) != 0;
}

// look_at_file adds what keeps the engine from a file.
void look_at_file(const User &user, const std::string &path, bool is_key, Findings &findings) {
  std::vector<std::string> folders{ksd::folder_of(path)};
  while (folders.back() != "/" && folders.back() != ".") folders.push_back(ksd::folder_of(folders.back()));
  struct stat status {};
  for (auto folder = folders.rbegin(); folder != folders.rend(); ++folder) {
    if (stat(folder->c_str(), &status) != 0) break;
    if (!may(user, status, S_IXOTH)) {
      return findings.fault(fmt::format("user {}, the engine's, may not enter {}", user.uid, *folder),
                            fmt::format("chmod o+x {}", *folder));
    }
  }
  if (stat(path.c_str(), &status) != 0) {
    if (errno != ENOENT) return findings.unknown(fmt::format("{}: {}", path, std::strerror(errno)));
    return findings.fault(fmt::format("{}: isn't there", path), "put it there, or name another one under [shared]");
  }
  if (!may(user, status, S_IROTH)) {
    findings.fault(fmt::format("user {}, the engine's, may not read {}", user.uid, path),
                   is_key ? fmt::format("chown {} {} && chmod 0400 {}", user.uid, path, path)
                          : fmt::format("chmod 0644 {}", path));
  }
  if (is_key && (status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
    findings.fault(fmt::format("others may read {} (mode {:04o})", path, status.st_mode & 07777),
                   fmt::format("chown {} {} && chmod 0400 {}; where they may have read it, make another one", user.uid,
                               path, path));
  }
  if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    findings.fault(fmt::format("others may write {} (mode {:04o})", path, status.st_mode & 07777),
                   fmt::format("chmod go-w {}", path));
  }
}

void look_at_files(const Patient &patient, Findings &findings) {
  const ksd::config::Shared &shared = *patient.config->shared;
  if (shared.ca.empty()) return findings.good("none are needed: the store is on this machine");
  const User user = engine_user(patient);
  look_at_file(user, shared.ca, false, findings);
  look_at_file(user, shared.certificate, false, findings);
  look_at_file(user, shared.key, true, findings);
}

// ---- Certificates, which the engine knows how to read.

// output_of gives what a program prints, nothing when it can't be run or fails.
std::optional<std::string> output_of(const std::vector<std::string> &command) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return std::nullopt;
  const ksd::UniqueFd ours(ends[0]);
  ksd::UniqueFd its_own(ends[1]);
  const pid_t child = fork();
  if (child == 0) {
    std::vector<char *> arguments;
    for (const std::string &word : command) arguments.push_back(const_cast<char *>(word.c_str()));
    arguments.push_back(nullptr);
    dup2(its_own.get(), STDOUT_FILENO);
    execv(arguments.front(), arguments.data());
    _exit(127);
  }
  if (child < 0) return std::nullopt;
  its_own = ksd::UniqueFd();
  std::string text;
  char part[512];
  for (ssize_t size; (size = read(ours.get(), part, sizeof part)) > 0;) text.append(part, static_cast<size_t>(size));
  int status = 0;
  if (waitpid(child, &status, 0) != child || status != 0) return std::nullopt;
  return text;
}

std::string engine_program() {
  const char *named = std::getenv("KSD_ENGINE");
  struct stat status {};
  if (named != nullptr && stat(named, &status) == 0 && S_ISREG(status.st_mode)) return named;
  return KSD_ENGINE_PROGRAM;
}

void look_at_certificate(const std::string &engine, const std::string &path, Findings &findings) {
  constexpr int64_t kDay = 24 * 3600;
  if (access(path.c_str(), R_OK) != 0) {
    return findings.unknown(fmt::format("{}: {}", path, std::strerror(errno)));
  }
  const std::optional<std::string> told = output_of({engine, "--expiry", path});
  if (!told) return findings.unknown(fmt::format("{} can't be run, which reads certificates", engine));
  const int64_t end = std::atoll(told->c_str());
  if (end == 0) {
    return findings.fault(fmt::format("{}: there is no certificate in it", path), "put one there, in PEM");
  }
  const int64_t left = end - std::time(nullptr);
  const std::string when = time_text(static_cast<uint64_t>(end));
  const std::string repair = fmt::format("put another one in the place of {}; nothing has to be restarted", path);
  if (left <= 0) return findings.fault(fmt::format("{} has expired on {}", path, when), repair);
  if (left < ksd::engine::kShortOfCertificates) {
    return findings.fault(fmt::format("{} expires on {}, in {} days", path, when, left / kDay), repair);
  }
  findings.good(fmt::format("{} is good until {}", path, when));
}

void look_at_certificates(const Patient &patient, Findings &findings) {
  const ksd::config::Shared &shared = *patient.config->shared;
  if (shared.ca.empty()) return findings.good("none are needed: the store is on this machine");
  for (const std::string &path : {shared.certificate, shared.ca}) {
    look_at_certificate(engine_program(), path, findings);
  }
}

}  // namespace

std::span<const Check> fleet_checks() {
  static constexpr Check kChecks[] = {
      {"fleet engine", "the service has an engine, which reaches the store for it", look_at_engine},
      {"fleet", "the store has what the fleet's machines made, and takes changes", look_at_standing},
      {"fleet age", "the entries are young enough to be read", look_at_age},
      {"fleet files", "the engine can read what TLS needs, and nobody else the key", look_at_files},
      {"fleet certificates", "they are good for two weeks at least", look_at_certificates},
  };
  return kChecks;
}

}  // namespace ksctl
