// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "report.h"

#include <errno.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace bench {

namespace {

// Names of benchmarks have no character that JSON would need told otherwise.
[[gnu::format(printf, 1, 2)]] void append(const char *format, ...) {
  const char *path = std::getenv("KS_BENCH_REPORT");
  if (path == nullptr || path[0] == '\0') return;
  std::FILE *file = std::fopen(path, "a");
  if (file == nullptr) {
    std::perror(path);
    std::exit(1);
  }
  std::fprintf(file, R"({"program": "%s", )", program_invocation_short_name);
  va_list arguments;
  va_start(arguments, format);
  std::vfprintf(file, format, arguments);
  va_end(arguments);
  std::fputs("}\n", file);
  std::fclose(file);
}

}  // namespace

void report_ratio(const std::string &row, double ns, const std::string &floor, double floor_ns, double aim) {
  append(R"("kind": "ratio", "row": "%s", "ns": %.1f, "floor": "%s", "floor_ns": %.1f, "aim": %.2f)", row.c_str(), ns,
         floor.c_str(), floor_ns, aim);
}

void report_plain(const std::string &row, double value, const std::string &unit, double aim) {
  append(R"("kind": "plain", "row": "%s", "value": %.6g, "unit": "%s", "aim": %.6g)", row.c_str(), value, unit.c_str(),
         aim);
}

void report_point(const std::string &line, unsigned entries, double value, const std::string &unit) {
  append(R"("kind": "point", "row": "%s", "entries": %u, "value": %.6g, "unit": "%s")", line.c_str(), entries, value,
         unit.c_str());
}

}  // namespace bench
