// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// history.cc: what the user's programs have lately reported, and the exchanges that they had with the service.
#include <fmt/format.h>

#include <algorithm>

#include "command.h"
#include "messages.h"
#include "private_file.h"
#include "ring.h"
#include "timeline.h"

namespace ksctl {
namespace {

// rings_asked_for gives the rings that the user means, none of them without records.
std::vector<Ring> rings_asked_for(const Session &session, const Arguments &arguments) {
  if (arguments.has("--ring")) return {read_ring(arguments.text("--ring"))};
  std::vector<Ring> rings = read_own_rings(session.socket);
  if (arguments.has("--pid")) {
    const uint64_t pid = arguments.number("--pid");
    std::erase_if(rings, [pid](const Ring &ring) { return ring.pid != pid; });
    if (rings.empty()) {
      throw Failure(Exit::kNotFound,
                    fmt::format("process {}: no program of this user's left a history under that number; `ksctl "
                                "history --list` shows those that did",
                                pid));
    }
  }
  std::erase_if(rings, [](const Ring &ring) { return ring.records.empty(); });
  return rings;
}

// keep_last leaves the newest `count` records of all rings together.
void keep_last(std::vector<Ring> &rings, size_t count) {
  std::vector<uint64_t> times;
  for (const Ring &ring : rings) {
    for (const Record &record : ring.records) times.push_back(record.time_ns);
  }
  if (times.size() <= count) return;
  std::sort(times.begin(), times.end());
  const uint64_t oldest = count == 0 ? UINT64_MAX : times[times.size() - count];
  for (Ring &ring : rings) {
    std::erase_if(ring.records, [oldest](const Record &record) { return record.time_ns < oldest; });
  }
}

Object row_of(const Ring &ring, const Record &record) {
  const bool report = record.kind == RecordKind::kReport;
  return Object{
      {"time", time_in_words(record.time_ns)},
      {"program", ring.program},
      {"pid", ring.pid},
      {"thread", record.thread},
      {"family", report ? "report" : "message"},
      {"level", report                             ? level_of(record.subtype)
                : record.kind == RecordKind::kSent ? "send"
                                                   : "receive"},
      {"function", report ? record.function : message_name(record.opcode)},
      {"text", report          ? record.text
               : record.failed ? "failed"
                               : ""},
      {"line", record.line},
      {"time_ns", record.time_ns},
      {"exact", record.exact},
      {"running", ring.running},
  };
}

void print_records(const Session &session, const std::vector<Ring> &rings) {
  std::vector<std::pair<uint64_t, Object>> rows;
  for (const Ring &ring : rings) {
    for (const Record &record : ring.records) rows.emplace_back(record.time_ns, row_of(ring, record));
  }
  std::stable_sort(rows.begin(), rows.end(), [](const auto &a, const auto &b) { return a.first < b.first; });
  List list;
  for (auto &[time, row] : rows) list.push_back(std::move(row));
  static constexpr Column kColumns[] = {{"time", "TIME"},         {"program", "PROGRAM"}, {"pid", "PID"},
                                        {"thread", "THREAD"},     {"family", "FAMILY"},   {"level", "LEVEL"},
                                        {"function", "FUNCTION"}, {"text", "TEXT"}};
  session.output.table("history", kColumns, list, "Nothing has been recorded.");
}

void print_rings(const Session &session, const std::vector<Ring> &rings) {
  List list;
  for (const Ring &ring : rings) {
    list.push_back(Object{{"pid", ring.pid},
                          {"program", ring.program},
                          {"running", ring.running},
                          {"records", ring.records.size()},
                          {"overwritten", ring.overwritten},
                          {"unreadable", ring.unreadable},
                          {"first", time_in_words(ring.records.front().time_ns)},
                          {"last", time_in_words(ring.records.back().time_ns)},
                          {"file", ring.path}});
  }
  static constexpr Column kColumns[] = {{"pid", "PID"},         {"program", "PROGRAM"}, {"running", "RUNNING"},
                                        {"records", "RECORDS"}, {"first", "FIRST"},     {"last", "LAST"},
                                        {"file", "FILE"}};
  session.output.table("rings", kColumns, list, "No program of this user's has left a history.");
}

std::vector<Timeline> timelines_of(const std::vector<Ring> &rings) {
  std::vector<Timeline> timelines;
  for (const Ring &ring : rings) timelines.push_back(timeline_of(ring));
  return timelines;
}

void history(Session &session, const Arguments &arguments) {
  std::vector<Ring> rings = rings_asked_for(session, arguments);
  if (arguments.has("--last")) keep_last(rings, arguments.number("--last"));
  std::erase_if(rings, [](const Ring &ring) { return ring.records.empty(); });
  std::stable_sort(rings.begin(), rings.end(),
                   [](const Ring &a, const Ring &b) { return a.records.front().time_ns < b.records.front().time_ns; });
  if (arguments.has("--html")) {
    const std::string &file = arguments.text("--html");
    const std::vector<Timeline> timelines = timelines_of(rings);
    write_private_file(file, page(timelines), true);
    return session.output.done(fmt::format("{}: written, open it in a browser.", file),
                               Object{{"file", file}, {"processes", timelines.size()}});
  }
  if (arguments.has("--timeline")) {
    const std::vector<Timeline> timelines = timelines_of(rings);
    return session.output.text(timelines.empty() ? "Nothing has been recorded.\n" : draw(timelines),
                               to_value(timelines));
  }
  if (arguments.has("--list")) return print_rings(session, rings);
  print_records(session, rings);
}

}  // namespace

std::span<const Command> history_commands() {
  static constexpr Parameter kHistory[] = {
      {"--pid", Kind::kNumber, "Of this process alone, running or not"},
      {"--ring", Kind::kFile, "Of this ring, whosever it is"},
      {"--last", Kind::kNumber, "The newest N records alone"},
      {"--timeline", Kind::kFlag, "Draw each exchange with the service and its parts"},
      {"--html", Kind::kFile, "Write the timeline as a page for a browser, which needs nothing else"},
      {"--list", Kind::kFlag, "List the programs that have left a history"},
  };
  static constexpr Command kCommands[] = {
      {"history", "Show what this user's programs reported lately, also those that were killed", kHistory, history,
       "Which reports are kept says [trace] in the service's configuration; messages are kept always."},
  };
  return kCommands;
}

}  // namespace ksctl
