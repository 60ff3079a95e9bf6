// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// Checks of the configuration, the vault, its key and the disks. The vault is read as a file that nobody writes,
// without SQLite's locks: what is in its log isn't seen then, and is looked for by its bytes.
#include <fcntl.h>
#include <fmt/format.h>
#include <sqlite3.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <memory>
#include <set>

#include "base/fd.h"
#include "base/trust.h"
#include "config/layers.h"
#include "doctor.h"
#include "vault/log_file.h"
#include "vault/record.h"
#include "vault/seal.h"

namespace ksctl {

void look_at_writers(const Patient &patient, const std::string &path, Findings &findings) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) {
    if (errno != ENOENT) findings.unknown(fmt::format("{}: {}", path, std::strerror(errno)));
    return;
  }
  const uid_t user = service_user(patient);
  if (status.st_uid != 0 && status.st_uid != user && status.st_uid != geteuid()) {
    return findings.fault(
        fmt::format("{} belongs to user {}, who is neither root nor the service's user {}", path, status.st_uid, user),
        fmt::format("chown {} {}", user, path));
  }
  const bool sticky = S_ISDIR(status.st_mode) && (status.st_mode & S_ISVTX) != 0;
  if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0 && !sticky) {
    findings.fault(fmt::format("others may write {} (mode {:04o})", path, status.st_mode & 07777),
                   fmt::format("chmod go-w {}", path));
  }
}

