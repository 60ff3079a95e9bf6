// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "service/service_process.h"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "content_of.h"
#include "fail.h"

namespace ks_test {
namespace {

constexpr int kPatience = 30'000;  // ms: not a delay, only the point at which a hung service fails the test
constexpr char kProgram[] = KS_SERVICE_DIR "/ksd";

int status_of(int wait_status) {
  return WIFSIGNALED(wait_status) ? -WTERMSIG(wait_status) : WEXITSTATUS(wait_status);
}

std::vector<char *> pointers(std::vector<std::string> &texts) {
  std::vector<char *> result;
  for (std::string &text : texts) result.push_back(text.data());
  result.push_back(nullptr);
  return result;
}

std::vector<std::string> environment_with(const std::vector<std::string> &more) {
  std::vector<std::string> all;
  for (char **entry = environ; *entry != nullptr; ++entry) all.emplace_back(*entry);
  all.insert(all.end(), more.begin(), more.end());
  return all;
}

// Everything is prepared before the fork: other threads of the test may hold locks.
struct Child {
  std::vector<std::string> arguments;
  std::vector<std::string> environment;
  int output = -1;
  int errors = -1;
  int passed = -1;

  pid_t start() {
    const std::vector<char *> argv = pointers(arguments);
    const std::vector<char *> envp = pointers(environment);
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid < 0) fail("fork");
    if (pid > 0) return pid;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(127);
    if (output >= 0) dup2(output, STDOUT_FILENO);
    if (errors >= 0) dup2(errors, STDERR_FILENO);
    if (passed == 3) fcntl(passed, F_SETFD, 0);
    if (passed >= 0) dup2(passed, 3);
    heed_signals();
    execvpe(argv[0], argv.data(), envp.data());
    _exit(127);
  }
};

int notification_socket(const std::string &path) {
  const int socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  if (bind(socket, reinterpret_cast<const sockaddr *>(&address), sizeof address) < 0) fail("bind " + path);
  return socket;
}

}  // namespace

namespace {

std::string config_of(const std::string &administrators, unsigned vdc) {
  return "[service]\ncache_uri = \"lmdb://@dir@/cache\"\n[administrators]\n" + administrators +
         "[[vdc]]\nid = " + std::to_string(vdc) + "\nusers = [" + std::to_string(getuid()) + "]\n";
}

}  // namespace

std::string config_of_own_user(unsigned vdc) {
  return config_of("", vdc);
}

std::string config_of_administrator(unsigned vdc) {
  return config_of("users = [" + std::to_string(getuid()) + "]\n", vdc);
}

ServiceProcess::ServiceProcess(const ServiceSetup &setup) : setup_(setup), folder_(setup.parent) {
  chmod(folder().c_str(), 0711);
  mkdir(cache_folder().c_str(), 0700);
  notifications_ = notification_socket(folder() + "/notify");
  write_config(setup_.config);
  if (setup_.user) {
    for (const std::string &its : {folder(), cache_folder(), folder() + "/notify", folder() + "/ksd.toml"}) {
      if (chown(its.c_str(), *setup_.user, *setup_.user) < 0) fail("chown " + its);
    }
  }
  try {
    start();
  } catch (...) {
    close(notifications_);
    throw;
  }
}

ServiceProcess::~ServiceProcess() {
  if (pid_ > 0) kill();
  close(notifications_);
}

std::string ServiceProcess::log() const {
  return content_of(folder() + "/log");
}

