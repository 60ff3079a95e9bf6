// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// ksd-engine: carries sealed records between a keystore service and the store of its fleet, in a process of its own, so
// that the libraries for network and TLS stay away from keys. It serves the one service at the other end of the socket
// that is its standard input, and ends with that connection. When the socket is one of datagrams instead, connections
// arrive by it, and each gets a process.
#include <fmt/format.h>
#include <grpc/support/log.h>
#include <spdlog/spdlog.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <mutex>
#include <string_view>
#include <thread>

#include "base/log.h"
#include "engine/engine.h"
#include "link/frames.h"
#include "link/pass.h"

namespace {

using ksd::link::FromEngine;

constexpr int kSocket = STDIN_FILENO;
constexpr int kWrongUse = 2;

// Ends without looking back: nothing here outlives the connection, and threads of the library may be anywhere.
[[noreturn]] void end(int status) {
  std::fflush(stderr);
  _exit(status);
}

bool tell(const FromEngine &report) {
  static std::vector<uint8_t> frame;
  frame.clear();
  if (!append(report, frame)) return false;
  for (size_t sent = 0; sent < frame.size();) {
    const ssize_t size = send(kSocket, frame.data() + sent, frame.size() - sent, MSG_NOSIGNAL);
    if (size < 0 && errno == EINTR) continue;
    if (size < 0) end(0);
    sent += static_cast<size_t>(size);
  }
  return true;
}

[[noreturn]] void stop(const std::string &why) {
  spdlog::error("{}", why);
  tell(ksd::link::Stopped{ksd::link::one_line(why)});
  end(1);
}

// Requests reads what the daemon says.
class Requests {
 public:
  ksd::link::ToEngine next() {
    while (true) {
      if (const auto frame = incoming_.next()) {
        if (auto request = ksd::link::read_to_engine(*frame)) return *std::move(request);
        stop("the service said what this engine doesn't understand; both have to be of one version");
      }
      if (incoming_.broken()) stop("the service announced more than any message has");
      const std::span<uint8_t> room = incoming_.room();
      const ssize_t size = read(kSocket, room.data(), room.size());
      if (size < 0 && errno == EINTR) continue;
      if (size <= 0) end(0);
      incoming_.added(static_cast<size_t>(size));
    }
  }

 private:
  ksd::link::Incoming incoming_;
};

// What the library complains about, connections that fail for the most part, is told once in a while.
void pass_on_complaint(gpr_log_func_args *complaint) {
  using Clock = std::chrono::steady_clock;
  static std::mutex mutex;
  static Clock::time_point next{};
  const std::lock_guard lock(mutex);
  if (Clock::now() < next) return;
  next = Clock::now() + std::chrono::seconds(10);
  spdlog::warn("{}", ksd::link::one_line(complaint->message));
}

[[noreturn]] void serve() {
  gpr_set_log_function(pass_on_complaint);
  Requests requests;
  const ksd::link::ToEngine first = requests.next();
  const auto *start = std::get_if<ksd::link::Start>(&first);
  if (start == nullptr || start->version != ksd::link::kVersion) {
    stop(fmt::format("the service doesn't begin as version {} does; both have to be of one version",
                     ksd::link::kVersion));
  }
  try {
    static ksd::engine::Engine engine(*start, tell);
    tell(ksd::link::Started{});
    std::thread([] { engine.run(); }).detach();
    while (true) engine.take(requests.next());
  } catch (const std::exception &error) {
    stop(error.what());
  }
}

// Each connection that the daemon passes gets a process of its own: what becomes of one is nothing to the next.
[[noreturn]] void serve_all() {
  constexpr int kMostAtOnce = 4;
  int running = 0;
  while (true) {
    const ksd::UniqueFd connection = ksd::link::accept_passed(kSocket);
    if (!connection) end(0);
    while (running > 0 && waitpid(-1, nullptr, WNOHANG) > 0) --running;
    if (running == kMostAtOnce) continue;
    const pid_t child = fork();
    if (child == 0) {
      dup2(connection.get(), kSocket);
      serve();
    }
    if (child > 0) ++running;
  }
}

bool is_option(int which, int &out_value) {
  socklen_t size = sizeof out_value;
  return getsockopt(kSocket, SOL_SOCKET, which, &out_value, &size) == 0;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc == 2 && std::string_view(argv[1]) == "--version") {
    std::puts("ksd-engine " KSD_VERSION);
    return 0;
  }
  int domain = 0, type = 0;
  if (argc != 1 || !is_option(SO_DOMAIN, domain) || domain != AF_UNIX || !is_option(SO_TYPE, type)) {
    std::fprintf(stderr,
                 "ksd-engine: is started by the keystore service, or by the service manager for it, with a Unix socket "
                 "as its standard input; see ksd-engine(8)\n");
    return kWrongUse;
  }
  ksd::start_logging(ksd::LogFormat::kAuto, "info", ksd::kJournalSocket, "ksd-engine");
  // It has the key of this machine's certificate, and nothing to win.
  const rlimit no_core{0, 0};
  setrlimit(RLIMIT_CORE, &no_core);
  prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  prctl(PR_SET_DUMPABLE, 0);
#endif
  if (type == SOCK_SEQPACKET) serve_all();
  serve();
}