namespace {

using ksd::folder_of;
using ksd::SecretBytes;
using ksd::vault::KeyId;

void look_at_config(const Patient &patient, Findings &findings) {
  const std::string &path = patient.config_path;
  if (access(path.c_str(), F_OK) != 0 && errno == ENOENT) {
    if (!patient.config_named) return findings.unknown(fmt::format("{}: isn't there; --config names another", path));
    return findings.fault(fmt::format("{}: isn't there", path), "name the service's configuration by --config");
  }
  if (access(path.c_str(), R_OK) != 0) return findings.unknown(fmt::format("{}: {}", path, std::strerror(errno)));
  const std::string check = patient.config_named ? "ksd --check --config " + path : "ksd --check";
  const auto parsed = patient.config_named
                          ? ksd::config::load_config(path)
                          : ksd::config::load_layers(ksd::config::find_layers(ksd::config::standard_folders()));
  for (const ksd::config::ConfigProblem &problem : parsed.problems) {
    findings.fault(ksd::config::describe(path, problem), "mend it, and see with: " + check);
  }
  look_at_writers(patient, path, findings);
  look_at_writers(patient, folder_of(path), findings);
}

bool vault_is_known(const Patient &patient, Findings &findings) {
  if (patient.vault.empty() && patient.is_shared) {
    findings.good("there is none: the entries are those of a fleet");
    return false;
  }
  if (patient.vault.empty()) findings.unknown("no configuration says where the vault is; --config or --vault does");
  return !patient.vault.empty();
}

void look_at_vault(const Patient &patient, Findings &findings) {
  if (!vault_is_known(patient, findings)) return;
  const std::string folder = folder_of(patient.vault);
  struct stat status {};
  if (stat(folder.c_str(), &status) != 0) {
    if (errno != ENOENT && errno != ENOTDIR)
      return findings.unknown(fmt::format("{}: {}", folder, std::strerror(errno)));
    return findings.fault(fmt::format("{}: the vault's folder isn't there", folder),
                          fmt::format("install -d -m 0700 -o {} {}", service_user(patient), folder));
  }
  look_at_writers(patient, folder, findings);
  if (is_there(patient.vault, findings)) return look_at_writers(patient, patient.vault, findings);
  if (!findings.list().empty()) return;
  for (const char *left : {"-wal", "-witness"}) {
    if (is_there(patient.vault + left, findings)) {
      return findings.fault(fmt::format("{}: the vault is gone, but its {} is there", patient.vault, left + 1),
                            "put the vault back, or a backup in its place");
    }
  }
  findings.good("there is none yet; the service makes it at its first start");
}

// ---- The key.

std::string error_of_key(const struct stat &status, const Patient &patient) {
  const uid_t user = service_user(patient);
  const mode_t mode = status.st_mode & 07777;
  if (!S_ISREG(status.st_mode)) return "isn't a regular file";
  if (mode != 0600 && mode != 0400) return fmt::format("has mode {:04o}, and must have 0600", mode);
  if (status.st_uid != user) return fmt::format("belongs to user {}, and the service runs as {}", status.st_uid, user);
  return "";
}

void look_at_key(const Patient &patient, Findings &findings) {
  const std::string &path = patient.master_key_file;
  if (path.empty()) return findings.unknown("the key isn't in a file that the configuration names");
  const std::optional<struct stat> status = is_there(path, findings);
  if (!status) {
    Findings vault;
    if (findings.list().empty() && !patient.vault.empty() && is_there(patient.vault, vault)) {
      findings.fault(fmt::format("{}: the master key isn't there, but the vault that it opens is", path),
                     "put the key back from where it was backed up");
    }
    return;
  }
  if (const std::string error = error_of_key(*status, patient); !error.empty()) {
    findings.fault(fmt::format("{} {}", path, error),
                   fmt::format("chown {} {} && chmod 0600 {}", service_user(patient), path, path));
  }
  look_at_writers(patient, folder_of(path), findings);
}

// read_key gives the key, or nothing and why it can't be looked at.
std::shared_ptr<const SecretBytes> read_key(const Patient &patient, Findings &findings) {
  const std::string &path = patient.master_key_file;
  if (path.empty()) return findings.unknown("the key isn't in a file that the configuration names"), nullptr;
  const ksd::UniqueFd file(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!file) return findings.unknown(fmt::format("{}: {}", path, std::strerror(errno))), nullptr;
  const std::shared_ptr<SecretBytes> bytes = SecretBytes::allocate(ksd::vault::kMasterKeySize + 1);
  if (pread(file.get(), bytes->writable().data(), bytes->size(), 0) != ssize_t{ksd::vault::kMasterKeySize}) {
    return findings.unknown(fmt::format("{}: isn't the bare key, by which the vault could be compared", path)), nullptr;
  }
  return SecretBytes::copy_of(bytes->bytes().first(ksd::vault::kMasterKeySize));
}

struct Closes {
  void operator()(sqlite3 *db) const { sqlite3_close_v2(db); }
  void operator()(sqlite3_stmt *statement) const { sqlite3_finalize(statement); }
};

using Blob = std::vector<uint8_t>;

// blobs_of gives the blobs of the vault's only row. "immutable" is SQLite's word for taking no lock.
std::optional<std::vector<Blob>> blobs_of(const std::string &path) {
  std::string uri = "file:";
  for (const char c : path) uri += fmt::format("%{:02x}", static_cast<unsigned>(static_cast<uint8_t>(c)));
  sqlite3 *opened = nullptr;
  const int error =
      sqlite3_open_v2((uri + "?immutable=1").c_str(), &opened, SQLITE_OPEN_READONLY | SQLITE_OPEN_URI, nullptr);
  const std::unique_ptr<sqlite3, Closes> db(opened);
  sqlite3_stmt *prepared = nullptr;
  if (error != SQLITE_OK || sqlite3_prepare_v2(opened, "SELECT * FROM vault", -1, &prepared, nullptr) != SQLITE_OK) {
    return std::nullopt;
  }
  const std::unique_ptr<sqlite3_stmt, Closes> statement(prepared);
  if (sqlite3_step(prepared) != SQLITE_ROW) return std::nullopt;
  std::vector<Blob> blobs;
  for (int i = 0; i < sqlite3_column_count(prepared); ++i) {
    const auto *bytes = static_cast<const uint8_t *>(sqlite3_column_blob(prepared, i));
    if (bytes != nullptr) blobs.emplace_back(bytes, bytes + sqlite3_column_bytes(prepared, i));
  }
  return blobs;
}

bool log_tells_of(const std::string &path, const KeyId &id) {
  const std::string log = file_text(path);
  return std::search(log.begin(), log.end(), id.begin(), id.end(),
                     [](char a, uint8_t b) { return static_cast<uint8_t>(a) == b; }) != log.end();
}

void look_at_vault_key(const Patient &patient, Findings &findings) {
  if (!vault_is_known(patient, findings) || !is_there(patient.vault, findings)) return;
  const std::shared_ptr<const SecretBytes> key = read_key(patient, findings);
  if (key == nullptr) return;
  const std::optional<std::vector<Blob>> blobs = blobs_of(patient.vault);
  if (!blobs) {
    if (access(patient.vault.c_str(), R_OK) != 0) {
      return findings.unknown(fmt::format("{}: {}", patient.vault, std::strerror(errno)));
    }
    return findings.fault(fmt::format("{}: isn't a vault, or is damaged", patient.vault),
                          "put a backup of the vault in its place");
  }
  const KeyId id = ksd::vault::key_id_of(*key);
  const bool its_own = std::any_of(blobs->begin(), blobs->end(), [&id](const Blob &blob) {
    return std::equal(blob.begin(), blob.end(), id.begin(), id.end());
  });
  if (its_own || log_tells_of(patient.vault + "-wal", id)) return;
  findings.fault(
      fmt::format("{} belongs to another master key than that in {}", patient.vault, patient.master_key_file),
      "put back the key that the vault was made with");
}

// in_use tells from a header whether the vault was left open; nothing when none of the blobs is the sealed header.
std::optional<bool> in_use(const SecretBytes &key, const std::vector<Blob> &blobs) {
  for (const Blob &id_bytes : blobs) {
    ksd::vault::VaultId vault_id{};
    if (id_bytes.size() != vault_id.size()) continue;
    std::copy(id_bytes.begin(), id_bytes.end(), vault_id.begin());
    const ksd::vault::Sealer sealer(key, vault_id);
    for (const Blob &blob : blobs) {
      const auto plain = sealer.open(ksd::vault::RecordKind::kHeader, 0, blob);
      const auto header = plain ? ksd::vault::decode_header(plain->bytes()) : std::nullopt;
      if (header) return header->in_use;
    }
  }
  return std::nullopt;
}

void look_at_log(const Patient &patient, Findings &findings) {
  if (!vault_is_known(patient, findings) || !is_there(patient.vault, findings)) return;
  const std::string log = patient.vault + "-wal";
  const std::string repair =
      "put vault, log and witness of one moment back, or a backup of all three; else start once "
      "with ksd --accept-loss";
  const ksd::vault::LogFile found = ksd::vault::examine_log(log);
  const bool served = service_process(patient).has_value();
  // A service that runs is just writing there.
  if (found.damage && !served) return findings.fault(fmt::format("{}: {}", log, *found.damage), repair);
  if (found.holds_frames) return;
  const std::shared_ptr<const SecretBytes> key = read_key(patient, findings);
  const std::optional<std::vector<Blob>> blobs = key ? blobs_of(patient.vault) : std::nullopt;
  const std::optional<bool> left_open = blobs ? in_use(*key, *blobs) : std::nullopt;
  if (left_open && *left_open) {
    findings.fault(fmt::format("{}: the vault's log is missing or empty, and the vault was in use when its service "
                               "ended",
                               log),
                   repair);
  } else if (!left_open && findings.list().empty()) {
    findings.unknown("whether the vault was closed in order only the right key tells");
  }
}

// ---- Disks and clock.

void look_at_disk(const std::string &folder, const char *what, std::set<unsigned long> &seen, Findings &findings) {
  constexpr uint64_t kLeast = uint64_t{4} << 20;
  struct statvfs disk {};
  if (statvfs(folder.c_str(), &disk) != 0 || !seen.insert(disk.f_fsid).second) return;
  const uint64_t room = uint64_t{disk.f_bavail} * disk.f_frsize;
  if ((disk.f_flag & ST_RDONLY) != 0) {
    findings.fault(fmt::format("{}: the disk of {} is read-only", folder, what),
                   fmt::format("mount -o remount,rw {}", folder));
  } else if (room < kLeast) {
    findings.fault(fmt::format("{}: the disk of {} is full, {} KiB are left", folder, what, room / 1024),
                   fmt::format("make room on it: du -xh {} | sort -h | tail", folder));
  } else if (disk.f_files != 0 && disk.f_favail == 0) {
    findings.fault(fmt::format("{}: the disk of {} has no room for another file", folder, what),
                   fmt::format("remove files that nobody needs: du --inodes -x {} | sort -n | tail", folder));
  }
}

void look_at_disks(const Patient &patient, Findings &findings) {
  std::set<unsigned long> seen;
  if (!patient.vault.empty()) look_at_disk(folder_of(patient.vault), "the vault", seen, findings);
  if (patient.is_shared && !patient.config->shared->mirror.empty()) {
    look_at_disk(folder_of(patient.config->shared->mirror), "the mirror", seen, findings);
  }
  look_at_disk(folder_of(patient.socket), "the socket", seen, findings);
}

// A PAC was issued before it was stored. A clock before that takes PACs that have expired for good ones, and those that
// are good for not yet issued.
void look_at_clock(const Patient &patient, Findings &findings) {
  constexpr time_t kGrace = 60;
  const time_t now = time(nullptr);
  for (const std::string &path : {patient.vault, patient.vault + "-witness", patient.vault + "-wal",
                                  patient.config_path, patient.socket, patient.socket + ".state"}) {
    struct stat status {};
    if (path.empty() || path.front() == '-' || lstat(path.c_str(), &status) != 0) continue;
    if (status.st_mtim.tv_sec > now + kGrace) {
      return findings.fault(fmt::format("the clock is {} s behind the last change of {}, so behind the issue of what "
                                        "was stored then",
                                        status.st_mtim.tv_sec - now, path),
                            "set the clock: timedatectl set-ntp true, or date --set");
    }
  }
}

}  // namespace

std::span<const Check> vault_checks() {
  static constexpr Check kChecks[] = {
      {"configuration", "it is right, and nobody else may write it", look_at_config},
      {"vault", "the vault and its folder are there, and nobody else may write them", look_at_vault},
      {"master key", "the key is there, for the service alone", look_at_key},
      {"vault key", "the vault belongs to this key", look_at_vault_key},
      {"vault log", "what was acknowledged is in the vault or its log", look_at_log},
      {"disk", "there is room for changes", look_at_disks},
      {"clock", "the clock isn't behind what was stored", look_at_clock},
  };
  return kChecks;
}

}  // namespace ksctl
