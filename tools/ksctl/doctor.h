// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// doctor.h: what `ksctl doctor` looks at. A check looks and changes nothing: it takes no lock, and opens nothing for
// writing. Each runs in a process of its own, so that one that hangs or dies says nothing about the others.
#ifndef TOOLS_KSCTL_DOCTOR_H
#define TOOLS_KSCTL_DOCTOR_H

#include <sys/stat.h>

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "config/config.h"

namespace ksctl {

// Patient is what all checks know. A check that needs more finds it out itself.
struct Patient {
  std::string socket;
  std::string config_path;
  bool config_named = false;  // by the user, so that it has to be there
  // Of the configuration and its options; without one nothing is known of the vault.
  std::optional<ksd::config::Config> config;
  std::string vault;            // empty: not known, or none is used
  bool is_shared = false;       // the entries are those of a fleet, by the configuration that is there then
  std::string master_key_file;  // empty: systemd's, or not known
};

enum class Verdict { kGood, kFault, kUnknown };

struct Finding {
  Verdict verdict = Verdict::kGood;
  std::string text;
  std::string repair;  // of a fault: what to run or do
};

// Findings takes what a check finds. One that adds nothing has found everything good.
class Findings {
 public:
  void good(std::string text) { list_.push_back({Verdict::kGood, std::move(text), ""}); }
  void fault(std::string text, std::string repair) {
    list_.push_back({Verdict::kFault, std::move(text), std::move(repair)});
  }
  // unknown is for what this user can't look at.
  void unknown(std::string text) { list_.push_back({Verdict::kUnknown, std::move(text), ""}); }

  const std::vector<Finding> &list() const { return list_; }

 private:
  std::vector<Finding> list_;
};

struct Check {
  const char *name;
  const char *looks_at;
  void (*run)(const Patient &patient, Findings &findings);
};

std::span<const Check> service_checks();  // doctor_service.cc: the socket and what serves there
std::span<const Check> vault_checks();    // doctor_vault.cc: the configuration, the vault, its key, the disks
std::span<const Check> fleet_checks();    // doctor_fleet.cc: for a patient whose entries are those of a fleet
std::span<const Check> user_checks();     // doctor_user.cc: what the user's own programs need

// ---- What checks share.

// A process as the kernel tells of it.
struct ServiceProcess {
  pid_t pid = 0;
  char state = '?';  // 'T' for one that is stopped
};

// service_process finds who holds the lock of the socket, by the kernel's list of locks; nothing when nobody does.
std::optional<ServiceProcess> service_process(const Patient &patient);

// service_user gives the user that the service runs as or last ran as, this process's own when that can't be told.
uid_t service_user(const Patient &patient);

// look_at_writers adds a fault when somebody other than root, the service's user and this one could change the file or
// folder.
void look_at_writers(const Patient &patient, const std::string &path, Findings &findings);

// is_there tells about the file, or nothing. A file that can't be looked at is noted, one that is absent is not.
std::optional<struct stat> is_there(const std::string &path, Findings &findings);

// file_text gives a small file's text, as those of /proc; empty when it can't be read.
std::string file_text(const std::string &path);

}  // namespace ksctl

#endif
