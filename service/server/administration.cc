// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "server/administration.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <new>

#include "server/text_fields.h"

namespace ksd::server {
namespace {

constexpr uint32_t kNobody = 0;

uint64_t size_of_file(const std::string &path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 ? static_cast<uint64_t>(status.st_size) : 0;
}

// number_in gives the number that is all of a request, or nothing.
std::optional<uint32_t> number_in(const handlers::Request &request) {
  return request.message.size() == sizeof(uint32_t) ? request.descriptor<uint32_t>() : std::nullopt;
}

// page answers with what is listed from the request's number on.
template <typename List, typename RecordOf>
void page(const handlers::Request &request, handlers::Reply &reply, List list, RecordOf record_of) {
  const std::optional<uint32_t> from = number_in(request);
  if (!from) return reply.result(KS_INVALID_ARGS);
  const auto found = list(*from, HOST_PAGE_RECORDS + 1);  // one more, to see whether there is one
  std::vector<decltype(record_of(found.front()))> records;
  for (const auto &one : found) {
    if (records.size() == HOST_PAGE_RECORDS) break;
    records.push_back(record_of(one));
  }
  reply.records(HostPageReply{.result = KS_SUCCESS,
                              .count = static_cast<uint32_t>(records.size()),
                              .more = found.size() > records.size(),
                              .record_size = sizeof(records[0])},
                records);
}

// for_each_page has `visit` see all that is listed, a page at a time.
template <typename List, typename Visit>
void for_each_page(List list, Visit visit) {
  for (uid_t from = 0;;) {
    const auto found = list(from, HOST_PAGE_RECORDS);
    for (const auto &one : found) visit(one);
    if (found.size() < HOST_PAGE_RECORDS || found.back().uid == HOST_ALL_UNMAPPED) return;
    from = found.back().uid + 1;
  }
}

}  // namespace

struct Administration::Row {
  uint32_t opcode;
  void (Administration::*handler)(const Asked &asked);
  bool has_descriptor = false;  // else a request of it has no payload
};

const Administration::Row Administration::kRows[] = {
    {HOST_OP_STATUS, &Administration::status},
    {HOST_OP_COUNTERS, &Administration::counters, true},
    {HOST_OP_LATENCIES, &Administration::latencies},
    {HOST_OP_USERS, &Administration::users, true},
    {HOST_OP_OWNERS, &Administration::owners, true},
    {HOST_OP_LIMITS, &Administration::limits},
    {HOST_OP_RELOAD, &Administration::reload},
    {HOST_OP_CHECKPOINT, &Administration::checkpoint},
    {HOST_OP_BEGIN_BACKUP, &Administration::begin_backup, true},
    {HOST_OP_NEXT_BACKUP_PART, &Administration::next_backup_part},
    {HOST_OP_CHANGE_MASTER_KEY, &Administration::change_master_key, true},
    {HOST_OP_MASTER_KEY_CHANGE, &Administration::master_key_change},
    {HOST_OP_FLEET, &Administration::fleet},
    {HOST_OP_FLEET_MACHINES, &Administration::fleet_machines},
    {HOST_OP_FLEET_LEAVE, &Administration::leave_fleet, true},
    {HOST_OP_FLEET_CHANGE_KEY, &Administration::change_fleet_key, true},
    {HOST_OP_FLEET_KEYS, &Administration::fleet_keys},
    {HOST_OP_FLEET_OWNERS, &Administration::fleet_owners, true},
    {HOST_OP_FLEET_IMPORT, &Administration::fleet_import, true},
    {HOST_OP_FLEET_RESTORE, &Administration::fleet_restore, true},
    {HOST_OP_FLEET_GO_ON, &Administration::fleet_go_on},
    {HOST_OP_FLEET_ACCEPT, &Administration::fleet_accept, true},
};

bool Administration::answer(const handlers::Request &request, Crowd &crowd, Sessions &sessions,
                            handlers::Reply &reply) {
  const auto row = std::ranges::find(kRows, request.opcode, &Row::opcode);
  if (row == std::end(kRows) || !request.caller.administrator) return false;
  service_.counters.add(Event::kAdministration);
  if (!row->has_descriptor && !request.message.empty()) {
    reply.result(KS_INVALID_ARGS);
    return true;
  }
  try {
    (this->*row->handler)({request, crowd, sessions, reply});
  } catch (const std::bad_alloc &) {
    reply.result(KS_NO_MEMORY);
  } catch (const std::exception &error) {
    service_.log_limiter.warn(LogLimiter::Kind::kAdministration, request.caller.uid,
                              "a message of an administrator: {}", error.what());
    reply.result(KS_FAILURE);
  }
  return true;
}

void Administration::status(const Asked &asked) {
  const vault::Store::Usage usage = vault_.usage();
  const vault::Condition condition = vault_.condition();
  const Reloader::State configuration = reloader_.state();
  const std::shared_ptr<const config::Config> config = current_config_.snapshot();
  const Places places = asked.crowd.places();
  HostStatusReply status{};
  status.result = KS_SUCCESS;
  status.pid = static_cast<uint32_t>(getpid());
  status.started_at = static_cast<uint64_t>(started_at_);
  status.service_version = KSD_VERSION_MAJOR * 256 + KSD_VERSION_MINOR;
  status.connections = places.connections;
  status.connection_limit = config->limits.connections;
  status.users = places.users;
  status.entries = usage.entries;
  status.entry_limit = usage.entry_limit;
  if (!guarded_memory_use().all_locked) status.flags |= HOST_STATUS_MEMORY_UNLOCKED;
  if (usage.over_90_percent) status.flags |= HOST_STATUS_STORE_NEARLY_FULL;
  if (usage.compaction_helps) status.flags |= HOST_STATUS_COMPACTION_HELPS;
  if (!condition.refusal.empty() || condition.until_restart) status.flags |= HOST_STATUS_CHANGES_REFUSED;
  if (condition.until_restart) status.flags |= HOST_STATUS_UNTIL_RESTART;
  if (fleet_ != nullptr) status.flags |= HOST_STATUS_SHARED;
  if (!condition.reserve_kept) status.flags |= HOST_STATUS_RESERVE_GIVEN_UP;
  if (configuration.restart_needed) status.flags |= HOST_STATUS_RESTART_NEEDED;
  status.supstate = config->supstate;
  status.up_ms = up_ms();
  status.bytes = usage.bytes;
  status.byte_limit = usage.byte_limit;
  const std::string &file = fleet_ != nullptr ? fleet_->mirror() : vault_.path();
  status.vault_size = size_of_file(file);
  status.log_size = size_of_file(file + "-wal");
  status.receive_limit_ms = config->receive_limit_ms;
  status.problem_count = static_cast<uint32_t>(configuration.problem_count);
  status.config_loaded_at = static_cast<uint64_t>(configuration.loaded_at);
  status.reload_failed_at = static_cast<uint64_t>(configuration.failed_at);
  put_path(status.vault, file);
  put_path(status.config, configuration.path);
  put_text(status.refusal, condition.refusal);
  if (configuration.problem_count != 0) {
    put_text(status.problem, config::describe(configuration.path, configuration.problem));
  }
  asked.reply.record(status);
}

void Administration::fleet(const Asked &asked) {
  if (fleet_ == nullptr) return asked.reply.result(KS_NOT_FOUND);
  const fleet::SharedStatus status = fleet_->status();
  HostFleetReply told{};
  told.result = KS_SUCCESS;
  if (status.standing == fleet::Standing::kGood) told.flags |= HOST_FLEET_IS_WELL;
  if (fleet::lasts(status.standing)) told.flags |= HOST_FLEET_LEFT_ALONE;
  if (!status.has_engine) told.flags |= HOST_FLEET_NO_ENGINE;
  told.age_ms = status.age ? static_cast<uint64_t>(status.age->count()) : UINT64_MAX;
  told.version = status.version;
  told.incarnation = status.incarnation;
  told.commits = status.counts.commits;
  told.lost = status.counts.lost;
  told.unknown = status.counts.unknown;
  told.loads = status.counts.loads;
  if (status.fleet) std::ranges::copy(*status.fleet, told.id);
  put_text(told.machine, fleet_->machine());
  put_text(told.standing, status.words);
  asked.reply.record(told);
}

void Administration::fleet_owners(const Asked &asked) {
  if (fleet_ == nullptr) return asked.reply.result(number_in(asked.request) ? KS_NOT_FOUND : KS_INVALID_ARGS);
  const fleet::Owners &names = fleet_->owner_names();
  page(
      asked.request, asked.reply, [this](uid_t from, size_t most) { return fleet_->owners(from, most); },
      [&names](const vault::Owner &owner) {
        HostFleetOwner record{};
        record.uid = owner.uid;
        record.flags = names.is_user(owner.uid) ? 0 : HOST_OWNER_IS_NO_USER;
        put_text(record.name, names.name_of(owner.uid));
        return record;
      });
}

void Administration::counters(const Asked &asked) {
  HostCountersReply head{};
  head.result = KS_SUCCESS;
  head.up_ms = up_ms();
  MessageCountList counts;
  if (asked.request.message.empty()) {
    const Counters &all = service_.counters;
    counts = list_of(all.messages());
    head.connections = all.total(Event::kConnected);
    head.refused_connections = all.total(Event::kRefusedConnection);
    head.malformed = all.total(Event::kMalformed);
    head.unknown_opcodes = all.total(Event::kUnknownOpcode);
    head.too_large = all.total(Event::kTooLarge);
    head.foreign_datagrams = all.total(Event::kForeignDatagram);
    head.unread_replies = all.total(Event::kUnread);
    head.foreign_names = all.total(Event::kForeignName);
    head.administration = all.total(Event::kAdministration);
  } else {
    const std::optional<uint32_t> uid = number_in(asked.request);
    if (!uid) return asked.reply.result(KS_INVALID_ARGS);
    std::optional<MessageCountList> of_user = asked.crowd.messages_of(*uid);
    if (!of_user) return asked.reply.result(KS_NOT_FOUND);
    counts = std::move(*of_user);
  }
  std::vector<HostMessageCounters> records;
  for (uint32_t opcode = kFirstOpcode; opcode <= kLastOpcode; ++opcode) {
    const handlers::Row *row = dispatcher_.find(opcode);
    if (row == nullptr) continue;
    const MessageCount &count = counts.at(opcode - kFirstOpcode);
    HostMessageCounters &record = records.emplace_back();
    record.opcode = opcode;
    record.done = count.done;
    record.failed = count.failed;
    put_text(record.name, row->name);
  }
  head.count = static_cast<uint32_t>(records.size());
  asked.reply.records(head, records);
}

void Administration::latencies(const Asked &asked) {
  HostLatenciesReply head{};
  head.result = KS_SUCCESS;
  head.bucket_count = HOST_LATENCY_BUCKETS;
  head.up_ms = up_ms();
  std::vector<HostMessageLatencies> records;
  for (uint32_t opcode = kFirstOpcode; opcode <= kLastOpcode; ++opcode) {
    if (dispatcher_.find(opcode) == nullptr) continue;
    HostMessageLatencies &record = records.emplace_back();
    record.opcode = opcode;
    for (size_t i = 0; i < HOST_LATENCY_BUCKETS; ++i) record.timed[i] = service_.latencies.timed(opcode, i);
  }
  head.count = static_cast<uint32_t>(records.size());
  asked.reply.records(head, records);
}

void Administration::users(const Asked &asked) {
  page(
      asked.request, asked.reply, [&asked](uid_t from, size_t most) { return asked.crowd.visitors(from, most); },
      [](const Visitor &visitor) {
        return HostUserRecord{.uid = visitor.uid,
                              .vdc_id = visitor.vdc_id.value_or(HOST_NO_VDC),
                              .connections = visitor.connections,
                              .flags = visitor.administrator ? HOST_USER_IS_ADMINISTRATOR : 0,
                              .done = visitor.done,
                              .failed = visitor.failed};
      });
}

void Administration::owners(const Asked &asked) {
  page(
      asked.request, asked.reply, [this](uid_t from, size_t most) { return vault_.owners(from, most); },
      [](const vault::Owner &owner) {
        return HostOwnerRecord{
            .uid = owner.uid, .vdc_id = owner.vdc_id, .entries = owner.entries, .bytes = owner.bytes};
      });
}

void Administration::limits(const Asked &asked) {
  const config::Limits limits = current_config_.snapshot()->limits;
  const vault::Store::Usage usage = vault_.usage();
  const Places places = asked.crowd.places();
  Visitor busiest;
  for_each_page([&](uid_t from, size_t most) { return asked.crowd.visitors(from, most); },
                [&](const Visitor &visitor) {
                  const bool counts = visitor.uid != HOST_ALL_UNMAPPED;  // who have a limit of their own
                  if (counts && visitor.connections > busiest.connections) busiest = visitor;
                });
  const vault::Owner most_entries = fullest_owner(&vault::Owner::entries);
  const vault::Owner most_bytes = fullest_owner(&vault::Owner::bytes);

  std::vector<HostLimitRecord> records;
  const auto add = [&](const char *key, uint64_t limit, uint64_t used, uint32_t uid, uint32_t flags) {
    HostLimitRecord &record = records.emplace_back();
    put_text(record.key, key);
    record.limit = limit;
    record.used = used;
    record.uid = uid;
    record.flags = flags;
  };
  const auto of_all = [&](const char *key, uint64_t limit, uint64_t used) {
    add(key, limit, used, kNobody, HOST_LIMIT_HAS_USE);
  };
  const auto of_one = [&](const char *key, uint64_t limit, uint64_t used, uid_t uid) {
    add(key, limit, used, uid, HOST_LIMIT_HAS_USE | (used != 0 ? HOST_LIMIT_HAS_USER : 0));
  };
  const auto without_use = [&](const char *key, uint64_t limit) { add(key, limit, 0, kNobody, 0); };
  of_all("connections", limits.connections, places.connections);
  of_one("connections_per_user", limits.connections_per_user, busiest.connections, busiest.uid);
  of_all("connections_unmapped", limits.connections_unmapped, places.of_unmapped);
  of_all("connections_administrators", limits.connections_administrators, places.of_administrators);
  without_use("connects_per_second", limits.connects_per_second);
  of_all("channels", limits.channels, places.channels);
  without_use("requests_per_user", shared_requests(limits));
  without_use("changes_per_user", limits.changes_per_user);
  of_all("entries", limits.entries, usage.entries);
  of_one("entries_per_user", limits.entries_per_user, most_entries.entries, most_entries.uid);
  of_all("bytes", limits.bytes, usage.bytes);
  of_one("bytes_per_user", limits.bytes_per_user, most_bytes.bytes, most_bytes.uid);
  const HostLimitsReply head{.result = KS_SUCCESS, .count = static_cast<uint32_t>(records.size())};
  asked.reply.records(head, records);
}

void Administration::reload(const Asked &asked) {
  spdlog::info("user {} asks for the configuration to be read again", asked.request.caller.uid);
  const Reloader::Outcome outcome = reloader_.reload();
  std::vector<HostConfigProblem> records;
  for (const config::ConfigProblem &problem : outcome.problems) {
    if (records.size() == HOST_RELOAD_PROBLEMS) break;
    HostConfigProblem &record = records.emplace_back();
    record.line = problem.line;
    record.column = problem.column;
    put_text(record.text, problem.text);
  }
  const HostReloadReply head{.result = KS_SUCCESS,
                             .taken_up = outcome.taken_up ? 1u : 0,
                             .restart_needed = outcome.restart_needed ? 1u : 0,
                             .problem_count = static_cast<uint32_t>(outcome.problems.size()),
                             .count = static_cast<uint32_t>(records.size()),
                             .reserved = 0};
  asked.reply.records(head, records);
}

void Administration::checkpoint(const Asked &asked) {
  HostCheckpointReply written{.result = KS_SUCCESS, .reserved = 0, .pages = 0};
  const KsResult result = vault_.write_back(written.pages);
  if (result != KS_SUCCESS) return asked.reply.result(result);
  asked.reply.record(written);
}

vault::Owner Administration::fullest_owner(uint64_t vault::Owner::*what) const {
  vault::Owner fullest;
  for_each_page([this](uid_t from, size_t most) { return vault_.owners(from, most); },
                [&](const vault::Owner &owner) {
                  if (owner.*what > fullest.*what) fullest = owner;
                });
  return fullest;
}

uint64_t Administration::up_ms() const {
  return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - started_).count());
}

}  // namespace ksd::server
