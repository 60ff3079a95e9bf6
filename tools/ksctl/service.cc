// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// service.cc: commands about the service itself: how it is, what it does, and what it is asked to do.
#include <fmt/format.h>

#include "administration.h"
#include "command.h"
#include "config/config.h"
#include "status.h"

namespace ksctl {
namespace {

// How many connections have a channel; 0 with a service that knows none.
uint64_t channels_of(ServiceLink &link) {
  for (const HostLimitRecord &limit : records_of<HostLimitsReply, HostLimitRecord>(link.ask(HOST_OP_LIMITS)).records) {
    if (text_in(limit.key) == "channels") return limit.used;
  }
  return 0;
}

std::optional<HostFleetReply> fleet_of(ServiceLink &link, const HostStatusReply &status) {
  if ((status.flags & HOST_STATUS_SHARED) == 0) return std::nullopt;
  return link.ask_for<HostFleetReply>(HOST_OP_FLEET);
}

// The files of a vault, or of the mirror of a fleet.
std::string files_in_words(const HostStatusReply &status) {
  return fmt::format("{}, {}, log {}", text_in(status.vault), size_text(status.vault_size), size_text(status.log_size));
}

std::string fleet_in_words(const HostFleetReply &fleet) {
  const bool well = (fleet.flags & HOST_FLEET_IS_WELL) != 0;
  const std::string age =
      fleet.age_ms == UINT64_MAX ? "nothing is loaded" : fmt::format("entries of {} ms ago", fleet.age_ms);
  return fmt::format("machine {}, {}, {}", text_in(fleet.machine), well ? "all is well" : "see above", age);
}

void print_status_page(Session &session, const HostStatusReply &status, const std::optional<HostFleetReply> &fleet,
                       uint64_t channels, const std::vector<std::string> &warnings) {
  std::string page;
  for (const std::string &warning : warnings) page += session.output.alarm("! " + printable(warning)) + "\n";
  const auto line = [&](const char *name, const std::string &text) {
    page += session.output.strong(fmt::format("{:<14}", name)) + printable(text) + "\n";
  };
  line("service", fmt::format("ksd {}, pid {}, up {}", version_text(status.service_version), status.pid,
                              duration_in_words(status.up_ms / 1000)));
  line("socket", session.socket);
  line("configuration", fmt::format("{}, loaded {}", text_in(status.config), time_text(status.config_loaded_at)));
  line("connections", fmt::format("{}, {} {}, {} by a channel", share_text(status.connections, status.connection_limit),
                                  status.users, status.users == 1 ? "user" : "users", channels));
  line("entries", share_text(status.entries, status.entry_limit));
  line("bytes", size_share_text(status.bytes, status.byte_limit));
  if (fleet) {
    line("fleet", fleet_in_words(*fleet));
    line("mirror", status.vault[0] == '\0' ? "none" : files_in_words(status));
  } else {
    const bool compaction_helps = (status.flags & HOST_STATUS_COMPACTION_HELPS) != 0;
    line("vault", files_in_words(status) + (compaction_helps ? "; compaction would help" : ""));
  }
  line("sup state", std::to_string(status.supstate));
  line("receive limit", fmt::format("{} ms", status.receive_limit_ms));
  session.output.text(page, {});
}

Value text_or_null(const std::string &text) {
  return text.empty() ? Value() : Value(text);
}

Value vault_value(const HostStatusReply &status) {
  if ((status.flags & HOST_STATUS_SHARED) != 0) return {};
  return Object{{"file", text_in(status.vault)},
                {"size", status.vault_size},
                {"log_size", status.log_size},
                {"compaction_helps", (status.flags & HOST_STATUS_COMPACTION_HELPS) != 0},
                {"reserve_kept", (status.flags & HOST_STATUS_RESERVE_GIVEN_UP) == 0}};
}

Value fleet_value(const HostFleetReply &fleet, const HostStatusReply &status) {
  return Object{{"machine", text_in(fleet.machine)},
                {"well", (fleet.flags & HOST_FLEET_IS_WELL) != 0},
                {"left_alone", (fleet.flags & HOST_FLEET_LEFT_ALONE) != 0},
                {"age_ms", fleet.age_ms == UINT64_MAX ? Value() : Value(fleet.age_ms)},
                {"mirror", text_or_null(text_in(status.vault))},
                {"mirror_size", status.vault_size},
                {"mirror_log_size", status.log_size}};
}

void service_status(Session &session, const Arguments &) {
  ServiceLink link(session.socket);
  const auto status = link.ask_for<HostStatusReply>(HOST_OP_STATUS);
  const uint64_t channels = channels_of(link);
  const std::optional<HostFleetReply> fleet = fleet_of(link, status);
  const std::vector<std::string> warnings = warnings_of(status);
  if (session.output.format() == Format::kTerminal) {
    return print_status_page(session, status, fleet, channels, warnings);
  }

  const auto has = [&](uint32_t flag) { return (status.flags & flag) != 0; };
  Object fields{
      {"warnings", List(warnings.begin(), warnings.end())},
      {"socket", session.socket},
      {"pid", status.pid},
      {"version", version_text(status.service_version)},
      {"started_at", status.started_at},
      {"up_seconds", status.up_ms / 1000},
      {"connections", Object{{"open", status.connections},
                             {"limit", status.connection_limit},
                             {"users", status.users},
                             {"channels", channels}}},
      {"entries", Object{{"stored", status.entries}, {"limit", status.entry_limit}}},
      {"bytes", Object{{"stored", status.bytes}, {"limit", status.byte_limit}}},
      {"vault", vault_value(status)},
      {"fleet", fleet ? fleet_value(*fleet, status) : Value()},
      {"changes", Object{{"refused", has(HOST_STATUS_CHANGES_REFUSED)},
                         {"until_restart", has(HOST_STATUS_UNTIL_RESTART)},
                         {"why", text_or_null(text_in(status.refusal))}}},
      {"configuration", Object{{"file", text_in(status.config)},
                               {"loaded_at", status.config_loaded_at},
                               {"reload_failed_at", status.reload_failed_at == 0 ? Value() : status.reload_failed_at},
                               {"problem", text_or_null(text_in(status.problem))},
                               {"problems", status.problem_count},
                               {"restart_needed", has(HOST_STATUS_RESTART_NEEDED)}}},
      {"sup_state", status.supstate},
      {"receive_limit_ms", status.receive_limit_ms},
      {"memory_locked", !has(HOST_STATUS_MEMORY_UNLOCKED)},
      {"nearly_full", has(HOST_STATUS_STORE_NEARLY_FULL)},
  };
  if (warnings.empty() && session.output.format() != Format::kJson) fields.erase(fields.begin());
  session.output.fields(fields);
}

Value vdc_value(uint32_t vdc_id) {
  return vdc_id == HOST_NO_VDC ? Value() : Value(vdc_id);
}

void owners(Session &session, const Arguments &) {
  ServiceLink link(session.socket);
  const FleetOwners of_fleet(link);
  List rows;
  for (const HostOwnerRecord &owner : ask_for_all<HostOwnerRecord>(link, HOST_OP_OWNERS)) {
    const bool is_user = of_fleet.is_user(owner.uid);
    rows.push_back(Object{{"owner", of_fleet.name(owner.uid)},
                          {"uid", is_user ? Value(owner.uid) : Value()},
                          {"user", is_user ? user_name(owner.uid) : Value()},
                          {"vdc", vdc_value(owner.vdc_id)},
                          {"entries", owner.entries},
                          {"bytes", owner.bytes}});
  }
  static constexpr Column kColumns[] = {{"owner", "OWNER"}, {"uid", "UID"},         {"user", "USER"},
                                        {"vdc", "VDC"},     {"entries", "ENTRIES"}, {"bytes", "BYTES"}};
  session.output.table("owners", std::span(kColumns).subspan(of_fleet.is_known() ? 0 : 1), rows, "The vault is empty.");
}

void limits(Session &session, const Arguments &) {
  ServiceLink link(session.socket);
  const FleetOwners of_fleet(link);
  List rows;
  for (const HostLimitRecord &limit : records_of<HostLimitsReply, HostLimitRecord>(link.ask(HOST_OP_LIMITS)).records) {
    const bool has_use = (limit.flags & HOST_LIMIT_HAS_USE) != 0;
    const bool has_user = (limit.flags & HOST_LIMIT_HAS_USER) != 0;
    // Who connects is a user of this machine, who owns entries one of the fleet's.
    const std::string key = text_in(limit.key);
    const bool is_of_owners = key == "entries_per_user" || key == "bytes_per_user";
    rows.push_back(Object{
        {"key", key},
        {"limit", limit.limit},
        {"used", has_use ? Value(limit.used) : Value()},
        {"percent", has_use && limit.limit != 0 ? Value(100 * limit.used / limit.limit) : Value()},
        {"uid", has_user && !(is_of_owners && !of_fleet.is_user(limit.uid)) ? Value(limit.uid) : Value()},
        {"owner", has_user && is_of_owners ? of_fleet.name(limit.uid) : Value()},
    });
  }
  static constexpr Column kColumns[] = {{"key", "LIMIT"}, {"used", "USED"},  {"limit", "OF"},
                                        {"percent", "%"}, {"uid", "BY UID"}, {"owner", "BY OWNER"}};
  session.output.table("limits", std::span(kColumns).first(std::size(kColumns) - (of_fleet.is_known() ? 0 : 1)), rows,
                       "There are no limits.");
}

void reload(Session &session, const Arguments &) {
  ServiceLink link(session.socket);
  const auto reply = records_of<HostReloadReply, HostConfigProblem>(link.ask(HOST_OP_RELOAD));
  List problems;
  for (const HostConfigProblem &problem : reply.records) {
    problems.push_back(Object{{"line", problem.line}, {"column", problem.column}, {"text", text_in(problem.text)}});
  }
  const bool taken_up = reply.head.taken_up != 0;
  const Object object{{"taken_up", taken_up},
                      {"restart_needed", reply.head.restart_needed != 0},
                      {"problems", problems},
                      {"problem_count", reply.head.problem_count}};
  if (taken_up) {
    return session.output.done(reply.head.restart_needed != 0
                                   ? "The configuration is in force, but for what counts from the next start."
                                   : "The configuration is in force.",
                               object);
  }
  if (session.output.format() == Format::kJson) session.output.done("", object);
  const std::string file = text_in(link.ask_for<HostStatusReply>(HOST_OP_STATUS).config);
  for (const HostConfigProblem &problem : reply.records) {
    session.output.complain(ksd::config::describe(file, {problem.line, problem.column, text_in(problem.text)}));
  }
  throw Failure(Exit::kFailed,
                fmt::format("{}: the configuration wasn't taken up, the old one stays in force: {} {}; "
                            "mend the file and reload again",
                            file, reply.head.problem_count, reply.head.problem_count == 1 ? "problem" : "problems"));
}

void checkpoint(Session &session, const Arguments &) {
  ServiceLink link(session.socket);
  const auto reply = link.ask_for<HostCheckpointReply>(HOST_OP_CHECKPOINT);
  session.output.done(is_of_fleet(link) ? "There is no log to write back: the entries are those of a fleet."
                                        : fmt::format("The vault's log is written back: {} pages.", reply.pages),
                      Object{{"pages", reply.pages}});
}

}  // namespace

std::span<const Command> service_commands() {
  static constexpr Command kCommands[] = {
      {"status",
       "Tell how the service is: what is wrong first, then who is connected and what it keeps",
       {},
       service_status},
      {"owners", "List whose entries the vault holds: user, VDC, entries, bytes", {}, owners},
      {"limits", "List the limits in force and how much of each is used", {}, limits},
      {"reload", "Have the service read its configuration again, and tell what is wrong with it", {}, reload},
      {"checkpoint", "Have the service write the vault's log back into the vault", {}, checkpoint},
  };
  return kCommands;
}

}  // namespace ksctl
