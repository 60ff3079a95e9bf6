// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "session.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string_view>

namespace ks_session {
namespace {

constexpr int kStartLimit = 60'000;   // ms, for a slow machine with a large vault
constexpr int kFinishLimit = 10'000;  // ms, for a command that was interrupted and for the service's last commit
constexpr int kPassedDescriptor = 3;

[[noreturn]] void fail(const std::string &what) {
  throw std::runtime_error(what + ": " + std::strerror(errno));
}

// The service that was built or installed with this program comes before any other.
std::string service_program() {
  std::error_code error;
  const std::filesystem::path folder = std::filesystem::read_symlink("/proc/self/exe", error).parent_path();
  if (error) return "ksd";
  for (const std::filesystem::path &program : {folder / "ksd", folder.parent_path() / "sbin/ksd"}) {
    if (access(program.c_str(), X_OK) == 0) return program.string();
  }
  return "ksd";
}

int bind_socket(int type, const std::string &path) {
  const int socket = ::socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  unlink(path.c_str());  // of an earlier session in a folder that was kept
  if (socket < 0 || bind(socket, reinterpret_cast<const sockaddr *>(&address), sizeof address) < 0) fail(path);
  return socket;
}

std::string read_all(const std::string &path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

// end_with has this process, just forked, end when the session is killed.
void end_with(pid_t session, int signal) {
  prctl(PR_SET_PDEATHSIG, signal);
  if (getppid() != session) _exit(kNoSession);  // it was, before that counted
}

bool is_from_terminal(const signalfd_siginfo &signal) {
  return signal.ssi_code > 0;
}

}  // namespace

Session::Session(const Folder &folder, mode_t command_umask) : folder_(folder), command_umask_(command_umask) {
  sigset_t handled;
  sigemptyset(&handled);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) sigaddset(&handled, signal);
  sigprocmask(SIG_BLOCK, &handled, &old_mask_);
  signals_ = signalfd(-1, &handled, SFD_CLOEXEC);
  notifications_ = bind_socket(SOCK_DGRAM, folder_.file("notify"));
  listener_ = bind_socket(SOCK_SEQPACKET, folder_.file("ksd.sock"));
  if (signals_ < 0 || listen(listener_, SOMAXCONN) < 0) fail(folder_.file("ksd.sock"));
}

Session::~Session() {
  service_.signal(SIGTERM);
  if (service_.pid() > 0 && !service_.end_within(kFinishLimit)) {
    service_.signal(SIGKILL);
    service_.end();
  }
  for (const int fd : {signals_, listener_, notifications_}) close(fd);
  for (const char *name : {"ksd.sock", "notify", "ksd.pid"}) unlink(folder_.file(name).c_str());
}

int Session::run(const std::vector<std::string> &command) {
  start_service();
  if (interrupted_by_ != 0) return interrupted_by_;  // as if the command had died of it
  const pid_t session = getpid();
  ks_tools::Child child(command, old_mask_, [this, session] {
    end_with(session, SIGTERM);
    umask(command_umask_);
    setenv("KS_SOCKET", folder_.file("ksd.sock").c_str(), 1);
    setenv("KS_SESSION_DIR", folder_.path().c_str(), 1);
  });
  if (child.error() != 0) throw CommandFailure{child.error()};
  command_runs_ = true;

  while (true) {
    std::array sources{pollfd{child.fd(), POLLIN, 0}, pollfd{signals_, POLLIN, 0}, pollfd{service_.fd(), POLLIN, 0}};
    const int events = poll(sources.data(), sources.size(), interrupted_by_ != 0 ? kFinishLimit : -1);
    if (events == 0) child.signal(SIGKILL);  // it was asked in time
    if (sources[0].revents != 0 || events == 0) return child.end();
    if (sources[1].revents != 0) forward_signal(child);
    if (sources[2].revents != 0) restart_service();
  }
}

void Session::start_service() {
  const int log = open(folder_.file("ksd.log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  if (log < 0) fail(folder_.file("ksd.log"));
  std::vector<std::string> arguments{
      service_program(),        "--config",          folder_.file("ksd.toml"),  "--vault",
      folder_.file("vault.db"), "--master-key-file", folder_.file("master.key")};
  if (geteuid() == 0) arguments.emplace_back("--allow-root");  // whoever runs the command runs its service
  const pid_t session = getpid();
  service_ = ks_tools::Child(arguments, old_mask_, [&] {
    end_with(session, SIGKILL);  // which it gets even when it is stopped; nothing that it answered is lost by it
    if (folder_.lifeline() >= 0) fcntl(folder_.lifeline(), F_SETFD, 0);
    setpgid(0, 0);  // what the terminal sends to the command isn't for the service
    const int nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
    dup2(nothing, STDIN_FILENO);
    dup2(log, STDOUT_FILENO);
    dup2(log, STDERR_FILENO);
    dup2(listener_, kPassedDescriptor);
    setenv("LISTEN_FDS", "1", 1);
    setenv("LISTEN_PID", std::to_string(getpid()).c_str(), 1);
    setenv("NOTIFY_SOCKET", folder_.file("notify").c_str(), 1);
  });
  close(log);
  if (service_.error() != 0) {
    throw std::runtime_error(std::string("can't run ksd, beside this program or in PATH: ") +
                             std::strerror(service_.error()));
  }
  std::ofstream(folder_.file("ksd.pid")) << service_.pid() << '\n';
  wait_until_ready();
}

void Session::wait_until_ready() {
  const int signals = command_runs_ ? -1 : signals_;  // those that come now are for the command, later
  while (true) {
    std::array sources{pollfd{notifications_, POLLIN, 0}, pollfd{service_.fd(), POLLIN, 0}, pollfd{signals, POLLIN, 0}};
    const int events = poll(sources.data(), sources.size(), kStartLimit);
    if (sources[0].revents != 0 && service_is_ready()) return;
    if (sources[2].revents != 0) {
      signalfd_siginfo signal{};
      if (read(signals_, &signal, sizeof signal) == sizeof signal) interrupted_by_ = static_cast<int>(signal.ssi_signo);
      return;
    }
    if (sources[1].revents != 0) service_failed("ended at its start");
    if (events == 0) service_failed("doesn't get ready");
  }
}

bool Session::service_is_ready() const {
  std::array<char, 512> text{};
  const ssize_t size = recv(notifications_, text.data(), text.size(), MSG_DONTWAIT);
  if (size <= 0) return false;
  return std::string_view(text.data(), static_cast<size_t>(size)).find("READY=1") != std::string_view::npos;
}

// The service was killed, or it failed. It comes back, as a service manager would have it; the command's clients
// reconnect by themselves.
void Session::restart_service() {
  const int status = service_.end();
  std::fprintf(stderr, "ks-session: the service ended (%s %d); starting it again\n",
               WIFSIGNALED(status) ? "signal" : "status", WIFSIGNALED(status) ? WTERMSIG(status) : WEXITSTATUS(status));
  start_service();
}

// What the terminal sends reaches the command without us.
void Session::forward_signal(ks_tools::Child &command) {
  signalfd_siginfo signal{};
  if (read(signals_, &signal, sizeof signal) != sizeof signal) return;
  interrupted_by_ = static_cast<int>(signal.ssi_signo);
  if (!is_from_terminal(signal)) command.signal(interrupted_by_);
}

void Session::service_failed(const std::string &how) const {
  throw std::runtime_error("the service " + how + "; its log:\n" + read_all(folder_.file("ksd.log")));
}

}  // namespace ks_session
