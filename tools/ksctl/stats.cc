// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// stats.cc: what the service has counted since its start, for people and for Prometheus.
#include <fmt/format.h>
#include <pwd.h>

#include <charconv>
#include <iterator>

#include "command.h"
#include "snapshot.h"

namespace ksctl {
namespace {

std::optional<uint32_t> number_in(const std::string &text) {
  uint32_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && end == text.data() + text.size() ? std::optional(number) : std::nullopt;
}

// uid_of takes a number, a name, or "unmapped" for all users without a VDC.
uint32_t uid_of(const std::string &user) {
  if (user == "unmapped") return HOST_ALL_UNMAPPED;
  if (const std::optional<uint32_t> number = number_in(user)) return *number;
  if (const passwd *entry = getpwnam(user.c_str())) return entry->pw_uid;
  throw Failure(Exit::kUsage, fmt::format("{}: there is no such user; give a name, a number or \"unmapped\"", user));
}

Object user_row(const HostUserRecord &user) {
  return {{"uid", user.uid},
          {"user", user_name(user.uid)},
          {"vdc", user.vdc_id == HOST_NO_VDC ? Value() : Value(user.vdc_id)},
          {"administrator", (user.flags & HOST_USER_IS_ADMINISTRATOR) != 0},
          {"connections", user.connections},
          {"done", user.done},
          {"failed", user.failed}};
}

Object message_row(const MessageStatistics &message) {
  return {{"opcode", message.opcode},
          {"message", message.name},
          {"done", message.done},
          {"failed", message.failed},
          {"timed", number_of(message.times)},
          {"p50_us", percentile_us(message.times, 50)},
          {"p90_us", percentile_us(message.times, 90)},
          {"p99_us", percentile_us(message.times, 99)}};
}

constexpr Column kUserColumns[] = {{"uid", "UID"},   {"user", "USER"},
                                   {"vdc", "VDC"},   {"connections", "CONNECTIONS"},
                                   {"done", "DONE"}, {"failed", "FAILED"}};

void print_all(Session &session, const Snapshot &snapshot, bool users_only) {
  List messages, asked_for, users;
  for (const MessageStatistics &message : snapshot.messages) {
    messages.push_back(message_row(message));
    if (message.done + message.failed != 0) asked_for.push_back(messages.back());
  }
  for (const HostUserRecord &user : snapshot.users) users.push_back(user_row(user));
  if (session.output.format() == Format::kJson) {
    Object events;
    for (const EventName &event : kEvents) events.emplace_back(event.name, snapshot.events.*event.count);
    return session.output.fields(Object{{"up_seconds", snapshot.events.up_ms / 1000},
                                        {"events", std::move(events)},
                                        {"messages", std::move(messages)},
                                        {"users", std::move(users)}});
  }
  if (users_only) return session.output.table("users", kUserColumns, users, "Nobody has been here.");
  static constexpr Column kColumns[] = {{"message", "MESSAGE"}, {"done", "DONE"},     {"failed", "FAILED"},
                                        {"p50_us", "P50 us"},   {"p90_us", "P90 us"}, {"p99_us", "P99 us"}};
  session.output.table("messages", kColumns, asked_for, "Nothing was asked for since the service started.");
}

void print_user(Session &session, uint32_t uid) {
  std::array<uint8_t, sizeof uid> descriptor;
  std::memcpy(descriptor.data(), &uid, sizeof uid);
  std::vector<uint8_t> payload;
  try {
    payload = ServiceLink(session.socket).ask(HOST_OP_COUNTERS, descriptor);
  } catch (const Failure &failure) {
    if (failure.exit() != Exit::kNotFound) throw;
    throw Failure(Exit::kNotFound, fmt::format("user {}: nothing is counted for this user, who hasn't been connected "
                                               "lately; `ksctl stats --users` lists those who have",
                                               uid));
  }
  const auto counters = records_of<HostCountersReply, HostMessageCounters>(payload);
  List messages;
  for (const HostMessageCounters &counter : counters.records) {
    if (counter.done + counter.failed == 0) continue;
    messages.push_back(Object{{"opcode", counter.opcode},
                              {"message", text_in(counter.name)},
                              {"done", counter.done},
                              {"failed", counter.failed}});
  }
  if (session.output.format() == Format::kJson) {
    return session.output.fields(
        Object{{"up_seconds", counters.head.up_ms / 1000}, {"uid", uid}, {"messages", std::move(messages)}});
  }
  static constexpr Column kColumns[] = {{"message", "MESSAGE"}, {"done", "DONE"}, {"failed", "FAILED"}};
  session.output.table("messages", kColumns, messages, "This user has asked for nothing.");
}

// Page collects the lines of Prometheus's text format.
class Page {
 public:
  void family(const char *name, const char *type, const char *help) {
    fmt::format_to(std::back_inserter(text_), "# HELP {} {}\n# TYPE {} {}\n", name, help, name, type);
  }
  template <typename Number>
  void line(std::string_view name, std::string_view labels, Number value) {
    const std::string of = labels.empty() ? "" : fmt::format("{{{}}}", labels);
    fmt::format_to(std::back_inserter(text_), "{}{} {}\n", name, of, value);
  }
  const std::string &text() const { return text_; }

