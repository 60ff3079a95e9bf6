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

void print_status_page(Session &session, const HostStatusReply &status, uint64_t channels,
                       const std::vector<std::string> &warnings) {
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
  line("vault",
       fmt::format("{}, {}, log {}{}", text_in(status.vault), size_text(status.vault_size), size_text(status.log_size),
                   (status.flags & HOST_STATUS_COMPACTION_HELPS) != 0 ? "; compaction would help" : ""));
  line("sup state", std::to_string(status.supstate));
  line("receive limit", fmt::format("{} ms", status.receive_limit_ms));
  session.output.text(page, {});
}

void status(Session &session, const Arguments &) {
  ServiceLink link(session.socket);
  const auto status = link.ask_for<HostStatusReply>(HOST_OP_STATUS);
  const uint64_t channels = channels_of(link);
  const std::vector<std::string> warnings = warnings_of(status);
  if (session.output.format() == Format::kTerminal) return print_status_page(session, status, channels, warnings);

  const auto has = [&](uint32_t flag) { return (status.flags & flag) != 0; };
  const auto text_or_null = [](const std::string &text) { return text.empty() ? Value() : Value(text); };
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
      {"vault", Object{{"file", text_in(status.vault)},
                       {"size", status.vault_size},
                       {"log_size", status.log_size},
                       {"compaction_helps", has(HOST_STATUS_COMPACTION_HELPS)},
                       {"reserve_kept", !has(HOST_STATUS_RESERVE_GIVEN_UP)}}},
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
  List rows;
  for (const HostOwnerRecord &owner : ask_for_all<HostOwnerRecord>(link, HOST_OP_OWNERS)) {
    rows.push_back(Object{{"uid", owner.uid},
                          {"user", user_name(owner.uid)},
                          {"vdc", vdc_value(owner.vdc_id)},
                          {"entries", owner.entries},
                          {"bytes", owner.bytes}});
  }
  static constexpr Column kColumns[] = {
      {"uid", "UID"}, {"user", "USER"}, {"vdc", "VDC"}, {"entries", "ENTRIES"}, {"bytes", "BYTES"}};
  session.output.table("owners", kColumns, rows, "The vault is empty.");
}

void limits(Session &session, const Arguments &) {
  ServiceLink link(session.socket);
  List rows;
  for (const HostLimitRecord &limit : records_of<HostLimitsReply, HostLimitRecord>(link.ask(HOST_OP_LIMITS)).records) {
    const bool has_use = (limit.flags & HOST_LIMIT_HAS_USE) != 0;
    rows.push_back(Object{
        {"key", text_in(limit.key)},
        {"limit", limit.limit},
        {"used", has_use ? Value(limit.used) : Value()},
        {"percent", has_use && limit.limit != 0 ? Value(100 * limit.used / limit.limit) : Value()},
        {"uid", (limit.flags & HOST_LIMIT_HAS_USER) != 0 ? Value(limit.uid) : Value()},
    });
  }
  static constexpr Column kColumns[] = {
      {"key", "LIMIT"}, {"used", "USED"}, {"limit", "OF"}, {"percent", "%"}, {"uid", "BY UID"}};
  session.output.table("limits", kColumns, rows, "There are no limits.");
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
  const auto reply = ServiceLink(session.socket).ask_for<HostCheckpointReply>(HOST_OP_CHECKPOINT);
  session.output.done(fmt::format("The vault's log is written back: {} pages.", reply.pages),
                      Object{{"pages", reply.pages}});
}

}  // namespace

std::span<const Command> service_commands() {
  static constexpr Command kCommands[] = {
      {"status", "Tell how the service is: what is wrong first, then who is connected and what it keeps", {}, status},
      {"owners", "List whose entries the vault holds: user, VDC, entries, bytes", {}, owners},
      {"limits", "List the limits in force and how much of each is used", {}, limits},
      {"reload", "Have the service read its configuration again, and tell what is wrong with it", {}, reload},
      {"checkpoint", "Have the service write the vault's log back into the vault", {}, checkpoint},
  };
  return kCommands;
}

}  // namespace ksctl
