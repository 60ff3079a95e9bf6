// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "timeline.h"

#include <fmt/format.h>

#include <algorithm>
#include <ctime>
#include <map>
#include <optional>

#include "messages.h"
#include "output.h"

namespace ksctl {
namespace {

constexpr size_t kBarWidth = 32;

// Lane is one thread of a process, while its records are gone through.
struct Lane {
  uint64_t last_ns = 0;
  std::optional<Exchange> open;
};

void close(Timeline &timeline, Lane &lane, const char *outcome) {
  Exchange &exchange = *lane.open;
  exchange.outcome = outcome;
  exchange.end_ns = exchange.parts.back().time_ns;
  timeline.exchanges.push_back(std::move(exchange));
  lane.open.reset();
}

void take(Timeline &timeline, Lane &lane, Record record) {
  record.time_ns = std::max(record.time_ns, lane.last_ns);
  lane.last_ns = record.time_ns;
  if (record.kind == RecordKind::kSent) {
    if (lane.open) close(timeline, lane, "no reply");  // its end was recorded, and has been overwritten or left out
    lane.open = Exchange{.name = message_name(record.opcode),
                         .thread = record.thread,
                         .begin_ns = record.time_ns,
                         .end_ns = record.time_ns,
                         .exact = record.exact,
                         .parts = {record}};
    if (record.failed) close(timeline, lane, "not sent");
    return;
  }
  if (!lane.open) {
    if (record.kind == RecordKind::kReport) timeline.reports.push_back(std::move(record));
    return;
  }
  lane.open->exact = lane.open->exact && record.exact;
  lane.open->parts.push_back(record);
  if (record.kind == RecordKind::kReceived) close(timeline, lane, record.failed ? "no reply" : "answered");
}

uint64_t begin_of(const Timeline &timeline) {
  uint64_t begin = UINT64_MAX;
  for (const Exchange &exchange : timeline.exchanges) begin = std::min(begin, exchange.begin_ns);
  for (const Record &report : timeline.reports) begin = std::min(begin, report.time_ns);
  return begin == UINT64_MAX ? 0 : begin;
}

uint64_t end_of(const Timeline &timeline) {
  uint64_t end = 0;
  for (const Exchange &exchange : timeline.exchanges) end = std::max(end, exchange.end_ns);
  for (const Record &report : timeline.reports) end = std::max(end, report.time_ns);
  return end;
}

const char *kind_of(const Record &record) {
  switch (record.kind) {
    case RecordKind::kSent:
      return "send";
    case RecordKind::kReceived:
      return "receive";
    default:
      return "report";
  }
}

std::string words_of(const Record &record) {
  if (record.kind != RecordKind::kReport) return record.failed ? "failed" : "";
  std::string words = record.function.empty() ? "" : fmt::format("{}({}) ", record.function, record.line);
  return words + record.text;
}

std::string milliseconds(uint64_t ns) {
  return fmt::format("{:.3f}", static_cast<double>(ns) / 1e6);
}

// ---- On a terminal.

class Scale {
 public:
  Scale(uint64_t begin, uint64_t end) : begin_(begin), length_(std::max<uint64_t>(end - begin, 1)) {}

  size_t column(uint64_t at) const {
    const double share = static_cast<double>(at - begin_) / static_cast<double>(length_);
    return std::min(kBarWidth - 1, static_cast<size_t>(share * static_cast<double>(kBarWidth)));
  }

