// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// top.cc: what the service is doing now.
#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <ctime>
#include <thread>

#include "command.h"
#include "screen.h"
#include "snapshot.h"
#include "status.h"

namespace ksctl {
namespace {

using Clock = std::chrono::steady_clock;

// Rate is what happened of one message, or to one user, in an interval.
struct Rate {
  std::string name;
  uint32_t opcode = 0;
  double done = 0;  // each second, as the next
  double failed = 0;
  Times times{};

  double all() const { return done + failed; }
};

struct UserRate {
  HostUserRecord user{};
  double all = 0;
};

struct Interval {
  double seconds = 0;
  Rate all;
  std::vector<Rate> messages;   // the most frequent first, without those that didn't come
  std::vector<UserRate> users;  // the busiest first
};

double per_second(uint64_t now, uint64_t before, double seconds) {
  return now < before || seconds <= 0 ? 0 : static_cast<double>(now - before) / seconds;
}

// between compares two moments of one service.
Interval between(const Snapshot &before, const Snapshot &after) {
  Interval interval;
  interval.all.name = "all";
  interval.seconds = static_cast<double>(after.events.up_ms - before.events.up_ms) / 1000;
  for (size_t i = 0; i < std::min(before.messages.size(), after.messages.size()); ++i) {
    const MessageStatistics &old = before.messages[i], &now = after.messages[i];
    Rate rate{.name = now.name,
              .opcode = now.opcode,
              .done = per_second(now.done, old.done, interval.seconds),
              .failed = per_second(now.failed, old.failed, interval.seconds)};
    for (size_t b = 0; b < rate.times.size(); ++b) {
      rate.times[b] = now.times[b] - old.times[b];
      interval.all.times[b] += rate.times[b];
    }
    interval.all.done += rate.done;
    interval.all.failed += rate.failed;
    if (rate.all() > 0) interval.messages.push_back(std::move(rate));
  }
  for (const HostUserRecord &user : after.users) {
    const auto old = std::ranges::find(before.users, user.uid, &HostUserRecord::uid);
    const uint64_t counted = old == before.users.end() ? 0 : old->done + old->failed;
    interval.users.push_back({user, per_second(user.done + user.failed, counted, interval.seconds)});
  }
  std::ranges::stable_sort(interval.messages, std::greater(), &Rate::all);
  std::ranges::stable_sort(interval.users, [](const UserRate &a, const UserRate &b) {
    return std::pair(a.all, a.user.connections) > std::pair(b.all, b.user.connections);
  });
  return interval;
}

Value rounded(double rate) {
  return std::round(rate * 10) / 10;
}

Object rate_row(const Rate &rate, const std::string &at) {
  return {{"at", at},
          {"message", rate.name},
          {"per_second", rounded(rate.all())},
          {"failed_per_second", rounded(rate.failed)},
          {"p50_us", percentile_us(rate.times, 50)},
          {"p90_us", percentile_us(rate.times, 90)},
          {"p99_us", percentile_us(rate.times, 99)}};
}

// For a pipe: a line for each message that came, and one for all, each with its time.
void print_lines(Session &session, const Interval &interval) {
  const std::string at = time_text(static_cast<uint64_t>(std::time(nullptr)));
  List rows{rate_row(interval.all, at)};
  for (const Rate &rate : interval.messages) rows.push_back(rate_row(rate, at));
  static constexpr Column kColumns[] = {{"at", ""},     {"message", ""}, {"per_second", ""}, {"failed_per_second", ""},
                                        {"p50_us", ""}, {"p90_us", ""},  {"p99_us", ""}};
  session.output.table("messages", kColumns, rows, "");
}

void print_object(Session &session, const Snapshot &now, const Interval &interval) {
  const auto json_row = [](const Rate &rate) {
    Object row = rate_row(rate, "");
    row.erase(row.begin());
    return row;
  };
  List messages, users;
  for (const Rate &rate : interval.messages) messages.push_back(json_row(rate));
  for (const UserRate &rate : interval.users) {
    users.push_back(Object{{"uid", rate.user.uid},
                           {"user", user_name(rate.user.uid)},
                           {"connections", rate.user.connections},
                           {"per_second", rounded(rate.all)}});
  }
  session.output.fields(
      Object{{"at", static_cast<int64_t>(std::time(nullptr))},
             {"seconds", interval.seconds},
             {"connections", Object{{"open", now.status.connections}, {"limit", now.status.connection_limit}}},
             {"entries", Object{{"stored", now.status.entries}, {"limit", now.status.entry_limit}}},
             {"bytes", Object{{"stored", now.status.bytes}, {"limit", now.status.byte_limit}}},
             {"all", json_row(interval.all)},
             {"messages", std::move(messages)},
             {"users", std::move(users)}});
}

std::string time_cell(const Times &times, double percent) {
  const Value time = percentile_us(times, percent);
  const double *us = std::get_if<double>(&time.variant());
  if (us == nullptr) return "-";
  return *us < 10'000 ? fmt::format("{:.1f} us", *us) : fmt::format("{:.1f} ms", *us / 1000);
}

std::string rate_line(const Rate &rate) {
  return fmt::format("{:<27} {:>10.1f} {:>8.1f} {:>10} {:>10} {:>10}", rate.name, rate.all(), rate.failed,
                     time_cell(rate.times, 50), time_cell(rate.times, 90), time_cell(rate.times, 99));
}

// page is what a terminal of `rows` shows: head, messages and users, of which the last have to make room.
std::vector<Screen::Line> page(const Session &session, const Snapshot &now, const Interval *interval, size_t rows) {
  using Look = Screen::Line::Look;
  const HostStatusReply &status = now.status;
  std::vector<Screen::Line> lines;
  const auto add = [&](const std::string &text, Look look = Look::kPlain) { lines.push_back({printable(text), look}); };
  add(fmt::format("ksd {} at {}, pid {}, up {}; q ends", version_text(status.service_version), session.socket,
                  status.pid, duration_in_words(status.up_ms / 1000)));
  add(fmt::format("{} connections, {} entries, {}", share_text(status.connections, status.connection_limit),
                  share_text(status.entries, status.entry_limit), size_share_text(status.bytes, status.byte_limit)));
  for (const std::string &warning : warnings_of(status)) add("! " + warning, Look::kAlarm);
  if (interval == nullptr) {
    add("");
    add("The first interval isn't over yet.");
    return lines;
  }
  add("");
  add(fmt::format("{:<27} {:>10} {:>8} {:>10} {:>10} {:>10}", "MESSAGE", "PER SECOND", "FAILED", "P50", "P90", "P99"),
      Look::kStrong);
  add(rate_line(interval->all));
  const size_t left = rows > lines.size() + 2 ? rows - lines.size() - 2 : 0;
  const size_t for_users =
      std::min(interval->users.size(), std::max(left / 3, left - std::min(left, interval->messages.size())));
  const size_t for_messages = std::min(interval->messages.size(), left - std::min(left, for_users));
  for (size_t i = 0; i < for_messages; ++i) add(rate_line(interval->messages[i]));
  add("");
  add(fmt::format("{:<27} {:>10} {:>8} {:>11}", "USER", "PER SECOND", "VDC", "CONNECTIONS"), Look::kStrong);
  for (size_t i = 0; i < for_users; ++i) {
    const UserRate &rate = interval->users[i];
    const Value name = user_name(rate.user.uid);
    const std::string *text = std::get_if<std::string>(&name.variant());
    add(fmt::format("{:<27} {:>10.1f} {:>8} {:>11}", text != nullptr ? *text : std::to_string(rate.user.uid), rate.all,
                    rate.user.vdc_id == HOST_NO_VDC ? "-" : std::to_string(rate.user.vdc_id), rate.user.connections));
  }
  return lines;
}

struct Pace {
  std::chrono::milliseconds interval{1000};
  uint64_t count = 0;  // 0: until it is ended

