// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "latency.h"

#include <algorithm>
#include <cmath>
#include <numeric>

namespace ksctl {

double bucket_begin_ns(size_t bucket) {
  if (bucket == 0) return 0;
  const size_t doublings = (bucket - 1) / 4;
  return static_cast<double>(4 + (bucket - 1) % 4) * std::exp2(7 + static_cast<double>(doublings));
}

uint64_t number_of(const Times &times) {
  return std::accumulate(times.begin(), times.end(), uint64_t{0});
}

Value percentile_us(const Times &times, double percent) {
  const uint64_t all = number_of(times);
  if (all == 0) return {};
  const double wanted = static_cast<double>(all) * percent / 100;
  double below = 0;
  for (size_t i = 0; i < times.size(); ++i) {
    const auto here = static_cast<double>(times[i]);
    if (here == 0 || below + here < wanted) {
      below += here;
      continue;
    }
    const double begin = bucket_begin_ns(i);
    const double end = i + 1 == times.size() ? begin : bucket_begin_ns(i + 1);  // the last one has no end
    const double ns = begin + (end - begin) * std::max(0.0, wanted - below) / here;
    return std::round(ns / 100) / 10;  // to a tenth of a microsecond
  }
  return {};
}

double sum_seconds(const Times &times) {
  double ns = 0;
  for (size_t i = 0; i < times.size(); ++i) {
    ns += static_cast<double>(times[i]) * (bucket_begin_ns(i) + bucket_begin_ns(i + 1)) / 2;
  }
  return ns / 1e9;
}

}  // namespace ksctl