 private:
  uint64_t begin_;
  uint64_t length_;
};

std::string bar_of(const Exchange &exchange, const Scale &scale) {
  std::string bar(kBarWidth, ' ');
  const size_t from = scale.column(exchange.begin_ns);
  const size_t to = scale.column(exchange.end_ns);
  std::fill(bar.begin() + static_cast<ptrdiff_t>(from), bar.begin() + static_cast<ptrdiff_t>(to) + 1, '=');
  for (const Record &part : exchange.parts) {
    if (part.kind == RecordKind::kReport) bar[scale.column(part.time_ns)] = '*';
  }
  if (from == to) {
    bar[from] = '|';
  } else {
    bar[from] = '>';
    bar[to] = exchange.outcome == std::string("answered") ? '<' : 'x';
  }
  return bar;
}

struct Line {
  uint64_t at;
  std::string text;
};

std::string line_of_part(const Record &part, uint64_t begin) {
  const std::string level = part.kind == RecordKind::kReport ? level_of(part.subtype) : "";
  return fmt::format("  {:>10}              {} {} {}", milliseconds(part.time_ns - begin), kind_of(part), level,
                     printable(words_of(part)));
}

std::string line_of(const Exchange &exchange, uint64_t begin, const Scale &scale) {
  const uint64_t length = exchange.end_ns - exchange.begin_ns;
  return fmt::format("  {:>10}  {}{:>9}  {:<28.28} [{}]  {}", milliseconds(exchange.begin_ns - begin),
                     exchange.exact ? ' ' : '~', milliseconds(length), printable(exchange.name),
                     bar_of(exchange, scale), exchange.outcome);
}

void add_exchange(std::vector<Line> &lines, const Exchange &exchange, uint64_t begin, const Scale &scale) {
  std::string text = line_of(exchange, begin, scale);
  const bool tells_more = exchange.parts.size() > 2 || exchange.outcome != std::string("answered");
  for (const Record &part : exchange.parts) {
    if (tells_more) text += "\n" + line_of_part(part, begin);
  }
  lines.push_back({exchange.begin_ns, std::move(text)});
}

std::string without_blanks_at_ends(const std::string &text) {
  std::string out;
  for (const char c : text) {
    if (c == '\n') out.erase(out.find_last_not_of(' ') + 1);
    out += c;
  }
  return out;
}

std::string draw(const Timeline &timeline) {
  const uint64_t begin = begin_of(timeline);
  const uint64_t end = std::max(end_of(timeline), begin);
  const Scale scale(begin, end);
  std::vector<Line> lines;
  for (const Exchange &exchange : timeline.exchanges) add_exchange(lines, exchange, begin, scale);
  for (const Record &report : timeline.reports) lines.push_back({report.time_ns, line_of_part(report, begin)});
  std::stable_sort(lines.begin(), lines.end(), [](const Line &a, const Line &b) { return a.at < b.at; });

  std::string text =
      fmt::format("{}[{}], {}, from {}, {} ms\n", printable(timeline.program), timeline.pid,
                  timeline.running ? "running" : "ended", time_in_words(begin), milliseconds(end - begin));
  text += fmt::format("  {:>10}  {:>10}  {:<28}\n", "at ms", "for ms", "message");
  for (const Line &line : lines) text += line.text + '\n';
  return without_blanks_at_ends(text);
}

// ---- As an object.

Value value_of(const Record &part, uint64_t origin) {
  Object object{{"at_ns", part.time_ns - origin}, {"part", kind_of(part)}};
  if (part.kind == RecordKind::kReport) {
    object.emplace_back("level", level_of(part.subtype));
    object.emplace_back("function", part.function);
    object.emplace_back("line", part.line);
    object.emplace_back("text", part.text);
  } else {
    object.emplace_back("failed", part.failed);
  }
  return object;
}

Value value_of(const Exchange &exchange, uint64_t origin) {
  List parts;
  for (const Record &part : exchange.parts) parts.push_back(value_of(part, origin));
  return Object{{"message", exchange.name},
                {"thread", exchange.thread},
                {"at_ns", exchange.begin_ns - origin},
                {"for_ns", exchange.end_ns - exchange.begin_ns},
                {"exact", exchange.exact},
                {"outcome", exchange.outcome},
                {"parts", std::move(parts)}};
}

}  // namespace

std::string time_in_words(uint64_t time_ns) {
  const auto seconds = static_cast<time_t>(time_ns / 1'000'000'000);
  tm parts{};
  char text[64];
  if (gmtime_r(&seconds, &parts) == nullptr || strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts) == 0)
    return "?";
  return fmt::format("{}.{:06}Z", text, time_ns / 1000 % 1'000'000);
}

Timeline timeline_of(const Ring &ring) {
  Timeline timeline{.program = ring.program, .pid = ring.pid, .running = ring.running, .exchanges = {}, .reports = {}};
  std::map<uint32_t, Lane> lanes;
  for (const Record &record : ring.records) take(timeline, lanes[record.thread], record);
  for (auto &[thread, lane] : lanes) {
    if (lane.open) close(timeline, lane, ring.running ? "under way" : "no reply");
  }
  std::stable_sort(timeline.exchanges.begin(), timeline.exchanges.end(),
                   [](const Exchange &a, const Exchange &b) { return a.begin_ns < b.begin_ns; });
  return timeline;
}

std::string draw(std::span<const Timeline> timelines) {
  std::string text;
  bool exact = true;
  for (const Timeline &timeline : timelines) {
    text += draw(timeline);
    for (const Exchange &exchange : timeline.exchanges) exact = exact && exchange.exact;
  }
  if (!exact) {
    text +=
        "~: to the tick of the clock; exact where all reports are recorded ([trace] record = [100, 103] in the "
        "service's configuration)\n";
  }
  return text;
}

Object to_value(std::span<const Timeline> timelines) {
  uint64_t origin = UINT64_MAX;
  for (const Timeline &timeline : timelines) origin = std::min(origin, begin_of(timeline));
  List processes;
  for (const Timeline &timeline : timelines) {
    List exchanges;
    for (const Exchange &exchange : timeline.exchanges) exchanges.push_back(value_of(exchange, origin));
    List reports;
    for (const Record &report : timeline.reports) {
      Value value = value_of(report, origin);
      Object object = std::get<Object>(value.variant());
      object.emplace_back("thread", report.thread);
      reports.push_back(std::move(object));
    }
    processes.push_back(Object{{"program", timeline.program},
                               {"pid", timeline.pid},
                               {"running", timeline.running},
                               {"exchanges", std::move(exchanges)},
                               {"reports", std::move(reports)}});
  }
  return Object{{"begins", time_in_words(timelines.empty() ? 0 : origin)}, {"processes", std::move(processes)}};
}

}  // namespace ksctl
