// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// fleet_check: holds what was noted of a run to what must be so, and says what isn't, a line each. It ends with 1 then.
//
//   fleet_check JOURNAL VERSIONS WALK... -- OPERATIONS...
//
// A WALK is what a machine listed at the end.
#include <cstdio>
#include <exception>
#include <fstream>
#include <string>
#include <vector>

#include "fleet_run/checker.h"

namespace {

using namespace fleet_run;

std::vector<Seen> read_walk(const char *path) {
  std::vector<Seen> walk;
  std::ifstream lines(path);
  std::string name;
  for (uint64_t content = 0; lines >> name >> content;) {
    walk.push_back({.key = key_of(name).value_or(UINT16_MAX), .content = content});
  }
  return walk;
}

int run(int argc, char **argv) {
  Run run;
  read_journal(argv[1], run);
  read_versions(argv[2], run.versions);
  int next = 3;
  std::vector<const char *> walks;
  for (; next < argc && std::string(argv[next]) != "--"; ++next) walks.push_back(argv[next]);
  for (++next; next < argc; ++next) read_operations(argv[next], run.operations);
  Findings findings = check(run);
  for (const char *path : walks) {
    const std::vector<Seen> walk = read_walk(path);
    if (walk == findings.table) continue;
    ++findings.violations;
    findings.wrong.push_back(std::string(path) + ": " + std::to_string(walk.size()) + " entries are listed, and " +
                             std::to_string(findings.table.size()) + " others, or in another order, are there");
  }
  const auto count = [](uint64_t number) { return static_cast<unsigned long long>(number); };
  std::printf(
      "{\"acknowledged\": %llu, \"refused\": %llu, \"unknown\": %llu, \"unknown_happened\": %llu, \"reads\": %llu, "
      "\"too_old\": %llu, \"versions\": %llu, \"failed_without_trouble\": %llu, \"slowest_change\": %.3f, "
      "\"violations\": %llu}\n",
      count(findings.acknowledged), count(findings.refused), count(findings.unknown), count(findings.unknown_happened),
      count(findings.reads), count(findings.too_old), count(run.versions.size()),
      count(findings.failed_without_trouble), static_cast<double>(findings.slowest_change) / 1e9,
      count(findings.violations));
  for (const std::string &line : findings.wrong) std::printf("%s\n", line.c_str());
  return findings.violations == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc < 4) {
    std::fprintf(stderr, "fleet_check: JOURNAL VERSIONS WALK... -- OPERATIONS...\n");
    return 2;
  }
  try {
    return run(argc, argv);
  } catch (const std::exception &error) {
    std::fprintf(stderr, "fleet_check: %s\n", error.what());
    return 2;
  }
}
