// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// latency.h: percentiles out of the service's counts of times.
#ifndef TOOLS_KSCTL_LATENCY_H
#define TOOLS_KSCTL_LATENCY_H

#include <array>
#include <cstdint>

#include "host_wire.h"
#include "value.h"

namespace ksctl {

using Times = std::array<uint64_t, HOST_LATENCY_BUCKETS>;

// bucket_begin_ns is the smallest time that a bucket counts; of one behind the last it is where that one would end.
double bucket_begin_ns(size_t bucket);

uint64_t number_of(const Times &times);

// percentile_us gives the time, in microseconds, below which `percent` of them lie: to a quarter, as fine as the
// buckets are. Null without any.
Value percentile_us(const Times &times, double percent);

// sum_seconds adds all of them up, each taken for the middle of its bucket.
double sum_seconds(const Times &times);

}  // namespace ksctl

#endif
