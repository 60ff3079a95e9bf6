// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// The messages for administrators that are about the vault: backups, and its master key.

#include <algorithm>
#include <array>
#include <ctime>

#include "host_wire.h"
#include "server/administration.h"

namespace ksd::server {

static_assert(sizeof(HostBackupReply{}.stream_header) == sizeof(vault::BackupStreamHeader));
static_assert(sizeof(HostBackupRequest{}.opening) == vault::kBackupOpeningSize);

using State = vault::KeyChangeProgress::State;
static_assert(HOST_KEY_ONE == static_cast<int>(State::kNone) && HOST_KEY_MOVING == static_cast<int>(State::kMoving) &&
              HOST_KEY_STOPPED == static_cast<int>(State::kStopped) &&
              HOST_KEY_WAITING == static_cast<int>(State::kWaiting));

void Administration::begin_backup(const Asked &asked) {
  const handlers::Request &request = asked.request;
  if (request.descriptor_size != sizeof(HostBackupRequest) || request.message.size() != sizeof(HostBackupRequest)) {
    return asked.reply.result(KS_INVALID_ARGS);
  }
  if (!asked.sessions.backup.begin(backups_)) {
    service_.log_limiter.warn(LogLimiter::Kind::kBackups, request.caller.uid,
                              "refused a backup to user {}: {} are being read already", request.caller.uid,
                              kBackupsAtOnce);
    return asked.reply.result(KS_TIMEOUT);
  }
  try {
    open_backup(asked);
  } catch (...) {
    asked.sessions.backup.end();
    throw;
  }
}

// The key stays in the request, which is cleansed once it is answered, and in guarded memory.
void Administration::open_backup(const Asked &asked) {
  constexpr size_t kKeySize = sizeof(HostBackupRequest{}.key);
  const handlers::Request &request = asked.request;
  const std::shared_ptr<const SecretBytes> key = SecretBytes::copy_of(request.message.first(kKeySize));
  vault::Snapshot snapshot = vault_.snapshot();
  HostBackupReply begun{};
  begun.result = KS_SUCCESS;
  begun.entries = snapshot.header.entry_count;
  begun.version = snapshot.header.last_version;
  auto writer = std::make_unique<vault::BackupWriter>(std::move(snapshot), static_cast<uint64_t>(std::time(nullptr)),
                                                      *key, request.message.subspan(kKeySize));
  begun.parts = static_cast<uint32_t>(writer->parts());
  std::copy(writer->stream_header().begin(), writer->stream_header().end(), begun.stream_header);
  asked.sessions.backup.use(std::move(writer));
  spdlog::info("user {} (pid {}) takes a backup of {} entries", request.caller.uid, request.caller.pid, begun.entries);
  asked.reply.record(begun);
}

void Administration::next_backup_part(const Asked &asked) {
  if (!asked.sessions.backup.is_open()) return asked.reply.result(KS_NOT_FOUND);
  static_assert(vault::kSealedPartSize <= UINT16_MAX);
  std::array<uint8_t, vault::kSealedPartSize> part;
  const size_t size = asked.sessions.backup.writer().next(part.data());
  if (size == 0) asked.sessions.backup.end();
  asked.reply.data(Bytes(part).first(size));
}

void Administration::change_master_key(const Asked &asked) {
  const Bytes key = asked.request.message;
  if (!key.empty() && key.size() != vault::kMasterKeySize) return asked.reply.result(KS_INVALID_ARGS);
  asked.reply.result(vault_.change_key(key.empty() ? nullptr : SecretBytes::copy_of(key)));
}

void Administration::master_key_change(const Asked &asked) {
  const vault::KeyChangeProgress progress = vault_.key_change();
  HostKeyChangeReply told{};
  told.result = KS_SUCCESS;
  told.state = static_cast<uint32_t>(progress.state);
  told.moved = progress.moved;
  told.entries = progress.entries;
  asked.reply.record(told);
}

}  // namespace ksd::server
