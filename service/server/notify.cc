// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "server/notify.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "base/refuse.h"

namespace ksd::server {
namespace {

constexpr int kFirstPassed = 3;

// A manager that has stopped reading must not stop the service. One that is merely busy is worth a short wait: it may
// be waiting for the news.
constexpr timeval kLongestWait{.tv_sec = 0, .tv_usec = 100'000};

std::string take_variable(const char *name) {
  const char *value = std::getenv(name);
  std::string taken = value != nullptr ? value : "";
  unsetenv(name);
  return taken;
}

int socket_option(int socket, int option) {
  int value = 0;
  socklen_t size = sizeof value;
  return getsockopt(socket, SOL_SOCKET, option, &value, &size) < 0 ? -1 : value;
}

// watch_interval_of_environment is half of what the manager waits for at most, if it watches this process.
std::optional<std::chrono::nanoseconds> watch_interval_of_environment() {
  const std::string pid = take_variable("WATCHDOG_PID");
  const std::string limit = take_variable("WATCHDOG_USEC");
  uint64_t microseconds = 0;
  const char *end = limit.data() + limit.size();
  const bool is_number = std::from_chars(limit.data(), end, microseconds).ptr == end && microseconds > 0;
  if (!is_number || (!pid.empty() && pid != std::to_string(getpid()))) return std::nullopt;
  constexpr uint64_t kLongest = 3'600'000'000;
  return std::chrono::microseconds(std::min(microseconds, kLongest)) / 2;
}

}  // namespace

Notifier::Notifier() : address_(take_variable("NOTIFY_SOCKET")), watch_interval_(watch_interval_of_environment()) {}

void Notifier::ready() {
  tell(refusal_.empty() ? "READY=1\nSTATUS=serving\n"
                        : fmt::format("READY=1\nSTATUS=serving; a changed configuration was refused: {}\n", refusal_));
}

void Notifier::alive() {
  if (watch_interval_) tell("WATCHDOG=1");
}

void Notifier::reloading() {
  refusal_.clear();
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  tell(fmt::format("RELOADING=1\nMONOTONIC_USEC={}", now.tv_sec * 1'000'000 + now.tv_nsec / 1000));
}

void Notifier::stopping() {
  tell("STOPPING=1\nSTATUS=finishing what was begun");
}

void Notifier::tell(const std::string &state) {
  sockaddr_un address{};
  if (address_.empty() || address_.size() >= sizeof address.sun_path) return;
  const UniqueFd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  setsockopt(socket.get(), SOL_SOCKET, SO_SNDTIMEO, &kLongestWait, sizeof kLongestWait);
  address.sun_family = AF_UNIX;
  address_.copy(address.sun_path, sizeof address.sun_path);
  if (address.sun_path[0] == '@') address.sun_path[0] = '\0';  // a name that is in no folder
  const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + address_.size());
  // Waited for once: one that had no time then is asked from now on whether it has.
  const int flags = MSG_NOSIGNAL | (doesnt_read_ ? MSG_DONTWAIT : 0);
  const ssize_t sent =
      sendto(socket.get(), state.data(), state.size(), flags, reinterpret_cast<const sockaddr *>(&address), size);
  doesnt_read_ = sent < 0 && errno == EAGAIN;
}

std::optional<UniqueFd> passed_socket() {
  const std::string pid = take_variable("LISTEN_PID");
  const std::string count = take_variable("LISTEN_FDS");
  take_variable("LISTEN_FDNAMES");
  if (count.empty() || pid != std::to_string(getpid())) return std::nullopt;
  if (count != "1") refuse("{} sockets were passed; pass one", count);
  UniqueFd socket(kFirstPassed);
  fcntl(socket.get(), F_SETFD, FD_CLOEXEC);
  const bool usable = socket_option(socket.get(), SO_DOMAIN) == AF_UNIX &&
                      socket_option(socket.get(), SO_TYPE) == SOCK_SEQPACKET &&
                      socket_option(socket.get(), SO_ACCEPTCONN) == 1;
  if (!usable) {
    refuse(
        "the socket that was passed isn't a listening Unix socket of sequential packets; use ListenSequentialPacket=");
  }
  return socket;
}

}  // namespace ksd::server
