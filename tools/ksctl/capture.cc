// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// capture.cc: runs a command with a socket of its own, behind which everything goes to the service and into a file.
#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/auxv.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "capture_file.h"
#include "command.h"
#include "common/child.h"
#include "common/remover.h"
#include "relay.h"
#include "service_link.h"

namespace ksctl {
namespace {

constexpr int kPageMs = 1000;  // how often the state page is copied

// A program with more rights than its caller doesn't believe KS_SOCKET, and would go past the capture.
void refuse_elevated(const std::string &command) {
  if (getauxval(AT_SECURE) != 0) {
    throw Failure(Exit::kNotAllowed, "ksctl: has more rights than its caller; run a copy that has not");
  }
  std::vector<std::string> places{command};
  if (command.find('/') == std::string::npos) {
    places.clear();
    const char *path = std::getenv("PATH");
    std::istringstream folders(path != nullptr ? path : "/usr/bin:/bin");
    for (std::string folder; std::getline(folders, folder, ':');) places.push_back(folder + "/" + command);
  }
  for (const std::string &place : places) {
    struct stat status {};
    if (stat(place.c_str(), &status) != 0 || access(place.c_str(), X_OK) != 0) continue;
    if ((status.st_mode & (S_ISUID | S_ISGID)) == 0) return;
    throw Failure(Exit::kNotAllowed,
                  fmt::format("{}: runs with another's rights, and wouldn't use the captured socket; run it as its own "
                              "user, or name a program that isn't set-user-ID",
                              place));
  }
}

// PrivateFolder is there for as long as this process is, whatever ends it.
class PrivateFolder {
 public:
  PrivateFolder() {
    const char *base = secure_getenv("TMPDIR");
    path_ = std::string(base != nullptr && base[0] == '/' ? base : "/tmp") + "/ksctl-XXXXXX";
    if (mkdtemp(path_.data()) == nullptr) {
      throw Failure(Exit::kFailed, fmt::format("{}: no folder can be made: {}; set TMPDIR to one of your own", path_,
                                               std::strerror(errno)));
    }
    remover_.watch_over(path_);
  }

  std::string file(const char *name) const { return path_ + "/" + name; }

 private:
  std::string path_;
  ks_tools::Remover remover_;
};

// PageCopy is the service's state page, beside the socket that the command uses: clients take it from the same folder.
class PageCopy {
 public:
  PageCopy(std::string from, const std::string &to)
      : from_(std::move(from)), file_(open(to.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600)) {
    copy();
  }

  void copy() const {
    HostStatePage page{};
    struct stat status {};
    const ksd::UniqueFd page_file(open(from_.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (!file_ || !page_file || fstat(page_file.get(), &status) != 0 || !S_ISREG(status.st_mode)) return;
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0 || pread(page_file.get(), &page, sizeof page, 0) != sizeof page) {
      return;
    }
    [[maybe_unused]] const ssize_t written = pwrite(file_.get(), &page, sizeof page, 0);
  }

 private:
  std::string from_;
  ksd::UniqueFd file_;
};

class Signals {
 public:
  Signals() {
    sigset_t handled;
    sigemptyset(&handled);
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) sigaddset(&handled, number);
    sigprocmask(SIG_BLOCK, &handled, &before_);
    fd_ = ksd::UniqueFd(signalfd(-1, &handled, SFD_CLOEXEC | SFD_NONBLOCK));
    signal(SIGXFSZ, SIG_IGN);  // a file that may grow no more is a full disk
  }

  int fd() const { return fd_.get(); }
  const sigset_t &before() const { return before_; }

  // pass_on gives the command what was sent to this process. What a terminal sends, the command has got itself.
  void pass_on(const ks_tools::Child &child) const {
    signalfd_siginfo taken{};
    if (read(fd_.get(), &taken, sizeof taken) == sizeof taken && taken.ssi_code <= 0) {
      child.signal(static_cast<int>(taken.ssi_signo));
    }
  }

