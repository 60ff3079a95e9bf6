// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// service_process.h: a keystore service of its own for a test: a real ksd in a fresh folder, ready when the constructor
// returns, gone with its folder when the object goes. What goes wrong is thrown as std::runtime_error, with the log.
//
//   ks_test::ServiceProcess service;                      // the test's user is in VDC 7
//   setenv("KS_SOCKET", service.socket().c_str(), 1);     // for libks in this process
//   service.kill();                                       // SIGKILL
//   service.start();                                      // same folder, same vault
//
// Start it from a thread that lives as long as the service is to: it ends with that thread.
#ifndef TESTS_SUPPORT_SERVICE_SERVICE_PROCESS_H
#define TESTS_SUPPORT_SERVICE_SERVICE_PROCESS_H

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "temporary_folder.h"

namespace ks_test {

// config_of_own_user is a configuration with the test's own user in `vdc` and that user's cache in the service's
// folder.
std::string config_of_own_user(unsigned vdc);

// config_of_administrator is the same, for tests whose user is an administrator as well.
std::string config_of_administrator(unsigned vdc);

// ServiceSetup says how a service is to be. "@dir@" in the configuration and the arguments becomes the folder.
struct ServiceSetup {
  std::string config = config_of_own_user(7);
  std::vector<std::string> arguments = {};    // further ones, behind --config, --socket, --vault, --master-key-file
  std::vector<std::string> environment = {};  // "NAME=value", beside that of the test
  std::vector<std::string> wrapper = {};      // a command that ends by running what stands behind it, as {"nice", "-5"}
  int passed_socket = -1;                     // passed as systemd does, if not -1; without --socket then
  std::optional<uid_t> user = {};             // who runs it, where the test is root's
  std::string parent = "/tmp";  // of its folder; "/dev/shm" where thousands of changes would wait for a disk
};

class ServiceProcess {
 public:
  explicit ServiceProcess(const ServiceSetup &setup = {});
  ~ServiceProcess();
  ServiceProcess(const ServiceProcess &) = delete;
  ServiceProcess &operator=(const ServiceProcess &) = delete;

  const std::string &folder() const { return folder_.path(); }  // mode 0711, for tests with several users
  std::string socket() const { return folder() + "/s"; }        // for KS_SOCKET
  std::string state_page() const { return folder() + "/s.state"; }
  std::string vault() const { return folder() + "/vault.db"; }
  std::string master_key_file() const { return folder() + "/master.key"; }
  std::string cache_folder() const { return folder() + "/cache"; }  // mode 0700, of the test's user
  pid_t pid() const { return pid_; }

  // log gives all lines so far, of all starts. A line about a client is there before the client's connection ends.
  std::string log() const;

  // start starts the service, again after kill or stop, and returns when it has said that it is ready.
  void start();

  // stop ends it with SIGTERM and returns its exit status, or -N when signal N ended it.
  int stop();

  // kill ends it with SIGKILL.
  void kill();

  void restart() {
    kill();
    start();
  }

  // pause stops all its threads, and returns when they have stopped, until resume.
  void pause();
  void resume();

  // reload puts another configuration in place, sends SIGHUP and returns when the service has taken it up or refused.
  void reload(const std::string &config);

  void signal(int number) const;

  // wait_for_notification returns when the service tells its manager `state`, as "WATCHDOG=1".
  void wait_for_notification(const char *state);

  // wait_exit waits until the service ends by itself; the result is that of stop.
  int wait_exit();

 private:
  std::string expand(std::string text) const;
  void write_config(const std::string &config) const;

  ServiceSetup setup_;
  const TemporaryFolder folder_;
  int notifications_ = -1;
  pid_t pid_ = -1;
};

// ProgramRun is what became of a program that was run to its end.
struct ProgramRun {
  int status = 0;  // as of ServiceProcess::stop
  std::string output;
  std::string errors;
};

// run_program runs a program until it and whoever inherited its standard output have ended. Once it has written a
// first line, `after_first_line` is called with its process id and that line.
ProgramRun run_program(const std::vector<std::string> &arguments,
                       const std::function<void(pid_t, const std::string &)> &after_first_line = nullptr);

// run_ksd runs the service to its end, as for --check or a start that fails.
ProgramRun run_ksd(const std::vector<std::string> &arguments);

// wait_for waits for the end of a child and returns its exit status, or the signal that ended it, below 0.
int wait_for(pid_t pid);

// heed_signals is for a child on its way to be a program: what a shell runs in the background, or by nohup, ignores
// interruptions, and so would all that a test starts there.
void heed_signals() noexcept;

// start_as runs `body` in a child of that user and group with no further groups; its result is the child's exit status.
// For tests of several users, which need root; the test's own user needs nothing. The caller has one thread: in the
// child of more, a sanitizer's allocator may wait for ever for a lock that a thread held which isn't there any more.
pid_t start_as(uid_t uid, gid_t gid, const std::function<int()> &body);

// run_as is start_as and wait_for.
int run_as(uid_t uid, gid_t gid, const std::function<int()> &body);

}  // namespace ks_test

#endif
