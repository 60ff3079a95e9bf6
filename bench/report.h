// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// report.h: what a benchmark has measured, for bench/report.py, which makes charts of it: a line of JSON for each
// figure in the file that KS_BENCH_REPORT names. Without that file nothing is written.
#ifndef BENCH_REPORT_H
#define BENCH_REPORT_H

#include <string>

namespace bench {

// A row beside its floor: a bar in times of it. `aim` is what the ratio is to stay under; 0 for none.
void report_ratio(const std::string &row, double ns, const std::string &floor, double floor_ns, double aim);

// A figure by itself. `aim` is what it is to stay under; 0 for none.
void report_plain(const std::string &row, double value, const std::string &unit, double aim);

// A point of a line: what something costs with so many entries.
void report_point(const std::string &line, unsigned entries, double value, const std::string &unit);

}  // namespace bench

#endif
