// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "server/daemon.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include "base/read_secret.h"
#include "base/refuse.h"
#include "base/timespec.h"
#include "base/trust.h"
#include "config/layers.h"
#include "crypto/crypto.h"
#include "handlers/service.h"
#include "server/counter_lines.h"
#include "server/fleet.h"
#include "server/instance_lock.h"
#include "server/listener.h"
#include "server/memory_guard.h"
#include "server/notify.h"
#include "server/sandbox.h"
#include "server/server.h"
#include "server/state_page.h"
#include "vault/vault.h"

namespace ksd::server {
namespace {

constexpr std::chrono::nanoseconds kPauseWithoutDescriptors = std::chrono::milliseconds(100);
constexpr int kAcceptedAtOnce = 16;

// Secrets pass through stacks and buffers: no core, no debugger of the same user, and where the system allows it no
// page on its way to swap.
void harden_process() {
  const rlimit no_core{0, 0};
  setrlimit(RLIMIT_CORE, &no_core);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // their reports need a process that can be traced
  prctl(PR_SET_DUMPABLE, 0);
  const rlimit all_memory{RLIM_INFINITY, RLIM_INFINITY};
  // Only with no limit at all: under one, later allocations would fail.
  const bool may_lock = setrlimit(RLIMIT_MEMLOCK, &all_memory) == 0;
  if (!may_lock || mlockall(MCL_CURRENT | MCL_FUTURE | MCL_ONFAULT) < 0) {
    spdlog::info("memory isn't locked as a whole (keys are); LimitMEMLOCK=infinity allows it");
  }
#endif
}

// Has the scheduler give this process, and the threads that it makes, short turns: with one, a thread that is woken
// comes before those with longer turns that are busy, and its share of the processor is the same. Kernels before 6.12
// take no notice, and nothing depends on it.
void ask_for_short_turns() {
  struct Attributes {  // as the system call has them in its first version
    uint32_t size, policy;
    uint64_t flags;
    int32_t nice;
    uint32_t priority;
    uint64_t runtime, deadline, period;
  } attributes{};
  constexpr uint64_t kShortestTurn = 100'000;  // ns
  if (syscall(SYS_sched_getattr, 0, &attributes, sizeof attributes, 0) < 0) return;
  if (attributes.policy != SCHED_OTHER) return;  // somebody knows better
  attributes.size = sizeof attributes;
  attributes.runtime = kShortestTurn;
  syscall(SYS_sched_setattr, 0, &attributes, 0);
}

// Without these, a file or socket would get the number of standard error, and the log would go there.
void open_missing_standard_files() {
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(fd, F_GETFD) < 0) open("/dev/null", O_RDWR);  // takes the lowest free number, which is this one
  }
}

void raise_descriptor_limit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) < 0) return;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

// read_passphrase reads a line. Nothing for -1.
std::shared_ptr<const SecretBytes> read_passphrase(int fd) {
  constexpr size_t kMost = 4095;
  if (fd < 0) return nullptr;
  const ReadSecret line = read_secret(fd, kMost, SecretEnd::kEndOfLine);
  if (line.error != 0) {
    refuse("--passphrase-fd: descriptor {}: {}; open it for reading", fd, std::strerror(line.error));
  }
  if (line.secret == nullptr || line.secret->size() == 0) {
    refuse("--passphrase-fd: descriptor {} gives no passphrase of 1 to {} bytes", fd, kMost);
  }
  return line.secret;
}

// The signals that the daemon waits for, as a descriptor. Blocked before any thread starts, so that all inherit it.
UniqueFd signals_as_file() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGUSR1}) sigaddset(&signals, signal);
  sigprocmask(SIG_BLOCK, &signals, nullptr);
  signal(SIGPIPE, SIG_IGN);
  return UniqueFd(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
}

using Wait = std::optional<std::chrono::nanoseconds>;

Wait sooner(Wait a, Wait b) {
  return a && b ? std::min(a, b) : a ? a : b;
}

void log_problems(const std::string &path, const std::vector<config::ConfigProblem> &problems) {
  for (const config::ConfigProblem &problem : problems) tell(event::kConfigRefused, "{}", describe(path, problem));
}

void log_counters(const Counters &counters) {
  for (const std::string &line : counter_lines(counters)) spdlog::info("{}", line);
}

vault::Limits vault_limits(const config::Limits &limits) {
  return {.entries = limits.entries,
          .entries_per_user = limits.entries_per_user,
          .bytes = limits.bytes,
          .bytes_per_user = limits.bytes_per_user};
}

