// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "beside.h"

#include <sched.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <thread>

#include "report.h"

namespace bench {

namespace {

class MedianReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run> &runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run &run : runs) {
      if (run.aggregate_name != "median") continue;
      const std::string name = run.benchmark_name();
      medians[name.substr(0, name.rfind("_median"))] =
          run.GetAdjustedRealTime() / benchmark::GetTimeUnitMultiplier(run.time_unit) * 1e9;
    }
  }

  std::map<std::string, double> medians;  // in nanoseconds
};

// A flag of ours unless the caller gave it another value.
void add_default(std::vector<std::string> &arguments, const std::string &flag, const std::string &value) {
  for (const std::string &argument : arguments) {
    if (argument.rfind(flag + "=", 0) == 0) return;
  }
  arguments.push_back(flag + "=" + value);
}

void place(pid_t thread, const cpu_set_t &cores) {
  if (sched_setaffinity(thread, sizeof cores, &cores) == 0 || errno == ESRCH) return;  // gone since it was listed
  std::perror("sched_setaffinity");
  std::exit(1);
}

void place_all_threads(pid_t process, const cpu_set_t &cores) {
  for (const auto &task : std::filesystem::directory_iterator("/proc/" + std::to_string(process) + "/task")) {
    place(std::stoi(task.path().filename()), cores);
  }
}

}  // namespace

int run_beside(int argc, char **argv, const std::vector<Comparison> &comparisons) {
  std::vector<std::string> arguments(argv, argv + argc);
  // Many short turns: a virtual machine is slower by half for seconds at a time, and all are to be hit alike.
  add_default(arguments, "--benchmark_repetitions", "41");
  add_default(arguments, "--benchmark_enable_random_interleaving", "true");
  add_default(arguments, "--benchmark_min_time", "0.01");
  add_default(arguments, "--benchmark_report_aggregates_only", "true");
  std::vector<char *> pointers;
  for (std::string &argument : arguments) pointers.push_back(argument.data());
  int count = static_cast<int>(pointers.size());
  benchmark::Initialize(&count, pointers.data());
  if (benchmark::ReportUnrecognizedArguments(count, pointers.data())) return 2;

  MedianReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);

  std::printf("\nMedians of one run, beside their floors:\n");
  for (const Comparison &comparison : comparisons) {
    double floor = 0;
    std::string names;
    bool complete = reporter.medians.contains(comparison.name);
    for (const std::string &part : comparison.floor) {
      if (!reporter.medians.contains(part)) {
        complete = false;
        break;
      }
      floor += reporter.medians[part];
      names += (names.empty() ? "" : " + ") + part;
    }
    if (!complete) continue;
    const double ns = reporter.medians[comparison.name];
    std::printf("  %-34s", comparison.name.c_str());
    if (!names.empty()) {
      const double ratio = ns / floor;
      std::printf(" %5.*f times %s", ratio < 1 ? 3 : 2, ratio, names.c_str());
      if (comparison.aim > 0) std::printf(", to stay under %.2f", comparison.aim);
      report_ratio(comparison.name, ns, names, floor, comparison.aim);
    }
    if (names.empty() || comparison.aim_ns > 0) {
      std::printf(" %.4g ms", ns / 1e6);
      if (comparison.aim_ns > 0) std::printf(", to stay under %.4g ms", comparison.aim_ns / 1e6);
      report_plain(comparison.name, ns / 1e6, "ms", comparison.aim_ns / 1e6);
    }
    std::printf("\n");
  }
  return 0;
}

OneCore::OneCore(pid_t other) : other_(other) {
  cpu_set_t first;
  CPU_ZERO(&first);
  CPU_SET(0, &first);
  place(0, first);
  place_all_threads(other_, first);
}

OneCore::~OneCore() {
  cpu_set_t all;
  CPU_ZERO(&all);
  for (unsigned core = 0; core < std::thread::hardware_concurrency(); ++core) CPU_SET(core, &all);
  place_all_threads(other_, all);
  place(0, all);
}

}  // namespace bench
