// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// Checks of the socket, and of who serves it.
#include <fcntl.h>
#include <fmt/format.h>
#include <linux/capability.h>
#include <sys/socket.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

#include "base/fd.h"
#include "base/trust.h"
#include "doctor.h"
#include "host_socket.h"
#include "host_trust.h"

namespace ksctl {

std::string file_text(const std::string &path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

std::optional<struct stat> is_there(const std::string &path, Findings &findings) {
  struct stat status {};
  if (lstat(path.c_str(), &status) == 0) return status;
  if (errno != ENOENT && errno != ENOTDIR) findings.unknown(fmt::format("{}: {}", path, std::strerror(errno)));
  return std::nullopt;
}

namespace {

constexpr uint32_t kHelloLimitMs = 3000;

char state_of(pid_t pid) {
  const std::string text = file_text(fmt::format("/proc/{}/stat", pid));
  const size_t behind_name = text.rfind(')');
  return behind_name == std::string::npos || behind_name + 2 >= text.size() ? '?' : text[behind_name + 2];
}

// holder_of finds who holds a lock on the file, by device and inode as the kernel lists them; 0 for nobody.
pid_t holder_of(const struct stat &status) {
  const std::string wanted = fmt::format("{:02x}:{:02x}:{}", major(status.st_dev), minor(status.st_dev), status.st_ino);
  std::ifstream locks("/proc/locks");
  for (std::string line; std::getline(locks, line);) {
    // "1: FLOCK  ADVISORY  WRITE 1234 00:2f:5678 0 EOF"; one that waits has an arrow behind the number.
    std::istringstream fields(line);
    std::string number, kind, manner, access, file;
    pid_t pid = 0;
    if (fields >> number >> kind >> manner >> access >> pid >> file && kind == "FLOCK" && file == wanted) return pid;
  }
  return 0;
}

std::string lock_of(const Patient &patient) {
  return patient.socket + ".lock";
}

const char *kStart = "start the service: systemctl start ksd, or ksd --config FILE";

// ---- Connecting, without waiting.

struct Peer {
  int error = 0;  // errno of a connect that failed
  ucred credentials{};
};

Peer connect_once(const std::string &path) {
  Peer peer;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) return {ENAMETOOLONG, {}};
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  const ksd::UniqueFd socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  socklen_t size = sizeof peer.credentials;
  if (!socket || connect(socket.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
      getsockopt(socket.get(), SOL_SOCKET, SO_PEERCRED, &peer.credentials, &size) != 0) {
    peer.error = errno;
  }
  return peer;
}

// served_by gives the process that serves whoever connects. The kernel names the one that began to listen, which is
// another when the socket was passed on.
pid_t served_by(const Patient &patient, const Peer &peer) {
  const std::optional<ServiceProcess> holder = service_process(patient);
  return holder ? holder->pid : peer.credentials.pid;
}

std::string continue_it(pid_t pid) {
  return fmt::format("kill -CONT {}", pid);
}

// ---- The checks.

void look_at_folder(const Patient &patient, Findings &findings) {
  uid_t owner = 0;
  if (host::check_folder_of(patient.socket.c_str(), &owner)) return;
  const int why = errno;
  const std::string folder = ksd::folder_of(patient.socket);
  switch (why) {
    case EPERM:
      // Whose mode it is: the folder's own, or that of one above.
      for (std::string path = folder;; path = ksd::folder_of(path)) {
        struct stat status {};
        const bool writable = stat(path.c_str(), &status) == 0 && (status.st_mode & (S_IWGRP | S_IWOTH)) != 0;
        if (writable && (path == folder || (status.st_mode & S_ISVTX) == 0)) {
          return findings.fault(fmt::format("others may write {} (mode {:04o}), so clients and the service refuse it",
                                            path, status.st_mode & 07777),
                                fmt::format("chmod go-w {}", path));
        }
        if (path == "/" || path == ".") break;
      }
      return findings.fault(fmt::format("{}: others could have put it there", folder),
                            "move the socket to a folder of root's or the service's user");
    case ENOENT:
      return findings.fault(fmt::format("{}: isn't there", folder),
                            fmt::format("mkdir -m 0755 {}, as the service's user, or name the right socket", folder));
    default:
      return findings.unknown(fmt::format("{}: {}", folder, std::strerror(why)));
  }
}

void look_at_mode(const Patient &patient, const struct stat &status, Findings &findings) {
  const mode_t mode = status.st_mode & 07777;
  const Peer peer = connect_once(patient.socket);
  const bool passed_on = peer.error == 0 && served_by(patient, peer) != peer.credentials.pid;
  if (patient.config && !passed_on && mode != patient.config->socket_mode) {
    findings.fault(fmt::format("{} has mode {:04o}, and the configuration says {:04o}", patient.socket, mode,
                               patient.config->socket_mode),
                   fmt::format("chmod {:04o} {}", patient.config->socket_mode, patient.socket));
  } else if (faccessat(AT_FDCWD, patient.socket.c_str(), W_OK, AT_EACCESS) != 0) {
    findings.fault(
        fmt::format("{}: this user may not use it (mode {:04o}, group {})", patient.socket, mode, status.st_gid),
        fmt::format("add the user to group {}, or set socket_mode in the configuration", status.st_gid));
  }
}

void look_at_socket(const Patient &patient, Findings &findings) {
  const std::optional<struct stat> status = is_there(patient.socket, findings);
  if (!status) {
    if (findings.list().empty()) findings.fault(fmt::format("{}: isn't there", patient.socket), kStart);
    return;
  }
  if (!S_ISSOCK(status->st_mode)) {
    return findings.fault(fmt::format("{}: isn't a socket", patient.socket),
                          fmt::format("rm {}, and {}", patient.socket, kStart));
  }
  struct stat folder {};
  if (stat(ksd::folder_of(patient.socket).c_str(), &folder) == 0 &&
      !host::is_trusted_owner(status->st_uid, folder.st_uid)) {
    return findings.fault(fmt::format("{} belongs to user {}, a stranger", patient.socket, status->st_uid),
                          fmt::format("end what that user serves there, rm {}, and {}", patient.socket, kStart));
  }
  look_at_mode(patient, *status, findings);
}

void look_at_answer(const Patient &patient, const Peer &peer, Findings &findings) {
  const pid_t pid = served_by(patient, peer);
  HostHelloReply hello{};
  const ksd::UniqueFd link(host::connect_to_service(patient.socket.c_str(), kHelloLimitMs, &hello));
  if (link) {
    const bool offered = (hello.offers & HOST_OFFERS_CHANNEL) != 0;
    return findings.good(fmt::format("process {} answers; {}", pid,
                                     offered ? "exchanges go by memory that is shared with it (a channel)"
                                             : "exchanges go by the socket, since it offers no channel"));
  }
  switch (errno) {
    case ETIMEDOUT:
      return findings.fault(fmt::format("process {} didn't answer in {} s", pid, kHelloLimitMs / 1000),
                            "look at its log and at what keeps the machine busy");
    case EPERM:
      return findings.fault(
          fmt::format("user {} serves there, a stranger, or the folder is open", peer.credentials.uid),
          fmt::format("see who runs process {}, and who may write the folder", peer.credentials.pid));
    case ECONNREFUSED:
    case ECONNRESET:
      return findings.fault("the service turned the connection away",
                            "look at its log: a limit of [limits] is reached");
    default:
      return findings.fault(
          fmt::format("what serves there doesn't answer as the service does: {}", std::strerror(errno)),
          "see that service and ksctl are of the same version");
  }
}

void look_at_service(const Patient &patient, Findings &findings) {
  const Peer peer = connect_once(patient.socket);
  if (peer.error == EAGAIN) {
    const std::optional<ServiceProcess> process = service_process(patient);
    return findings.fault("no connection is taken: the service is stopped, or has more to do than it can",
                          process && process->state == 'T' ? continue_it(process->pid) : "look at its process");
  }
  if (peer.error == ECONNREFUSED) return findings.fault("nobody listens at the socket", kStart);
  if (peer.error == ENOENT) return findings.fault("there is no socket to connect to", kStart);
  if (peer.error != 0) return findings.unknown(fmt::format("no connection: {}", std::strerror(peer.error)));
  const pid_t pid = served_by(patient, peer);
  if (state_of(pid) == 'T') return findings.fault(fmt::format("process {} is stopped", pid), continue_it(pid));
  look_at_answer(patient, peer, findings);
}

void look_at_lock(const Patient &patient, Findings &findings) {
  const std::string path = lock_of(patient);
  const std::optional<struct stat> status = is_there(path, findings);
  if (!status) return;
  if (!S_ISREG(status->st_mode) || (status->st_mode & 077) != 0) {
    return findings.fault(fmt::format("{} isn't a file of one user alone (mode {:04o}), so no service can start", path,
                                      status->st_mode & 07777),
                          fmt::format("rm {}", path));
  }
  const pid_t holder = holder_of(*status);
  struct stat socket {};
  if (holder == 0 && lstat(patient.socket.c_str(), &socket) == 0 && status->st_uid != socket.st_uid) {
    return findings.fault(fmt::format("{} belongs to user {}, and the socket to user {}, whose service can't start",
                                      path, status->st_uid, socket.st_uid),
                          fmt::format("rm {}", path));
  }
  const int error = connect_once(patient.socket).error;
  if (holder != 0 && (error == ECONNREFUSED || error == ENOENT)) {
    findings.fault(fmt::format("process {} holds {} and serves nothing, so no service can start", holder, path),
                   fmt::format("kill {}", holder));
  } else if (holder != 0) {
    findings.good(fmt::format("held by process {}", holder));
  }
}

void look_at_state_page(const Patient &patient, Findings &findings) {
  const std::string path = patient.socket + HOST_STATE_SUFFIX;
  const std::optional<struct stat> status = is_there(path, findings);
  if (!status) {
    if (findings.list().empty() && connect_once(patient.socket).error == 0) {
      findings.fault(fmt::format("{}: isn't there, so clients don't see trace gates and sup state", path),
                     "start the service again: systemctl restart ksd");
    }
    return;
  }
  HostStatePage page{};
  const ksd::UniqueFd file(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!file && errno == EACCES) return findings.unknown(fmt::format("{}: {}", path, std::strerror(errno)));
  const bool whole = S_ISREG(status->st_mode) && (status->st_mode & (S_IWGRP | S_IWOTH)) == 0 && file &&
                     pread(file.get(), &page, sizeof page, 0) == sizeof page && page.magic == HOST_STATE_MAGIC &&
                     page.version == 1;
  if (whole) return;
  findings.fault(fmt::format("{} isn't a state page that clients trust (mode {:04o})", path, status->st_mode & 07777),
                 fmt::format("rm {}, and start the service again", path));
}

// ---- Limits.

// limit_of reads the soft or hard column of /proc/PID/limits; UINT64_MAX for none.
std::optional<uint64_t> limit_of(const std::string &limits, const char *name, bool hard) {
  const size_t at = limits.find(name);
  if (at == std::string::npos) return std::nullopt;
  std::istringstream fields(limits.substr(at + std::strlen(name)));
  std::string soft, most;
  fields >> soft >> most;
  const std::string &value = hard ? most : soft;
  return value == "unlimited" ? UINT64_MAX : std::strtoull(value.c_str(), nullptr, 10);
}

bool has_capability(pid_t pid, int number) {
  const std::string status = file_text(fmt::format("/proc/{}/status", pid));
  const size_t at = status.find("CapEff:");
  return at != std::string::npos && (std::strtoull(status.c_str() + at + 7, nullptr, 16) >> number & 1) != 0;
}

void look_at_limits(const Patient &patient, Findings &findings) {
  constexpr uint64_t kOwnFiles = 32;  // what the service has open beside connections
  constexpr uint64_t kKeysMemory = uint64_t{4} << 20;
  const Peer peer = connect_once(patient.socket);
  if (peer.error != 0) return findings.unknown("no service runs whose limits could be read");
  const pid_t pid = served_by(patient, peer);
  const std::string limits = file_text(fmt::format("/proc/{}/limits", pid));
  const std::optional<uint64_t> files = limit_of(limits, "Max open files", true);
  const std::optional<uint64_t> locked = limit_of(limits, "Max locked memory", false);
  if (!files || !locked) return findings.unknown(fmt::format("the limits of process {} can't be read", pid));
  const uint64_t connections = patient.config ? patient.config->limits.connections : ksd::config::Limits{}.connections;
  if (*files < connections + kOwnFiles) {
    findings.fault(
        fmt::format("process {} may open {} files, which is too few for {} connections", pid, *files, connections),
        fmt::format("set LimitNOFILE={} in the service's unit, or fewer connections in [limits]", connections + 1024));
  }
  if (*locked < kKeysMemory && !has_capability(pid, CAP_IPC_LOCK)) {
    findings.fault(
        fmt::format("process {} may lock {} bytes of memory, so keys could be swapped to disk", pid, *locked),
        "set LimitMEMLOCK=infinity in the service's unit");
  }
}

}  // namespace

std::optional<ServiceProcess> service_process(const Patient &patient) {
  struct stat status {};
  if (lstat(lock_of(patient).c_str(), &status) != 0) return std::nullopt;
  const pid_t pid = holder_of(status);
  if (pid == 0) return std::nullopt;
  return ServiceProcess{pid, state_of(pid)};
}

uid_t service_user(const Patient &patient) {
  struct stat status {};
  for (const std::string &path : {lock_of(patient), patient.socket, patient.vault}) {
    if (!path.empty() && lstat(path.c_str(), &status) == 0) return status.st_uid;
  }
  return geteuid();
}

std::span<const Check> service_checks() {
  static constexpr Check kChecks[] = {
      {"socket folder", "only its owner may write the socket's folder", look_at_folder},
      {"socket", "the socket is there, of the right owner and mode", look_at_socket},
      {"service", "a service answers at the socket", look_at_service},
      {"lock", "the socket's lock keeps no service from starting", look_at_lock},
      {"state page", "clients can read the state page", look_at_state_page},
      {"limits", "the service may open and lock what it needs", look_at_limits},
  };
  return kChecks;
}

}  // namespace ksctl
