// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// ks-session: runs a command against a private keystore service that comes and goes with it.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "session.h"

namespace {

using ks_session::Session;

struct Arguments {
  uint16_t vdc = 1;
  std::string keep;
  std::vector<std::string> command;
};

int run_session(const Arguments &arguments, int *wait_status) {
  const mode_t command_umask = umask(077);
  try {
    const ks_session::Folder folder(arguments.keep);
    folder.write_config(arguments.vdc);
    *wait_status = Session(folder, command_umask).run(arguments.command);
    return 0;
  } catch (const Session::CommandFailure &failure) {
    std::fprintf(stderr, "ks-session: can't run %s: %s\n", arguments.command[0].c_str(), std::strerror(failure.error));
    return failure.error == ENOENT ? ks_session::kNoCommand : ks_session::kCannotRun;
  } catch (const std::exception &error) {
    std::fprintf(stderr, "ks-session: %s\n", error.what());
    return ks_session::kNoSession;
  }
}

// The session's own files must not get the numbers of the command's input and output.
void open_missing_standard_files() {
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(fd, F_GETFD) < 0) open("/dev/null", O_RDWR);  // takes the lowest free number, which is this one
  }
}

// die_of ends this process by the signal that ended the command, so that its parent sees the same.
void die_of(int signal_number) {
  const rlimit no_core{0, 0};
  setrlimit(RLIMIT_CORE, &no_core);
  signal(signal_number, SIG_DFL);
  sigset_t all;
  sigfillset(&all);
  sigprocmask(SIG_UNBLOCK, &all, nullptr);
  raise(signal_number);
}

}  // namespace

int main(int argc, char **argv) {
  Arguments arguments;
  CLI::App app("ks-session runs COMMAND against a keystore service of its own, in a folder of its own.", "ks-session");
  app.add_option("--vdc", arguments.vdc, "VDC id of this user in the session, 0 to 65534")
      ->option_text("N [1]")
      ->check(CLI::Range(0, 65534));
  app.add_option("--keep", arguments.keep, "Folder to use, made when absent, and left there with vault, cache and log")
      ->option_text("FOLDER");
  app.add_option("COMMAND", arguments.command, "What to run; put -- in front of it")->option_text("...")->required();
  app.set_version_flag("--version", "ks-session " KS_VERSION);
  app.footer(
      "The command finds the service through KS_SOCKET, and the folder with ksd.log and ksd.pid as KS_SESSION_DIR. A\n"
      "service that is killed comes back with what it had stored.\n"
      "Exit status: the command's, or its signal; 125 when there is no session, 126 and 127 when the command can't be\n"
      "run or found.");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError &error) {
    return app.exit(error) == 0 ? 0 : ks_session::kNoSession;
  }

  open_missing_standard_files();
  int wait_status = 0;
  if (const int failed = run_session(arguments, &wait_status); failed != 0) return failed;
  if (WIFSIGNALED(wait_status)) die_of(WTERMSIG(wait_status));
  return WEXITSTATUS(wait_status);
}
