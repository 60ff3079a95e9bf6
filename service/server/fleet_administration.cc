// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// The messages for administrators that change what a fleet holds as a whole.

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <unordered_set>

#include "base/refuse.h"
#include "host_wire.h"
#include "server/administration.h"
#include "server/text_fields.h"

namespace ksd::server {
namespace {

constexpr size_t kRowsAtOnce = 100;
constexpr uint64_t kMostBackup = uint64_t{1} << 30;

std::optional<vault::Taken> taken_in(uint32_t number) {
  switch (number) {
    case HOST_TAKEN_REFUSE:
      return vault::Taken::kRefuse;
    case HOST_TAKEN_SKIP:
      return vault::Taken::kSkip;
    case HOST_TAKEN_REPLACE:
      return vault::Taken::kReplace;
    default:
      return std::nullopt;
  }
}

std::vector<HostFleetName> first_names(const std::vector<EntryName> &names) {
  std::vector<HostFleetName> records;
  for (const EntryName &name : names) {
    if (records.size() == HOST_IMPORT_NAMES) break;
    HostFleetName &record = records.emplace_back();
    record.vdc_id = name.vdc_id;
    record.tag = name.tag;
    record.size = static_cast<uint8_t>(name.name.size());
    std::copy(name.name.begin(), name.name.end(), record.name);
  }
  return records;
}

// words_for says what stopped a change, and what to do.
const char *words_for(KsResult result) {
  switch (result) {
    case KS_INVALID_ARGS:
      return "meanwhile an entry of such a name came to be there; look which, and ask again";
    case KS_STORE_FULL:
      return "a limit or the store's quota is used up; make room, and ask again for the rest";
    case KS_FW_COMM_ERROR:
      return "the store doesn't answer; ask again for the rest when it does";
    case KS_TIMEOUT:
      return "the store hasn't said in time what became of the last entries; ask again: what is there is left as it is";
    case KS_FW_BAD_CELL:
      return "this machine has left the store alone; `ksctl fleet status` says why";
    default:
      return "it failed; the service's log says more";
  }
}

}  // namespace

void Administration::fleet_import(const Asked &asked) {
  const handlers::Request &request = asked.request;
  HostFleetImportRequest wanted{};
  if (request.message.size() < sizeof wanted) return asked.reply.result(KS_INVALID_ARGS);
  std::memcpy(&wanted, request.message.data(), sizeof wanted);
  const std::optional<vault::Taken> taken = taken_in(wanted.taken);
  if (!taken) return asked.reply.result(KS_INVALID_ARGS);
  if (fleet_ == nullptr) return asked.reply.result(KS_NOT_FOUND);
  if (!asked.sessions.fleet.begin(fleet_work_)) return asked.reply.result(KS_TIMEOUT);

  HostFleetImportReply read{};
  read.result = KS_FAILURE;
  vault::VaultOptions options;
  options.path = text_of(wanted.vault);
  if (options.path.empty()) options.path = current_config_.snapshot()->vault;
  options.master_key_file = text_of(wanted.key_file);
  options.witness = text_of(wanted.witness);
  const Bytes passphrase = request.message.subspan(sizeof wanted);
  if (!passphrase.empty()) options.passphrase = SecretBytes::copy_of(passphrase);
  put_path(read.vault, options.path);
  std::vector<HostFleetName> names;
  try {
    size_t unnamed = 0;
    // {}: Clang 14 has no emplace() for a nested class with default member initializers.
    FleetSession::Import &import = asked.sessions.fleet.import.emplace(FleetSession::Import{});
    import.taken = *taken;
    import.rows = fleet_->of_fleet(vault::read_vault(options), unnamed);
    const fleet::ImportPlan plan = fleet_->plan_import(import.rows, *taken);
    read.result = KS_SUCCESS;
    read.entries = import.rows.size();
    read.added = plan.counts.added;
    read.same = plan.counts.same;
    read.replaced = plan.counts.replaced;
    read.skipped = plan.counts.skipped;
    read.refused = plan.taken.size();
    read.unnamed = unnamed;
    if (plan.limit) {
      read.limit = plan.limit->limit;
      put_text(read.limit_name, plan.limit->limit_name);
    }
    names = first_names(plan.taken);
    if (plan.limit || !plan.taken.empty()) asked.sessions.fleet.end();
  } catch (const vault::Unavailable &) {
    asked.sessions.fleet.end();
    put_text(read.refusal, "the fleet's entries can't be read now; `ksctl fleet status` says why");
  } catch (const std::runtime_error &error) {
    asked.sessions.fleet.end();
    put_text(read.refusal, error.what());
  }
  read.count = static_cast<uint32_t>(names.size());
  asked.reply.records(read, names);
}

void Administration::fleet_go_on(const Asked &asked) {
  if (fleet_ == nullptr) return asked.reply.result(KS_NOT_FOUND);
  FleetSession &session = asked.sessions.fleet;
  if (session.import) return go_on_with_import(asked);
  if (session.restore && session.restore->is_whole) return go_on_with_restore(asked);
  asked.reply.result(KS_NOT_FOUND);
}

void Administration::go_on_with_import(const Asked &asked) {
  FleetSession::Import &import = *asked.sessions.fleet.import;
  if (import.done == 0) {
    spdlog::info("user {} (pid {}) takes {} entries of a vault into the fleet", asked.request.caller.uid,
                 asked.request.caller.pid, import.rows.size());
  }
  const auto rows = std::span(import.rows).subspan(import.done);
  const auto next = rows.first(std::min(rows.size(), kRowsAtOnce));
  HostFleetGoOnReply told{};
  told.result = fleet_->import(next, import.taken, import.counts);
  if (told.result == KS_SUCCESS) import.done += next.size();
  const bool is_done = import.done == import.rows.size();
  told.state = is_done ? HOST_FLEET_WORK_DONE : HOST_FLEET_WORK_GOES_ON;
  told.done = import.done;
  told.all = import.rows.size();
  told.added = import.counts.added;
  told.same = import.counts.same;
  told.replaced = import.counts.replaced;
  told.skipped = import.counts.skipped;
  if (told.result != KS_SUCCESS) put_text(told.refusal, words_for(told.result));
  if (is_done || told.result != KS_SUCCESS) asked.sessions.fleet.end();
  asked.reply.record(told);
}

void Administration::fleet_restore(const Asked &asked) {
  const handlers::Request &request = asked.request;
  HostFleetRestoreRequest wanted{};
  if (request.message.size() < sizeof wanted) return asked.reply.result(KS_INVALID_ARGS);
  std::memcpy(&wanted, request.message.data(), sizeof wanted);
  const Bytes part = request.message.subspan(sizeof wanted);
  if (fleet_ == nullptr) return asked.reply.result(KS_NOT_FOUND);
  FleetSession &session = asked.sessions.fleet;
  HostFleetRestoreReply told{};
  told.result = KS_SUCCESS;
  const fleet::SharedStatus status = fleet_->status();
  told.present_entries = vault_.usage().entries;
  told.present_version = status.version;
  told.incarnation = status.incarnation;
  if (wanted.step == HOST_RESTORE_BEGIN) {
    if (!session.begin(fleet_work_)) return asked.reply.result(KS_TIMEOUT);
    // {}: Clang 14 has no emplace() for a nested class with default member initializers.
    FleetSession::Restore &restore = session.restore.emplace(FleetSession::Restore{});
    session.restored_by = fleet_;
    restore.size = wanted.size;
    restore.key = SecretBytes::copy_of({wanted.key, sizeof wanted.key});
    sodium_memzero(wanted.key, sizeof wanted.key);
    restore.wanted.incarnation = wanted.incarnation;
    restore.file = UniqueFd(memfd_create("ksd-restore", MFD_CLOEXEC));
    const bool has_room = wanted.size <= kMostBackup && restore.file &&
                          ftruncate(restore.file.get(), static_cast<off_t>(wanted.size)) == 0;
    if (!has_room) {
      session.end();
      told.result = KS_FAILURE;
      put_text(told.refusal, "there is no room for a backup of that size");
    }
    return asked.reply.record(told);
  }
  const bool is_next = wanted.step == HOST_RESTORE_CONTINUE && session.restore && !session.restore->is_whole &&
                       part.size() <= session.restore->size - session.restore->received;
  if (!is_next) return asked.reply.result(KS_INVALID_ARGS);
  FleetSession::Restore &restore = *session.restore;
  if (write(restore.file.get(), part.data(), part.size()) != static_cast<ssize_t>(part.size())) {
    session.end();
    return asked.reply.result(KS_NO_MEMORY);
  }
  restore.received += part.size();
  told.received = restore.received;
  if (restore.received == restore.size) {
    try {
      read_backup(restore, told);
      told.whole = 1;
    } catch (const std::runtime_error &error) {
      session.end();
      told.result = KS_FAILURE;
      put_text(told.refusal, error.what());
    }
  }
  asked.reply.record(told);
}

// read_backup reads the backup to its end, and looks whether its entries make a table.
void Administration::read_backup(FleetSession::Restore &restore, HostFleetRestoreReply &told) {
  lseek(restore.file.get(), 0, SEEK_SET);
  vault::BackupReader backup(restore.file.get(), "the backup", *restore.key);
  const vault::BackupContents &contents = backup.contents();
  std::unordered_set<EntryName, vault::NameHash> names;
  while (const vault::RowPtr row = backup.next()) {
    auto ours = std::make_shared<vault::EntryRow>(*row);
    const auto named = contents.owners.find(row->owner);
    ours->owner = named == contents.owners.end() ? fleet_->owner_of_user(row->owner) : fleet_->owner_of(named->second);
    const bool is_free = names.insert(row->name).second && (!row->alias || names.insert(*row->alias).second);
    if (!is_free) refuse("the backup has two entries of one name; give another one");
    restore.wanted.rows.push_back(std::move(ours));
  }
  if (restore.wanted.rows.size() > UINT16_MAX) {
    refuse("the backup has more entries than the {} that a fleet can have", UINT16_MAX);
  }
  restore.wanted.last_id = contents.last_id;
  restore.wanted.last_version = contents.last_version;
  restore.wanted.fleet = contents.vault_id;
  randombytes_buf(&restore.wanted.folder, sizeof restore.wanted.folder);
  restore.file = UniqueFd();
  restore.key.reset();
  restore.is_whole = true;
  told.entries = contents.entry_count;
  told.version = contents.last_version;
  told.made_at = contents.time;
}

void Administration::go_on_with_restore(const Asked &asked) {
  FleetSession::Restore &restore = *asked.sessions.fleet.restore;
  HostFleetGoOnReply told{};
  told.result = KS_SUCCESS;
  if (!restore.has_begun) {
    spdlog::warn("user {} (pid {}) restores a backup of {} entries", asked.request.caller.uid, asked.request.caller.pid,
                 restore.wanted.rows.size());
    told.all = restore.wanted.rows.size();
    told.result = fleet_->begin_restore(std::move(restore.wanted));
    restore.has_begun = told.result == KS_SUCCESS;
    if (told.result != KS_SUCCESS) {
      put_text(told.refusal, "this machine is none of the store's fleet; `ksctl fleet status` says why");
      asked.sessions.fleet.end();
    }
    return asked.reply.record(told);
  }
  using State = fleet::Restore::Progress::State;
  const fleet::Restore::Progress progress = fleet_->wait_for_restore();
  const fleet::SharedStatus status = fleet_->status();
  const bool is_followed = status.incarnation == progress.incarnation || fleet::lasts(status.standing);
  told.done = progress.done;
  told.all = progress.all;
  told.incarnation = progress.incarnation;
  told.result = progress.result;
  put_text(told.refusal, progress.why);
  const bool is_done = progress.state == State::kDone && is_followed;
  told.state = is_done ? HOST_FLEET_WORK_DONE : HOST_FLEET_WORK_GOES_ON;
  if (is_done || progress.state == State::kStopped) asked.sessions.fleet.end();
  asked.reply.record(told);
}

void Administration::fleet_accept(const Asked &asked) {
  uint64_t incarnation = 0;
  if (asked.request.message.size() != sizeof incarnation) return asked.reply.result(KS_INVALID_ARGS);
  if (fleet_ == nullptr) return asked.reply.result(KS_NOT_FOUND);
  std::memcpy(&incarnation, asked.request.message.data(), sizeof incarnation);
  HostFleetAcceptReply told{};
  told.result = fleet_->accept_incarnation(incarnation);
  const fleet::SharedStatus status = fleet_->status();
  told.incarnation = status.incarnation;
  told.restored_to = status.restored_to;
  spdlog::warn("user {} (pid {}) has this machine follow a fleet restored to incarnation {}: {}",
               asked.request.caller.uid, asked.request.caller.pid, incarnation,
               told.result == KS_SUCCESS ? "it does" : "it doesn't");
  asked.reply.record(told);
}

}  // namespace ksd::server
