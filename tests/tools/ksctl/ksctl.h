// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// ksctl.h: runs ksctl as a user does, and takes apart what it printed.
#ifndef TESTS_TOOLS_KSCTL_KSCTL_H
#define TESTS_TOOLS_KSCTL_KSCTL_H

#include <sys/mman.h>
#include <unistd.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "base/fd.h"
#include "fail.h"
#include "service/service_process.h"

namespace ks_test {

inline constexpr char kKsctl[] = KS_SERVICE_DIR "/ksctl";

// with_administrator is a service whose VDC 7 and administrator is the test's own user.
inline ServiceSetup with_administrator() {
  ServiceSetup setup;
  setup.config = ks_test::config_of_administrator(7);
  return setup;
}

// ksctl runs a command against the service at `socket`; its standard output is a pipe.
inline ProgramRun ksctl(const std::string &socket, std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), {kKsctl, "--socket", socket});
  return run_program(arguments);
}

// ksctl_given runs it with open files: each of `inputs` is what descriptor 0, 3, 4 and so on gives. What is in them
// isn't in any argument.
inline ProgramRun ksctl_given(const std::string &socket, const std::vector<std::string> &inputs,
                              const std::vector<std::string> &arguments) {
  std::string script = "exec \"$@\"";
  std::vector<ksd::UniqueFd> files;
  for (const std::string &input : inputs) {
    files.emplace_back(memfd_create("input", MFD_CLOEXEC));
    if (write(files.back().get(), input.data(), input.size()) != static_cast<ssize_t>(input.size())) fail("write");
    const size_t number = files.size() == 1 ? 0 : files.size() + 1;
    script += " " + std::to_string(number) + "< /proc/" + std::to_string(getpid()) + "/fd/" +
              std::to_string(files.back().get());
  }
  std::vector<std::string> all{"/bin/sh", "-c", script, "sh", kKsctl, "--socket", socket};
  all.insert(all.end(), arguments.begin(), arguments.end());
  return run_program(all);
}

// store_secret stores one, and metadata beside it.
inline void store_secret(const std::string &socket, const std::string &name, const std::string &metadata = "") {
  const ProgramRun run = ksctl_given(socket, {"a secret"}, {"secret", "put", name, "--metadata", metadata});
  if (run.status != 0) throw std::runtime_error("secret put: " + run.errors);
}

}  // namespace ks_test

#endif
