// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// Checks of what the user's own programs need: a VDC, a place for the history, the cache.
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "base/fd.h"
#include "base/trust.h"
#include "doctor.h"
#include "host_database.h"
#include "host_socket.h"

namespace ksctl {
namespace {

// hello_of asks the service what it tells this user; nothing when it can't be asked, which another check says why.
std::optional<HostHelloReply> hello_of(const Patient &patient) {
  const std::optional<ServiceProcess> process = service_process(patient);
  if (process && process->state == 'T') return std::nullopt;
  constexpr uint32_t kLimitMs = 3000;
  HostHelloReply hello{};
  const ksd::UniqueFd link(host::connect_to_service(patient.socket.c_str(), kLimitMs, &hello));
  if (!link) return std::nullopt;
  return hello;
}

ksd::Caller caller_of(const ksd::config::Config &config) {
  gid_t groups[256];
  const int count = getgroups(256, groups);
  return config.identify(geteuid(), getegid(), getpid(), {groups, static_cast<size_t>(count < 0 ? 0 : count)});
}

void look_at_user(const Patient &patient, Findings &findings) {
  const std::optional<HostHelloReply> hello = hello_of(patient);
  std::optional<uint32_t> vdc;
  if (hello) {
    vdc = hello->vdc_id;
  } else if (patient.config) {
    vdc = caller_of(*patient.config).vdc_id.value_or(HOST_NO_VDC);
  } else {
    return findings.unknown("neither the service nor its configuration says which VDC this user has");
  }
  if (*vdc != HOST_NO_VDC) return findings.good(fmt::format("user {} has VDC {}", geteuid(), *vdc));
  if (geteuid() == 0) return findings.good("root has no VDC, and needs one only to keep something itself");
  findings.fault(
      fmt::format("user {} has no VDC, and can keep nothing", geteuid()),
      fmt::format("add {} to users of a [[vdc]] in {}, and: systemctl reload ksd", geteuid(), patient.config_path));
}

// ---- The history.

// can_have_rings tells whether a program of this user could keep its reports in `name` below `parent`, and adds to
// `why` what is in the way.
bool can_have_rings(const std::string &parent, const std::string &name, std::string &why) {
  struct stat status {};
  const std::string path = parent + "/" + name;
  const char *reason = nullptr;
  if (stat(parent.c_str(), &status) != 0) {
    why += fmt::format("{}{}: {}", why.empty() ? "" : "; ", parent, std::strerror(errno));
    return false;
  }
  if (status.st_uid != geteuid()) reason = "belongs to another user";
  if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) reason = "may be written by others";
  if (reason != nullptr) {
    why += fmt::format("{}{} {}", why.empty() ? "" : "; ", parent, reason);
    return false;
  }
  if (lstat(path.c_str(), &status) != 0) return true;  // made with the first report
  if (S_ISDIR(status.st_mode) && status.st_uid == geteuid() && (status.st_mode & 077) == 0) return true;
  why += fmt::format("{}{} isn't a folder of this user alone", why.empty() ? "" : "; ", path);
  return false;
}

void look_at_history(const Patient &patient, Findings &findings) {
  const char *runtime = secure_getenv("XDG_RUNTIME_DIR");
  const std::string usual = runtime != nullptr ? runtime : fmt::format("/run/user/{}", geteuid());
  std::string why;
  if (can_have_rings(ksd::folder_of(patient.socket), "history", why) || can_have_rings(usual, "ks", why)) return;
  findings.fault(fmt::format("reports of this user's programs aren't kept: {}", why),
                 fmt::format("install -d -m 0700 -o {} {}, and rm what stands there as ks", geteuid(), usual));
}

// ---- The cache. A database begins with two heads, each at the start of a page, whose fields are as wide as the words
// of the programs that use it.

enum class Head { kNone, kOf32, kOf64, kEmpty };

Head head_of(int file) {
  uint32_t words[6] = {};
  const ssize_t size = pread(file, words, sizeof words, 0);
  if (size == 0) return Head::kEmpty;
  if (size < static_cast<ssize_t>(sizeof words)) return Head::kNone;
  if (words[host::kDatabase64.page_head_size / 4] == host::kLmdbMagic) return Head::kOf64;
  return words[host::kDatabase32.page_head_size / 4] == host::kLmdbMagic ? Head::kOf32 : Head::kNone;
}

// What another run of the machine has left is thrown away by the next program that opens it, whatever its state.
void look_at_database(const std::string &folder, const host::DatabaseFormat &format, const host::DatabaseMark &this_run,
                      Findings &findings) {
  const std::string path = fmt::format("{}/{}{}", folder, host::kCacheName, format.ending);
  const std::string repair = fmt::format("end the programs that use it, and: rm {}", path);
  const ksd::UniqueFd gate(open((path + host::kGateEnding).c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (gate ? !host::has_mark(gate.get(), this_run) : errno == ENOENT) return;
  const ksd::UniqueFd file(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!file && errno == ENOENT) return;
  struct stat status {};
  if (!file || fstat(file.get(), &status) != 0) {
    return findings.unknown(fmt::format("{}: {}", path, std::strerror(errno)));
  }
  const Head head = head_of(file.get());
  if (head == Head::kEmpty) return;
  const auto whole = static_cast<off_t>(format.map_size);
  if (head == (format.width == 64 ? Head::kOf32 : Head::kOf64)) {
    findings.fault(fmt::format("{} was written by programs of the other width", path), repair);
  } else if (head == Head::kNone) {
    findings.fault(fmt::format("{} is damaged: it has no head", path), repair);
  } else if (status.st_size < whole) {
    findings.fault(fmt::format("{} is damaged: {} bytes of {} are there", path, status.st_size, whole), repair);
  }
}

std::string cache_folder(const Patient &patient) {
  constexpr char kScheme[] = "lmdb://";
  const std::optional<HostHelloReply> hello = hello_of(patient);
  std::string uri;
  if (hello) {
    uri = hello->running_cfg_uri;
  } else if (patient.config) {
    uri = patient.config->cache_uri_of(caller_of(*patient.config));
  }
  return uri.starts_with(kScheme) ? uri.substr(sizeof kScheme - 1) : "";
}

void look_at_cache(const Patient &patient, Findings &findings) {
  const std::string folder = cache_folder(patient);
  if (folder.empty()) return findings.unknown("neither the service nor its configuration names a cache of this user's");
  const std::optional<struct stat> status = is_there(folder, findings);
  if (!status) {
    if (findings.list().empty() && access(ksd::folder_of(folder).c_str(), F_OK) != 0) {
      findings.fault(fmt::format("{}: the folder above the cache isn't there, so PACs aren't shared", folder),
                     fmt::format("install -d -m 0700 -o {} {}", geteuid(), ksd::folder_of(folder)));
    }
    return;
  }
  const mode_t mode = status->st_mode & 07777;
  const bool own = status->st_uid == geteuid() && mode == 0700;
  const bool shared = status->st_uid == 0 && mode == 02770;
  if (!S_ISDIR(status->st_mode) || (!own && !shared)) {
    return findings.fault(fmt::format("{} has owner {} and mode {:04o}; the cache must be user {}'s with mode 0700",
                                      folder, status->st_uid, mode, geteuid()),
                          fmt::format("chown {} {} && chmod 0700 {}", geteuid(), folder, folder));
  }
  host::DatabaseMark this_run{};
  if (!host::mark_of_this_run(&this_run)) {
    return findings.fault(
        fmt::format("the kernel doesn't tell which run of the machine this is, so PACs aren't shared: {}",
                    std::strerror(errno)),
        "let the programs see /proc/sys/kernel/random/boot_id");
  }
  look_at_database(folder, host::kDatabase64, this_run, findings);
  look_at_database(folder, host::kDatabase32, this_run, findings);
}

}  // namespace

std::span<const Check> user_checks() {
  static constexpr Check kChecks[] = {
      {"user", "this user has a VDC", look_at_user},
      {"history", "reports of this user's programs can be kept", look_at_history},
      {"cache", "this user's cache is whole, and for this user alone", look_at_cache},
  };
  return kChecks;
}

}  // namespace ksctl
