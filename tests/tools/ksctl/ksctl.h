// ksctl.h: runs ksctl as a user does, and takes apart what it printed.
#ifndef TESTS_TOOLS_KSCTL_KSCTL_H
#define TESTS_TOOLS_KSCTL_KSCTL_H

#include <unistd.h>

#include <string>
#include <vector>

#include "service/service_process.h"

namespace ks_test {

inline constexpr char kKsctl[] = KS_SERVICE_DIR "/ksctl";

// with_administrator is a service whose VDC 7 and administrator is the test's own user.
inline ServiceSetup with_administrator() {
  const std::string uid = std::to_string(getuid());
  ServiceSetup setup;
  setup.config = "[service]\ncache_uri = \"lmdb://@dir@/cache\"\n[administrators]\nusers = [" + uid +
                 "]\n[[vdc]]\nid = 7\nusers = [" + uid + "]\n";
  return setup;
}

// ksctl runs a command against the service at `socket`; its standard output is a pipe.
inline ProgramRun ksctl(const std::string &socket, std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), {kKsctl, "--socket", socket});
  return run_program(arguments);
}

}  // namespace ks_test

#endif
