// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// Long work: what a terminal shows of it, and what an interruption leaves.
#include <gmock/gmock.h>
#include <sched.h>

#include <csignal>
#include <fstream>

#include "pac.h"
#include "terminal.h"

namespace {

using ks_test::import_pacs;
using ks_test::kIn2001;
using ks_test::kPacFileHead;
using ks_test::ksctl;
using ks_test::pac_file;
using ks_test::pac_info;
using ks_test::pac_lines;
using ks_test::ServiceProcess;
using ks_test::Terminal;
using testing::HasSubstr;

// What the kernel tells of a process behind `word`.
std::string status_of(pid_t pid, const std::string &word) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line) && !line.starts_with("State:\tZ");) {
    if (line.starts_with(word)) return line.substr(word.size());
  }
  throw std::runtime_error("the process has ended");
}

// Waits until the process has said what it does with SIGINT, as it has before its first step, and then until it waits
// for the terminal. One that is interrupted before ends without a step.
void wait_until_it_is_held(pid_t pid) {
  while ((std::stoull(status_of(pid, "SigCgt:"), nullptr, 16) >> (SIGINT - 1) & 1) == 0) sched_yield();
  while (status_of(pid, "State:").find("sleeping") == std::string::npos) sched_yield();
}

struct Work {
  const char *name;
  std::vector<std::string> command;
  const char *interrupted;  // what it says
  const char *left;         // of the context, behind the VDC
  const char *done;         // the same, when it was run again
};

class KsctlProgress : public testing::TestWithParam<Work> {};

// The terminal holds the first line of progress back, so that the interruption comes within the first step.
TEST_P(KsctlProgress, EndsBehindTheStepThatWasInterrupted) {
  const ServiceProcess service;
  const std::string lines =
      pac_lines("61", pac_info(kIn2001)) + pac_lines("62", pac_info(kIn2001)) + pac_lines("63", pac_info(kIn2001));
  std::vector<std::string> command = GetParam().command;
  const bool imports = command[1] == "import";
  if (imports) {
    command.push_back(pac_file(service, kPacFileHead + lines));
  } else {
    import_pacs(service, lines);
  }
  const auto holds = [&] { return ksctl(service.socket(), {"context", "list"}).output; };

  {
    Terminal terminal(service.socket(), command, /*held=*/true);
    wait_until_it_is_held(terminal.pid());
    kill(terminal.pid(), SIGINT);
    terminal.release();
    EXPECT_EQ(terminal.wait(), -SIGINT);
    EXPECT_THAT(terminal.shown(), HasSubstr(GetParam().command[0] + " " + GetParam().command[1] + ": 0 of 3 "));
    EXPECT_THAT(terminal.shown(), HasSubstr(GetParam().interrupted));
  }
  EXPECT_EQ(holds(), GetParam().left);

  const auto again = ksctl(service.socket(), command);
  EXPECT_EQ(again.status, imports ? 7 : 0) << again.errors;  // what it has taken already is skipped
  EXPECT_EQ(holds(), GetParam().done);
}

INSTANTIATE_TEST_SUITE_P(
    Commands, KsctlProgress,
    testing::Values(Work{"AgeOut",
                         {"pac", "age-out"},
                         "ksctl: pac age-out: interrupted after 1 of 3 PACs; run it again for the rest",
                         "7\t0\t2\t2\t0\t56\n",
                         "7\t0\t0\t0\t0\t0\n"},
                    Work{"Import",
                         {"pac", "import", "--with-expired"},
                         "ksctl: pac import: interrupted after 1 of 3 PACs; run it again for the rest",
                         "7\t0\t1\t1\t0\t28\n",
                         "7\t0\t3\t3\t0\t84\n"},
                    Work{"Warm",
                         {"cache", "warm"},
                         "ksctl: cache warm: interrupted after 1 of 3 PACs; run it again for the rest",
                         "7\t0\t3\t3\t1\t84\n",
                         "7\t0\t3\t3\t3\t84\n"},
                    Work{"Clear",
                         {"context", "clear", "--yes"},
                         "ksctl: context clear: interrupted after 1 of 3 entries; run it again for the rest",
                         "7\t0\t2\t2\t0\t56\n",
                         "7\t0\t0\t0\t0\t0\n"}),
    [](const auto &work) { return std::string(work.param.name); });

TEST(KsctlProgressLine, IsForATerminalAlone) {
  const ServiceProcess service;
  import_pacs(service, pac_lines("61", pac_info(kIn2001)));

  EXPECT_THAT(ksctl(service.socket(), {"pac", "age-out"}).errors, testing::IsEmpty());
}

}  // namespace