// What the service goes on using of the file system. Users and groups are looked up at each reload, with the help of
// whatever modules the machine has for it.
FileNeeds needs_of(const config::Config &config, const std::string &config_file, const std::string &socket_folder) {
  FileNeeds needs;
  needs.changed = {socket_folder, folder_of(config.vault)};
  if (!config.master_key_file.empty()) needs.changed.push_back(folder_of(config.master_key_file));
  if (!config.witness.empty()) needs.changed.push_back(folder_of(config.witness));
  if (config.shared && !config.shared->mirror.empty()) needs.changed.push_back(folder_of(config.shared->mirror));
  needs.read = config::standard_folders();
  if (!config_file.empty()) needs.read.push_back(folder_of(config_file));
  if (const char *credentials = std::getenv("CREDENTIALS_DIRECTORY")) needs.read.emplace_back(credentials);
  for (const char *folder : {"/etc", "/usr", "/lib", "/lib64", "/run", "/var/lib/sss", "/var/lib/extrausers"}) {
    needs.read.emplace_back(folder);
  }
  return needs;
}

class Daemon {
 public:
  Daemon(const Options &options, const config::Config &config)
      : options_(options),
        signals_(signals_as_file()),
        started_with_(config),
        config_(config),
        reloader_(
            options.config, [this] { return read_again(); }, [this](const config::Config &other) { return use(other); },
            notifier_) {
    open_socket(config);
  }

  void run() {
    Administration administration(*service_, *vault_, fleet_, config_, reloader_);
    Server server(*service_, config_, &administration);
    spdlog::info("ksd {} serves {}", KSD_VERSION, socket_path_);
    notifier_.ready();
    std::optional<std::chrono::nanoseconds> next_start;
    while (!asked_to_end()) {
      if (wait(sooner(next_start, notifier_.watch_interval()), server.channels_watched())) accept_some(server);
      notifier_.alive();
      next_start = sooner(server.start_next(), server.end_channels());
    }
    notifier_.stopping();
    close_socket();
    server.finish();
    log_counters(service_->counters);
    spdlog::info("ended");
  }

 private:
  void open_socket(const config::Config &config) {
    if (std::optional<UniqueFd> passed = passed_socket()) {
      listener_ = std::move(*passed);
      fcntl(listener_.get(), F_SETFL, O_NONBLOCK);
      socket_path_ = socket_path_of(listener_.get());
      socket_is_ours_ = false;
    } else {
      socket_path_ = config.socket;
      make_socket_folder(socket_path_);
    }
    if (const auto why = why_others_may_write(folder_of(socket_path_))) {
      refuse("the folder of the socket isn't safe: {}", *why);
    }
    // Before there is any thread, so that all of them are confined.
    vault::make_folders(vault_options(config));
    if (config.shared) engine_ = find_engine();
    confine(config.sandbox, needs_of(config, options_.config, folder_of(socket_path_)));
    instance_lock_.emplace(socket_path_);
    // The page comes before the socket: clients look at it once they are greeted.
    state_page_.emplace(socket_path_);
    state_page_->publish(config);
    // Before anybody can connect: a service that can't open its vault is no service.
    open_service(config);
    if (socket_is_ours_) listener_ = listen_at(socket_path_, config);
  }

  void open_service(const config::Config &config) {
    const crypto::AlgorithmSet usable = crypto::start();
    vault::VaultOptions options = vault_options(config);
    options.passphrase = read_passphrase(options_.passphrase_fd);
    std::unique_ptr<vault::Vault> opened;
    if (config.shared) {
      std::unique_ptr<fleet::SharedVault> shared = open_shared_vault(*config.shared, options, std::move(engine_));
      fleet_ = shared.get();
      opened = std::move(shared);
    } else {
      opened = vault::open_vault(options);
    }
    vault_ = opened.get();
    service_.emplace(std::move(opened), usable);
  }

  vault::VaultOptions vault_options(const config::Config &config) const {
    return {.path = config.vault,
            .master_key_file = config.master_key_file,
            .witness = config.witness,
            .accept_loss = options_.accept_loss,
            .limits = vault_limits(config.limits)};
  }

  void close_socket() {
    if (socket_is_ours_) unlink(socket_path_.c_str());
    listener_ = UniqueFd();
  }

  // wait returns when there is a signal, a client or the end of one, or at the latest after `longest`, and tells
  // whether there is a client.
  bool wait(std::optional<std::chrono::nanoseconds> longest, int channels_watched) {
    pollfd sources[] = {{.fd = signals_.get(), .events = POLLIN, .revents = 0},
                        {.fd = out_of_descriptors_ ? -1 : listener_.get(), .events = POLLIN, .revents = 0},
                        {.fd = channels_watched, .events = POLLIN, .revents = 0}};
    if (out_of_descriptors_) longest = std::min(longest.value_or(kPauseWithoutDescriptors), kPauseWithoutDescriptors);
    const timespec limit = to_timespec(longest.value_or(std::chrono::nanoseconds(0)));
    ppoll(sources, std::size(sources), longest ? &limit : nullptr, nullptr);
    out_of_descriptors_ = false;
    return sources[1].revents != 0;
  }