void ServiceProcess::start() {
  Child child;
  child.arguments = {kProgram, "--config",          folder() + "/ksd.toml", "--vault",
                     vault(),  "--master-key-file", master_key_file()};
  if (geteuid() == 0) child.arguments.emplace_back("--allow-root");
  std::vector<std::string> more = setup_.environment;
  more.push_back("NOTIFY_SOCKET=" + folder() + "/notify");
  if (setup_.passed_socket < 0) {
    child.arguments.insert(child.arguments.end(), {"--socket", socket()});
  } else {
    // The service takes the socket only when it is named with its own process id, which only the child can tell.
    const std::string script = "LISTEN_FDS=1 LISTEN_PID=$$ exec \"$@\"";
    child.arguments.insert(child.arguments.begin(), {"/bin/sh", "-c", script, "sh"});
    child.passed = setup_.passed_socket;
  }
  child.arguments.insert(child.arguments.begin(), setup_.wrapper.begin(), setup_.wrapper.end());
  if (setup_.user) {
    const std::string id = std::to_string(*setup_.user);
    child.arguments.insert(child.arguments.begin(),
                           {"setpriv", "--reuid", id, "--regid", id, "--clear-groups", "--pdeathsig", "KILL"});
  }
  for (const std::string &argument : setup_.arguments) child.arguments.push_back(expand(argument));
  child.environment = environment_with(more);
  child.errors = open((folder() + "/log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  pid_ = child.start();
  close(child.errors);
  wait_for_notification("READY=1");
}

int ServiceProcess::stop() {
  signal(SIGTERM);
  return wait_exit();
}

void ServiceProcess::kill() {
  signal(SIGKILL);
  wait_exit();
}

void ServiceProcess::pause() {
  signal(SIGSTOP);
  siginfo_t info{};
  if (waitid(P_PID, static_cast<id_t>(pid_), &info, WSTOPPED) < 0) fail("waitid");
}

void ServiceProcess::resume() {
  signal(SIGCONT);
}

void ServiceProcess::reload(const std::string &config) {
  write_config(config);
  signal(SIGHUP);
  wait_for_notification("RELOADING=1");
  wait_for_notification("READY=1");
}

void ServiceProcess::signal(int number) const {
  if (pid_ <= 0) throw std::runtime_error("the service isn't running");
  if (::kill(pid_, number) < 0) fail("kill");
}

int ServiceProcess::wait_exit() {
  const int status = wait_for(pid_);
  pid_ = -1;
  return status;
}

std::string ServiceProcess::expand(std::string text) const {
  constexpr std::string_view mark = "@dir@";
  for (size_t at = text.find(mark); at != std::string::npos; at = text.find(mark, at)) {
    text.replace(at, mark.size(), folder());
  }
  return text;
}

void ServiceProcess::write_config(const std::string &config) const {
  std::ofstream(folder() + "/ksd.toml") << expand(config);
}

// Waits for the state and for the service's end, whichever comes first.
void ServiceProcess::wait_for_notification(const char *state) {
  const int process = static_cast<int>(syscall(SYS_pidfd_open, pid_, 0));
  std::array<pollfd, 2> sources{pollfd{notifications_, POLLIN, 0}, pollfd{process, POLLIN, 0}};
  while (true) {
    const int events = poll(sources.data(), sources.size(), kPatience);
    if (events < 0 && errno == EINTR) continue;
    if ((sources[0].revents & POLLIN) != 0) {
      std::array<char, 512> text{};
      if (recv(notifications_, text.data(), text.size() - 1, 0) <= 0) fail("recv");
      if (std::string_view(text.data()).find(state) == std::string_view::npos) continue;
      close(process);
      return;
    }
    close(process);
    if (events == 0) kill();
    const int status = events == 0 ? 0 : wait_exit();
    throw std::runtime_error(std::string(kProgram) + " didn't say " + state + " (status " + std::to_string(status) +
                             "); its log:\n" + log());
  }
}

ProgramRun run_program(const std::vector<std::string> &arguments,
                       const std::function<void(pid_t, const std::string &)> &after_first_line) {
  char errors[] = "/tmp/ksXXXXXX";
  std::array<int, 2> output{};
  if (pipe2(output.data(), O_CLOEXEC) < 0) fail("pipe2");
  Child child;
  child.output = output[1];
  child.errors = mkostemp(errors, O_CLOEXEC);
  child.arguments = arguments;
  child.environment = environment_with({});
  const pid_t pid = child.start();
  close(output[1]);

  ProgramRun run;
  bool called = after_first_line == nullptr;
  std::array<char, 4096> part;
  for (ssize_t size = 0; (size = read(output[0], part.data(), part.size())) > 0;) {
    run.output.append(part.data(), static_cast<size_t>(size));
    const size_t end = run.output.find('\n');
    if (called || end == std::string::npos) continue;
    called = true;
    after_first_line(pid, run.output.substr(0, end));
  }
  run.status = wait_for(pid);
  run.errors = content_of(errors);
  close(output[0]);
  close(child.errors);
  unlink(errors);
  return run;
}

ProgramRun run_ksd(const std::vector<std::string> &arguments) {
  std::vector<std::string> all{kProgram};
  if (geteuid() == 0) all.emplace_back("--allow-root");
  all.insert(all.end(), arguments.begin(), arguments.end());
  return run_program(all);
}

int wait_for(pid_t pid) {
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) fail("waitpid");
  }
  return status_of(status);
}

void heed_signals() noexcept {
  for (const int ignored : {SIGINT, SIGQUIT, SIGHUP}) ::signal(ignored, SIG_DFL);
}

pid_t start_as(uid_t uid, gid_t gid, const std::function<int()> &body) {
  const pid_t pid = fork();
  if (pid < 0) fail("fork");
  if (pid == 0) {
    const bool is_another = geteuid() == 0 || uid != geteuid() || gid != getegid();
    if (is_another && (setgroups(0, nullptr) < 0 || setresgid(gid, gid, gid) < 0 || setresuid(uid, uid, uid) < 0)) {
      _exit(126);
    }
    try {
      _exit(body());
    } catch (const std::exception &error) {
      std::fprintf(stderr, "user %u: %s\n", uid, error.what());
      _exit(125);
    }
  }
  return pid;
}

int run_as(uid_t uid, gid_t gid, const std::function<int()> &body) {
  return wait_for(start_as(uid, gid, body));
}

}  // namespace ks_test