 private:
  std::string text_;
};

void add_times(Page &page, const MessageStatistics &message) {
  constexpr char kName[] = "ks_message_duration_seconds";
  const uint64_t all = number_of(message.times);
  if (all == 0) return;
  const std::string label = fmt::format("message=\"{}\"", message.name);
  uint64_t below = 0;
  for (size_t i = 0; i + 1 < message.times.size(); ++i) {
    below += message.times[i];
    if (i % 4 == 0) {  // at each doubling
      page.line(fmt::format("{}_bucket", kName), fmt::format("{},le=\"{}\"", label, bucket_begin_ns(i + 1) / 1e9),
                below);
    }
  }
  page.line(fmt::format("{}_bucket", kName), label + ",le=\"+Inf\"", all);
  page.line(fmt::format("{}_sum", kName), label, sum_seconds(message.times));
  page.line(fmt::format("{}_count", kName), label, all);
}

std::string prometheus_page(const Snapshot &snapshot, const std::vector<HostLimitRecord> &limits) {
  Page page;
  const HostStatusReply &status = snapshot.status;
  const struct {
    const char *name, *help;
    uint64_t value;
  } gauges[] = {
      {"ks_start_time_seconds", "When the service started, in seconds since 1970.", status.started_at},
      {"ks_connections", "Open connections.", status.connections},
      {"ks_users", "Users who are connected or have been lately.", status.users},
      {"ks_entries", "Secrets and PACs in the vault.", status.entries},
      {"ks_stored_bytes", "Bytes of secrets and metadata in the vault.", status.bytes},
      {"ks_vault_file_bytes", "Size of the vault's file.", status.vault_size},
      {"ks_vault_log_bytes", "Size of the vault's log.", status.log_size},
      {"ks_changes_refused", "1 while changes are refused since a write failed.",
       (status.flags & HOST_STATUS_CHANGES_REFUSED) != 0},
      {"ks_reserve_given_up", "1 while the reserve on the vault's disk is given up.",
       (status.flags & HOST_STATUS_RESERVE_GIVEN_UP) != 0},
      {"ks_memory_unlocked", "1 when some keys lie in memory that could be swapped.",
       (status.flags & HOST_STATUS_MEMORY_UNLOCKED) != 0},
      {"ks_reload_failed", "1 when the configuration couldn't be reloaded the last time.",
       status.reload_failed_at != 0},
  };
  for (const auto &gauge : gauges) {
    page.family(gauge.name, "gauge", gauge.help);
    page.line(gauge.name, "", gauge.value);
  }
  page.family("ks_limit", "gauge", "Limits in force, by their keys in the configuration.");
  for (const HostLimitRecord &limit : limits) {
    page.line("ks_limit", fmt::format("key=\"{}\"", text_in(limit.key)), limit.limit);
  }
  page.family("ks_limit_used", "gauge", "How much of each limit is used, of one for each user by the fullest.");
  for (const HostLimitRecord &limit : limits) {
    if ((limit.flags & HOST_LIMIT_HAS_USE) == 0) continue;
    page.line("ks_limit_used", fmt::format("key=\"{}\"", text_in(limit.key)), limit.used);
  }
  page.family("ks_events_total", "counter", "What happened on connections.");
  for (const EventName &event : kEvents) {
    page.line("ks_events_total", fmt::format("event=\"{}\"", event.name), snapshot.events.*event.count);
  }
  page.family("ks_messages_total", "counter", "Requests by message and by whether they succeeded.");
  for (const MessageStatistics &message : snapshot.messages) {
    page.line("ks_messages_total", fmt::format("message=\"{}\",result=\"done\"", message.name), message.done);
    page.line("ks_messages_total", fmt::format("message=\"{}\",result=\"failed\"", message.name), message.failed);
  }
  page.family("ks_user_messages_total", "counter", "Requests by user, while the user is remembered.");
  for (const HostUserRecord &user : snapshot.users) {
    const std::string uid = user.uid == HOST_ALL_UNMAPPED ? "unmapped" : std::to_string(user.uid);
    page.line("ks_user_messages_total", fmt::format("uid=\"{}\",result=\"done\"", uid), user.done);
    page.line("ks_user_messages_total", fmt::format("uid=\"{}\",result=\"failed\"", uid), user.failed);
  }
  page.family("ks_message_duration_seconds", "histogram",
              "Time from a request's arrival until its reply is ready, of a sample; the sum is an estimate.");
  for (const MessageStatistics &message : snapshot.messages) add_times(page, message);
  return page.text();
}

void stats(Session &session, const Arguments &arguments) {
  const bool prometheus = arguments.has("--prometheus");
  const int views = int{prometheus} + arguments.has("--user") + arguments.has("--users");
  if (views > 1) throw Failure(Exit::kUsage, "give one of --prometheus, --user and --users");
  if (prometheus && session.output.format() == Format::kJson) {
    throw Failure(Exit::kUsage, "--prometheus has a format of its own; leave --json out");
  }
  if (arguments.has("--user")) return print_user(session, uid_of(arguments.text("--user")));
  ServiceLink link(session.socket);
  const Snapshot snapshot = take_snapshot(link);
  if (!prometheus) return print_all(session, snapshot, arguments.has("--users"));
  const auto limits = records_of<HostLimitsReply, HostLimitRecord>(link.ask(HOST_OP_LIMITS));
  session.output.text(prometheus_page(snapshot, limits.records), {});
}

}  // namespace

std::span<const Command> stats_commands() {
  static constexpr Parameter kParameters[] = {
      {"--user", Kind::kText, "Only what this user asked for: a name, a number, or unmapped for all without a VDC"},
      {"--users", Kind::kFlag, "By user instead of by message"},
      {"--prometheus", Kind::kFlag, "In Prometheus's text format"},
  };
  static constexpr Command kCommands[] = {
      {"stats", "Tell what the service was asked for since it started, and how long that took", kParameters, stats},
  };
  return kCommands;
}

}  // namespace ksctl