 private:
  sigset_t before_{};
  ksd::UniqueFd fd_;
};

int pause_of(const Relay &relay) {
  const int pause = relay.pause_ms();
  return pause < 0 ? kPageMs : pause;
}

// relay_until_end passes on until the command has ended, and then what has arrived already. Gives its wait status.
int relay_until_end(Relay &relay, ks_tools::Child &child, const Signals &signals, const PageCopy &page,
                    const CaptureFile &file, const std::string &file_name) {
  bool told = false;
  bool ended = false;
  while (true) {
    std::vector<pollfd> polled = relay.sources();
    const size_t links = polled.size();
    polled.push_back({.fd = ended ? -1 : child.fd(), .events = POLLIN, .revents = 0});
    polled.push_back({.fd = signals.fd(), .events = POLLIN, .revents = 0});
    const int ready = poll(polled.data(), polled.size(), ended ? 0 : pause_of(relay));
    if (ready < 0 && errno == EINTR) continue;
    if (ended && ready <= 0) return child.end();
    if (polled[links].revents != 0) ended = true;
    if (polled[links + 1].revents != 0) signals.pass_on(child);
    polled.resize(links);
    relay.handle(polled);
    page.copy();
    if (file.error() != 0 && !told) {
      std::fprintf(stderr, "ksctl: %s: %s; recording has stopped, and the command goes on\n", file_name.c_str(),
                   std::strerror(file.error()));
      told = true;
    }
  }
}

void capture(Session &session, const Arguments &arguments) {
  const std::string &file_name = arguments.text("FILE");
  const std::vector<std::string> command = arguments.words("COMMAND");
  refuse_elevated(command.front());
  { const ServiceLink reachable(session.socket); }
  const PrivateFolder folder;
  CaptureFile file(file_name);
  Relay relay(folder.file("s"), session.socket, file);
  const PageCopy page(session.socket + HOST_STATE_SUFFIX, folder.file("s" HOST_STATE_SUFFIX));
  const Signals signals;
  const pid_t self = getpid();
  ks_tools::Child child(command, signals.before(), [&] {
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != self) _exit(1);
    signal(SIGXFSZ, SIG_DFL);
    setenv("KS_SOCKET", folder.file("s").c_str(), 1);
  });
  if (child.error() != 0) {
    unlink(file_name.c_str());
    throw Failure(Exit::kUsage,
                  fmt::format("{}: can't be run: {}; name a program", command.front(), std::strerror(child.error())));
  }
  const int status = relay_until_end(relay, child, signals, page, file, file_name);
  if (file.error() != 0) {
    throw Failure(Exit::kFailed, fmt::format("{}: {}; {} datagrams are in it, {} are not; make room and run it again",
                                             file_name, std::strerror(file.error()), file.recorded(), file.lost()));
  }
  if (status != 0) {
    throw Failure(Exit::kFailed, fmt::format("{}: ended with {} {}; {} holds {} datagrams of it", command.front(),
                                             WIFSIGNALED(status) ? "signal" : "status",
                                             WIFSIGNALED(status) ? WTERMSIG(status) : WEXITSTATUS(status), file_name,
                                             file.recorded()));
  }
  session.output.done(fmt::format("{}: {} datagrams, secrets struck out.", file_name, file.recorded()),
                      Object{{"file", file_name}, {"datagrams", file.recorded()}});
}

}  // namespace

std::span<const Command> capture_commands() {
  static constexpr Parameter kCapture[] = {
      {"FILE", Kind::kFile, "The capture, in the format pcapng; it must not be there yet", true},
      {"COMMAND", Kind::kCommand, "The command, and its arguments behind --", true},
  };
  static constexpr Command kCommands[] = {
      {"capture", "Run a command, and record what it and its children exchange with the service", kCapture, capture,
       "Usage: ksctl capture FILE -- COMMAND [ARGUMENT...]\n\nSecrets, keys and what is made from them are struck out; "
       "names, lengths and results stay. Wireshark and tshark read FILE with contrib/wireshark/ks.lua."},
  };
  return kCommands;
}

}  // namespace ksctl
