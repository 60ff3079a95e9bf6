// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// The messages for administrators that are about the machines of a fleet, and the fleet's master key.

#include <algorithm>

#include "host_wire.h"
#include "server/administration.h"
#include "server/text_fields.h"

namespace ksd::server {
namespace {

HostToldReply to_reply(const fleet::Told &told) {
  HostToldReply reply{};
  reply.result = told.result;
  put_text(reply.words, told.words);
  return reply;
}

HostMachineRecord to_record(const fleet::MachineSeen &seen) {
  HostMachineRecord record{};
  put_text(record.name, seen.name);
  if (seen.is_this) record.flags |= HOST_MACHINE_IS_THIS;
  if (seen.is_member) record.flags |= HOST_MACHINE_IS_MEMBER;
  if (seen.beat) record.flags |= HOST_MACHINE_HAS_BEAT;
  if (seen.silent_at_least) record.flags |= HOST_MACHINE_SILENT_AT_LEAST;
  if (seen.public_key != fleet::PublicKey{}) record.flags |= HOST_MACHINE_HAS_KEY;
  record.silent_ms = static_cast<uint64_t>(std::max<int64_t>(0, seen.silent.count()));
  std::ranges::copy(fleet::fingerprint_of({.machine = seen.name, .public_key = seen.public_key}), record.fingerprint);
  if (!seen.beat) return record;
  record.version = seen.beat->version;
  for (const vault::KeyId &key : seen.beat->keys) {
    if (record.key_count == std::size(record.keys)) break;
    std::ranges::copy(key, record.keys[record.key_count++]);
  }
  return record;
}

}  // namespace

void Administration::fleet_machines(const Asked &asked) {
  if (fleet_ == nullptr) return asked.reply.result(KS_NOT_FOUND);
  std::vector<HostMachineRecord> records;
  for (const fleet::MachineSeen &seen : fleet_->machines()) {
    if (records.size() == HOST_MACHINES) break;
    records.push_back(to_record(seen));
  }
  asked.reply.records(HostMachinesReply{.result = KS_SUCCESS, .count = static_cast<uint32_t>(records.size())}, records);
}

void Administration::leave_fleet(const Asked &asked) {
  const std::optional<HostLeaveRequest> request = asked.request.descriptor<HostLeaveRequest>();
  if (!request || asked.request.message.size() != sizeof *request) return asked.reply.result(KS_INVALID_ARGS);
  if (fleet_ == nullptr) return asked.reply.result(KS_NOT_FOUND);
  const std::string machine = text_of(request->machine);
  spdlog::info("user {} asks that {} leave the fleet", asked.request.caller.uid,
               machine.empty() ? "this machine" : machine);
  asked.reply.record(to_reply(fleet_->leave(machine, (request->flags & HOST_LEAVE_EVEN_IF_ALIVE) != 0)));
}

void Administration::change_fleet_key(const Asked &asked) {
  fleet::Fingerprint compared;
  if (asked.request.message.size() != compared.size()) return asked.reply.result(KS_INVALID_ARGS);
  if (fleet_ == nullptr) return asked.reply.result(KS_NOT_FOUND);
  std::ranges::copy(asked.request.message, compared.begin());
  spdlog::info("user {} asks for another master key of the fleet", asked.request.caller.uid);
  asked.reply.record(to_reply(fleet_->begin_key_change(compared)));
}

void Administration::fleet_keys(const Asked &asked) {
  if (fleet_ == nullptr) return asked.reply.result(KS_NOT_FOUND);
  const fleet::KeyChangeSeen seen = fleet_->fleet_key_change();
  HostFleetKeysReply told{};
  told.result = KS_SUCCESS;
  std::ranges::copy(seen.key, told.key);
  told.moved = seen.moved;
  told.entries = seen.entries;
  if (seen.machines) {
    told.flags |= HOST_FLEET_KEYS_LOADED;
    std::ranges::copy(*seen.machines, told.machines);
  }
  if (seen.change) {
    told.flags |= HOST_FLEET_KEYS_CHANGE;
    std::ranges::copy(seen.change->key_id, told.next_key);
    put_text(told.begun_by, seen.change->begun_by);
  }
  asked.reply.record(told);
}

}  // namespace ksd::server