  // Several at a time, since to accept one costs much less than to start it: whoever connects often fills a queue of
  // their own, not that of the socket.
  void accept_some(Server &server) {
    for (int i = 0; i < kAcceptedAtOnce; ++i) {
      UniqueFd client(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
      if (!client) return note_failed_accept(errno);
      server.admit(std::move(client));
    }
  }

  void note_failed_accept(int error) {
    if (error != EMFILE && error != ENFILE && error != ENOBUFS && error != ENOMEM) return;
    // The client stays in the queue; asking again at once would only spin.
    out_of_descriptors_ = true;
    service_->log_limiter.warn(LogLimiter::Kind::kCantAccept, 0, "can't accept connections: {}", std::strerror(error));
  }

  // asked_to_end handles the signals that have come.
  bool asked_to_end() {
    signalfd_siginfo signal{};
    while (read(signals_.get(), &signal, sizeof signal) == sizeof signal) {
      if (signal.ssi_signo == SIGHUP) obey("SIGHUP", [&] { reloader_.reload(); });
      if (signal.ssi_signo == SIGUSR1) obey("SIGUSR1", [&] { log_counters(service_->counters); });
      if (signal.ssi_signo == SIGTERM || signal.ssi_signo == SIGINT) return true;
    }
    return false;
  }

  // The two steps of a reload, which may be taken on the thread of an administrator's connection.
  config::ParsedConfig read_again() {
    config::ParsedConfig parsed = load(options_);
    if (!parsed.problems.empty()) {
      log_problems(options_.config, parsed.problems);
      tell(event::kReloadRefused, "the configuration wasn't reloaded; the old one stays in force");
      notifier_.refused(describe(options_.config, parsed.problems.front()));
    }
    return parsed;
  }

  // obey does what a signal asks for, as far as there is memory for it.
  template <typename Task>
  void obey(const char *what, Task task) noexcept {
    try {
      task();
    } catch (const std::exception &) {
      service_->log_limiter.warn(LogLimiter::Kind::kSignal, 0, "{}: there is no memory for it", what);
    }
  }

  // Gives whether part of it counts from the next start only.
  bool use(const config::Config &config) {
    const config::Config &old = started_with_;
    const bool needs_restart = config.socket != old.socket || config.socket_mode != old.socket_mode ||
                               config.socket_group != old.socket_group || config.vault != old.vault ||
                               config.master_key_file != old.master_key_file || config.witness != old.witness ||
                               config.sandbox != old.sandbox || config.shared != old.shared;
    if (needs_restart) {
      tell(event::kNeedsRestart,
           "a change of socket, vault, master key, witness, sandbox or [shared] counts from the next start");
    }
    set_log_level(config.log_level);
    config_.replace(config);
    vault_->use_limits(vault_limits(config.limits));
    state_page_->publish(config);
    spdlog::info("configuration reloaded");
    return needs_restart;
  }

  const Options &options_;
  Notifier notifier_;
  const UniqueFd signals_;
  const config::Config started_with_;
  CurrentConfig config_;
  Reloader reloader_;
  std::optional<handlers::Service> service_;
  vault::Vault *vault_ = nullptr;              // the service's store
  fleet::SharedVault *fleet_ = nullptr;        // that, where it is one of a fleet
  link::Connect engine_;                       // of a fleet, until its store has it
  std::optional<InstanceLock> instance_lock_;  // let go last: until then nobody else touches socket and page
  UniqueFd listener_;
  std::string socket_path_;
  bool socket_is_ours_ = true;
  bool out_of_descriptors_ = false;
  std::optional<StatePage> state_page_;
};

}  // namespace

config::ParsedConfig load(const Options &options) {
  config::ParsedConfig parsed;
  if (options.config.empty()) {
    parsed = config::load_layers(config::find_layers(config::standard_folders()));
    parsed.config.file = config::standard_folders().front() + '/' + config::kDropInFolderName;
  } else {
    parsed = config::load_config(options.config);
    parsed.config.file = options.config;
  }
  config::Config &config = parsed.config;
  if (!options.socket.empty()) config.socket = options.socket;
  if (!options.vault.empty()) config.vault = options.vault;
  if (!options.master_key_file.empty()) config.master_key_file = options.master_key_file;
  const bool has_credentials = std::getenv("CREDENTIALS_DIRECTORY") != nullptr;
  if (config.master_key_file.empty() && !has_credentials) config.master_key_file = config::kDefaultMasterKeyPath;
  if (!options.log_level.empty()) config.log_level = options.log_level;
  return parsed;
}

int run_daemon(const Options &options) {
  open_missing_standard_files();
  start_logging(options.log_format, options.log_level.empty() ? "info" : options.log_level);
  const config::ParsedConfig parsed = load(options);
  if (!parsed.problems.empty()) {
    log_problems(options.config, parsed.problems);
    return 1;
  }
  set_log_level(parsed.config.log_level);
  harden_process();
  catch_bus_errors();
  ask_for_short_turns();
  raise_descriptor_limit();
  try {
    Daemon(options, parsed.config).run();
  } catch (const std::exception &error) {
    tell(event::kStartFailed, "{}", error.what());
    return 1;
  }
  return 0;
}

}  // namespace ksd::server
