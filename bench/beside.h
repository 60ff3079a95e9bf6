// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// beside.h: runs a program's benchmarks several times in turns and prints, for each that has a floor, how many times
// the floor's cost it costs. Only the medians of one run are compared: the machine is then in one state for both.
#ifndef BENCH_BESIDE_H
#define BENCH_BESIDE_H

#include <benchmark/benchmark.h>
#include <sys/types.h>

#include <string>
#include <vector>

namespace bench {

// Comparison sets a benchmark beside the sum of others. `aim` is what the ratio is to stay under, and `aim_ns` the
// time; 0 for none.
struct Comparison {
  std::string name;
  std::vector<std::string> floor;
  double aim = 0;
  double aim_ns = 0;
};

// run_beside does it all; main returns its result. --benchmark_filter and the other flags work as usual.
int run_beside(int argc, char **argv, const std::vector<Comparison> &comparisons);

// OneCore keeps the calling thread and all threads of process `other` on one core while it lives: waking another core
// costs several times an exchange on virtual machines, so only like placements are compared.
class OneCore {
 public:
  explicit OneCore(pid_t other);
  ~OneCore();
  OneCore(const OneCore &) = delete;
  OneCore &operator=(const OneCore &) = delete;

 private:
  pid_t other_;
};

}  // namespace bench

#endif
