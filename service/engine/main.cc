// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// ksd-engine: carries sealed records between a keystore service and the store of its fleet, in a process of its own, so
// that the libraries for network and TLS stay away from keys. It serves the one service at the other end of the socket
// that is its standard input, and ends with that connection. When the socket is one of datagrams instead, connections
// arrive by it, and each gets a process; none of these processes is needed for the others to go on.
#include <fmt/format.h>
#include <grpc/support/log.h>
#include <poll.h>
#include <spdlog/spdlog.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string_view>
#include <thread>

#include "base/log.h"
#include "engine/certificate.h"
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

// Somebody has to be told while there is time left to make others.
void warn_of_end(const std::string &certificates) {
  const auto when = certificates.empty() ? std::nullopt : ksd::engine::end_of_certificates(certificates);
  if (!when || *when - std::time(nullptr) > ksd::engine::kShortOfCertificates) return;
  spdlog::warn("{}: a certificate in it is good for {} hours more; put another in its place", certificates,
               std::max<std::time_t>(0, (*when - std::time(nullptr)) / 3600));
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
  for (const std::string &file : {start->ca, start->certificate}) warn_of_end(file);
  try {
    static ksd::engine::Engine engine(*start, tell);
    tell(ksd::link::Started{});
    std::thread([] { engine.run(); }).detach();
    while (true) engine.take(requests.next());
  } catch (const std::exception &error) {
    stop(error.what());
  }
}

// ---- Engines for a daemon that can't start processes any more. Two processes see to that: one starts engines, and the
// other one stands by. Each notices the end of the other, by a pair of sockets of which it has one: the one that stands
// by takes the other's place, and who starts engines makes another one to stand by.

// StandBy is the process that stands by, as the one that starts engines knows it.
struct StandBy {
  pid_t process = -1;
  ksd::UniqueFd link;  // hung up at its end
};

bool is_hung_up(int socket) {
  pollfd source{.fd = socket, .events = 0, .revents = 0};
  return poll(&source, 1, 0) > 0;
}

void wait_for_end(const ksd::UniqueFd &link) {
  pollfd source{.fd = link.get(), .events = 0, .revents = 0};
  while (poll(&source, 1, -1) < 0 && errno == EINTR) continue;
}

// Each connection that the daemon passes gets a process of its own: what becomes of one is nothing to the next. Returns
// when the process that stands by has ended, or a second after none could be made.
void start_engines(StandBy stand_by) {
  constexpr int kMostAtOnce = 4, kWithoutMs = 1000;
  int running = 0;
  while (true) {
    pollfd sources[] = {{.fd = kSocket, .events = POLLIN, .revents = 0},
                        {.fd = stand_by.link.get(), .events = 0, .revents = 0}};
    const int ready = poll(sources, 2, stand_by.link ? -1 : kWithoutMs);
    for (pid_t ended; (ended = waitpid(-1, nullptr, WNOHANG)) > 0;) running -= ended != stand_by.process ? 1 : 0;
    if (ready < 0) continue;
    if (ready == 0 || sources[1].revents != 0) return;
    const ksd::UniqueFd connection = ksd::link::accept_passed(kSocket);
    if (!connection) end(0);
    if (running >= kMostAtOnce) continue;
    const pid_t child = fork();
    if (child == 0) {
      stand_by.link = ksd::UniqueFd();
      dup2(connection.get(), kSocket);
      serve();
    }
    if (child > 0) ++running;
  }
}

[[noreturn]] void serve_all() {
  while (true) {
    int ends[2] = {-1, -1};
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) < 0) spdlog::warn("no process stands by: {}", std::strerror(errno));
    ksd::UniqueFd ours(ends[0]), others(ends[1]);
    const pid_t child = ours ? fork() : -1;
    if (child == 0) {
      ours = ksd::UniqueFd();
      wait_for_end(others);
      if (is_hung_up(kSocket)) end(0);
      spdlog::warn("the process that starts engines has ended; this one takes its place");
      continue;
    }
    others = ksd::UniqueFd();
    if (child < 0) ours = ksd::UniqueFd();
    start_engines({child, std::move(ours)});
  }
}

// --expiry, for who looks after the machine: a line for each file.
int tell_ends(int count, char **files) {
  for (int i = 0; i < count; ++i) {
    const auto when = ksd::engine::end_of_certificates(files[i]);
    std::printf("%s\n", when ? std::to_string(*when).c_str() : "-");
  }
  return 0;
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
  if (argc > 2 && std::string_view(argv[1]) == "--expiry") return tell_ends(argc - 2, argv + 2);
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
