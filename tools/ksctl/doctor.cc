// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// doctor.cc: looks for what keeps a service or its clients from working, and says what to do about it.
#include "doctor.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include "base/fd.h"
#include "command.h"
#include "config/layers.h"

namespace ksctl {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kLimit(5);  // of all checks, which run at the same time

// ---- A check in a process of its own. Its findings come through a pipe, each a verdict and two texts that end with 0.

struct RunningCheck {
  const Check *check;
  pid_t pid;
  ksd::UniqueFd result;
};

std::string packed(const Findings &findings) {
  std::string bytes;
  for (const Finding &finding : findings.list()) {
    bytes += static_cast<char>('0' + static_cast<int>(finding.verdict));
    for (std::string text : {finding.text, finding.repair}) {
      std::erase(text, '\0');
      bytes += text + '\0';
    }
  }
  return bytes + '.';
}

// unpacked gives nothing for what a check that came to its end didn't write.
std::optional<std::vector<Finding>> unpacked(const std::string &bytes) {
  std::vector<Finding> list;
  size_t at = 0;
  const auto text = [&] {
    const size_t end = bytes.find('\0', at);
    const std::string found = bytes.substr(at, end - at);
    at = end == std::string::npos ? bytes.size() : end + 1;
    return found;
  };
  while (at < bytes.size()) {
    const char kind = bytes[at++];
    if (kind == '.') return list;
    if (kind < '0' || kind > '2') break;
    Finding finding{static_cast<Verdict>(kind - '0'), text(), ""};
    finding.repair = text();
    list.push_back(std::move(finding));
  }
  return std::nullopt;
}

[[noreturn]] void examine(const Check &check, const Patient &patient, int result) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  Findings findings;
  try {
    check.run(patient, findings);
  } catch (const std::exception &error) {
    findings.unknown(error.what());
  }
  const std::string bytes = packed(findings);
  for (size_t sent = 0; sent < bytes.size();) {
    const ssize_t written = write(result, bytes.data() + sent, bytes.size() - sent);
    if (written < 0 && errno != EINTR) break;
    if (written > 0) sent += static_cast<size_t>(written);
  }
  _exit(0);
}

RunningCheck begin(const Check &check, const Patient &patient) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) throw Failure(Exit::kFailed, fmt::format("no pipe: {}; try again", strerror(errno)));
  const pid_t pid = fork();
  if (pid == 0) examine(check, patient, ends[1]);
  close(ends[1]);
  if (pid < 0) throw Failure(Exit::kFailed, fmt::format("no process: {}; try again", strerror(errno)));
  return {&check, pid, ksd::UniqueFd(ends[0])};
}

// A process that the kernel doesn't let go of, as on a file system that doesn't answer, isn't waited for.
std::vector<Finding> end(const RunningCheck &running, Clock::time_point deadline) {
  std::string bytes;
  bool in_time = true;
  while (true) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    pollfd state{.fd = running.result.get(), .events = POLLIN, .revents = 0};
    const int ready = poll(&state, 1, static_cast<int>(std::max<long>(left, 0)));
    if (ready < 0 && errno == EINTR) continue;
    in_time = ready > 0;
    if (!in_time) break;
    char part[4096];
    const ssize_t size = read(running.result.get(), part, sizeof part);
    if (size <= 0) break;
    bytes.append(part, static_cast<size_t>(size));
  }
  if (!in_time) kill(running.pid, SIGKILL);
  while (waitpid(running.pid, nullptr, in_time ? 0 : WNOHANG) < 0 && errno == EINTR) continue;
  std::optional<std::vector<Finding>> found = unpacked(bytes);
  if (!in_time)
    return {{Verdict::kFault, "this could not be looked at in 5 s",
             "look at what it stands on: a disk or file system that doesn't answer, a machine without memory"}};
  if (!found) return {{Verdict::kUnknown, "the check itself came to no end", ""}};
  if (found->empty()) found->push_back({});
  return *found;
}

Patient patient_of(const Session &session, const Arguments &arguments) {
  Patient patient;
  patient.socket = session.socket;
  patient.config_named = arguments.has("--config");
  const std::vector<std::string> layers = ksd::config::find_layers(ksd::config::standard_folders());
  patient.config_path = arguments.text_or("--config", layers.empty() ? "/etc/ks/ksd.toml" : layers.front().c_str());
  if (access(patient.config_path.c_str(), R_OK) == 0) {
    ksd::config::ParsedConfig parsed =
        patient.config_named ? ksd::config::load_config(patient.config_path) : ksd::config::load_layers(layers);
    if (parsed.problems.empty()) patient.config = std::move(parsed.config);
  }
  if (patient.config) {
    patient.is_shared = patient.config->shared.has_value();
    if (!patient.is_shared) patient.vault = patient.config->vault;
    patient.master_key_file = patient.config->master_key_file;
    // What the configuration names counts where nobody named another one.
    if (patient.config_named && patient.socket == HOST_DEFAULT_SOCKET) patient.socket = patient.config->socket;
  }
  patient.vault = arguments.text_or("--vault", patient.vault.c_str());
  patient.master_key_file = arguments.text_or("--master-key-file", patient.master_key_file.c_str());
  return patient;
}

const char *word_of(Verdict verdict) {
  switch (verdict) {
    case Verdict::kGood:
      return "good";
    case Verdict::kFault:
      return "fault";
    default:
      return "not looked at";
  }
}

void doctor(Session &session, const Arguments &arguments) {
  const Patient patient = patient_of(session, arguments);
  std::vector<RunningCheck> running;
  const std::span<const Check> of_fleet = patient.is_shared ? fleet_checks() : std::span<const Check>();
  for (const auto checks : {service_checks(), vault_checks(), of_fleet, user_checks()}) {
    for (const Check &check : checks) running.push_back(begin(check, patient));
  }
  const Clock::time_point deadline = Clock::now() + kLimit;
  List rows;
  int faults = 0;
  for (const RunningCheck &check : running) {
    for (const Finding &finding : end(check, deadline)) {
      faults += finding.verdict == Verdict::kFault ? 1 : 0;
      rows.push_back(Object{{"check", check.check->name},
                            {"verdict", word_of(finding.verdict)},
                            {"finding", finding.text.empty() ? check.check->looks_at : finding.text},
                            {"repair", finding.repair}});
    }
  }
  static constexpr Column kColumns[] = {
      {"check", "CHECK"}, {"verdict", "VERDICT"}, {"finding", "FINDING"}, {"repair", "REPAIR"}};
  session.output.table("checks", kColumns, rows, "");
  if (faults > 0) {
    throw Failure(Exit::kFailed, fmt::format("{}: {} found; the repair stands beside each", patient.socket,
                                             faults == 1 ? "1 fault" : fmt::format("{} faults", faults)));
  }
}

}  // namespace

std::span<const Command> doctor_commands() {
  static constexpr Parameter kDoctor[] = {
      {"--config", Kind::kFile, "The service's configuration, instead of those in /etc/ks, /run/ks and of the vendor"},
      {"--vault", Kind::kFile, "The vault, instead of the configuration's"},
      {"--master-key-file", Kind::kFile, "The master key, instead of the configuration's"},
  };
  static constexpr Command kCommands[] = {
      {"doctor", "Look for what keeps the service or this user's programs from working", kDoctor, doctor,
       "It changes nothing and takes no lock. Run it as the service's user or root to look at vault and key, as the "
       "user with the trouble to look at the rest. Exit status 1: a fault was found."},
  };
  return kCommands;
}

}  // namespace ksctl