  bool is_over(uint64_t done) const { return count != 0 && done >= count; }
};

Pace pace_of(const Arguments &arguments) {
  Pace pace;
  if (arguments.has("--count")) pace.count = arguments.number("--count");
  if (!arguments.has("--interval")) return pace;
  const std::string &text = arguments.text("--interval");
  double seconds = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), seconds);
  if (error != std::errc() || end != text.data() + text.size() || !(seconds >= 0.01 && seconds <= 3600)) {
    throw Failure(Exit::kUsage, fmt::format("--interval: {}: isn't a number of seconds from 0.01 to 3600", text));
  }
  pace.interval = std::chrono::milliseconds(std::lround(seconds * 1000));
  return pace;
}

void watch_on_terminal(Session &session, ServiceLink &link, const Pace &pace) {
  Screen screen;
  Snapshot before = take_snapshot(link);
  Snapshot now = before;
  std::optional<Interval> interval;
  Clock::time_point next = Clock::now() + pace.interval;
  for (uint64_t done = 0;;) {
    screen.show(page(session, now, interval ? &*interval : nullptr, screen.size().rows), session.output.colour());
    if (pace.is_over(done)) return;
    const Screen::Event event = screen.wait(next);
    if (event == Screen::Event::kEnd) return;
    if (event == Screen::Event::kResized) continue;
    next = std::max(next, Clock::now() - pace.interval) + pace.interval;
    before = std::exchange(now, take_snapshot(link));
    interval = between(before, now);
    ++done;
  }
}

void watch_in_pipe(Session &session, ServiceLink &link, const Pace &pace) {
  Snapshot before = take_snapshot(link);
  for (uint64_t done = 0; !pace.is_over(done); ++done) {
    std::this_thread::sleep_for(pace.interval);
    Snapshot now = take_snapshot(link);
    const Interval interval = between(before, now);
    if (session.output.format() == Format::kJson) {
      print_object(session, now, interval);
    } else {
      print_lines(session, interval);
    }
    if (std::fflush(stdout) != 0) return;  // nobody reads on
    before = std::move(now);
  }
}

void top(Session &session, const Arguments &arguments) {
  const Pace pace = pace_of(arguments);
  ServiceLink link(session.socket);
  if (session.output.format() == Format::kTerminal) {
    watch_on_terminal(session, link, pace);
  } else {
    watch_in_pipe(session, link, pace);
  }
}

}  // namespace

std::span<const Command> top_commands() {
  static constexpr Parameter kParameters[] = {
      {"--interval", Kind::kText, "Seconds between two looks, 1 if not given"},
      {"--count", Kind::kNumber, "End after so many intervals"},
  };
  static constexpr Command kCommands[] = {
      {"top", "Watch what the service is asked for, how long that takes, and by whom", kParameters, top,
       "At a terminal, q ends it. In a pipe each interval is some lines, with --json one object on a line."},
  };
  return kCommands;
}

}  // namespace ksctl
